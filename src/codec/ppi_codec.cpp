#include "codec/ppi_codec.h"

#include <cstdio>
#include <cstring>

const uint8_t PPI_confirm[PPI_SHORT_FRAME_LEN] = {0x10, 0x02, 0x00, 0x5C, 0x5E, 0x16};
const uint8_t PPI_hello[PPI_SHORT_FRAME_LEN] = {0x10, 0x02, 0x00, 0x49, 0x4B, 0x16};

namespace {

constexpr size_t ADDR_KEEP = 15; // characters of the address that count

struct area_choice {
    uint8_t transport_size;
    uint8_t area;
    uint8_t db;
    int item_code;
};

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

// Access size by data type for M, S, SM and V: bit, byte, word, double word
// as 0..3; -1 for a type these areas cannot be read as.
int size_class(uint32_t data_type)
{
    switch (data_type) {
    case 1: return 0;
    case 2: case 3: return 1;
    case 4: case 5: return 2;
    case 6: case 7: case 10: return 3;
    default: return -1;
    }
}

// I and Q are read only with the unsigned types.
int io_size_class(uint32_t data_type)
{
    switch (data_type) {
    case 1: return 0;
    case 2: return 1;
    case 4: return 2;
    case 6: return 3;
    default: return -1;
    }
}

constexpr uint8_t size_transport[4] = {1, 2, 4, 6};

bool choose_area(const char *a, uint32_t data_type, area_choice &out)
{
    int first_item = 0; // item code of the bit access; the larger sizes follow it
    uint8_t area = 0;
    uint8_t db = 0;
    switch (a[0]) {
    case 'i':
    case 'q': {
        const int k = io_size_class(data_type);
        if (k < 0)
            return false;
        static constexpr int io_items[4] = {PPI_ITEM_IQ_BIT, PPI_ITEM_IQ_BYTE, PPI_ITEM_IQ_WORD,
                                            PPI_ITEM_IQ_DWORD};
        out = {size_transport[k], static_cast<uint8_t>(a[0] == 'i' ? 0x81 : 0x82), 0, io_items[k]};
        return true;
    }
    case 'c':
        out = {0x1E, 0x1E, 0, PPI_ITEM_C};
        return true;
    case 't':
        out = {0x1F, 0x1F, 0, PPI_ITEM_T};
        return true;
    case 'm':
        first_item = PPI_ITEM_M_BIT;
        area = 0x83;
        break;
    case 's':
        if (is_digit(a[1])) {
            first_item = PPI_ITEM_S_BIT;
            area = 0x04;
        } else if (a[1] == 'm') {
            first_item = PPI_ITEM_SM_BIT;
            area = 0x05;
        } else {
            return false;
        }
        break;
    case 'v':
        first_item = PPI_ITEM_V_BIT;
        area = 0x84;
        db = 1;
        break;
    default:
        return false;
    }
    const int k = size_class(data_type);
    if (k < 0)
        return false;
    out = {size_transport[k], area, db, first_item + k};
    return true;
}

// Byte numbers each area holds; the PLC refuses anything beyond.
bool byte_in_range(int item_code, unsigned long long byte)
{
    switch (item_code) {
    case PPI_ITEM_IQ_BIT: case PPI_ITEM_IQ_BYTE: case PPI_ITEM_IQ_WORD: case PPI_ITEM_IQ_DWORD:
        return byte < 16;
    case PPI_ITEM_V_BIT: case PPI_ITEM_V_BYTE: case PPI_ITEM_V_WORD: case PPI_ITEM_V_DWORD:
        return byte < 10240;
    case PPI_ITEM_C: case PPI_ITEM_T:
        return byte < 256;
    default:
        if (item_code >= PPI_ITEM_M_BIT && item_code < PPI_ITEM_SM_BIT)
            return byte < 32;
        if (item_code >= PPI_ITEM_SM_BIT && item_code < PPI_ITEM_SM_BIT + 4)
            return byte < 550;
        return false;
    }
}

// All decimal digits of a[0..n) read as one number, wherever they stand;
// saturates well above every area's size.
unsigned long long digits_of(const char *a, size_t n)
{
    unsigned long long v = 0;
    for (size_t i = 0; i < n; ++i) {
        if (is_digit(a[i]) && v < 1000000000ULL)
            v = v * 10 + static_cast<unsigned>(a[i] - '0');
    }
    return v;
}

} // namespace

uint8_t PPI_CheckSum(const uint8_t *data, size_t len)
{
    unsigned int sum = 0;
    for (size_t i = 0; i < len; ++i)
        sum += data[i];
    return static_cast<uint8_t>(sum);
}

int addrToNum(const char *addr, int *item_code)
{
    const size_t n = strlen(addr);
    unsigned long long byte = 0;
    unsigned long long bit_address = 0;
    if (n >= 2 && addr[n - 2] == '.') {
        const char bit = addr[n - 1];
        if (bit < '0' || bit > '7') {
            *item_code = PPI_ITEM_NONE;
            return -1;
        }
        byte = digits_of(addr, n - 2);
        bit_address = byte * 8 + static_cast<unsigned>(bit - '0');
    } else {
        byte = digits_of(addr, n);
        // Counters and timers are addressed by their number, not by bytes.
        const bool numbered = *item_code == PPI_ITEM_C || *item_code == PPI_ITEM_T;
        bit_address = numbered ? byte : byte * 8;
    }
    if (!byte_in_range(*item_code, byte)) {
        *item_code = PPI_ITEM_NONE;
        return -1;
    }
    return static_cast<int>(bit_address);
}

int getReadCommandFrame(const char *addr, uint32_t data_type, uint8_t station,
                        uint8_t frame[PPI_REQUEST_LEN], int *item_code)
{
    *item_code = PPI_ITEM_NONE;
    if (addr == nullptr)
        return -1;
    char a[ADDR_KEEP + 1] = {};
    for (size_t i = 0; i < ADDR_KEEP && addr[i] != '\0'; ++i)
        a[i] = (addr[i] >= 'A' && addr[i] <= 'Z') ? static_cast<char>(addr[i] - 'A' + 'a') : addr[i];
    area_choice choice{};
    if (!choose_area(a, data_type, choice))
        return -1;
    *item_code = choice.item_code;
    const int bit_address = addrToNum(a, item_code);
    if (bit_address < 0)
        return -1;
    const auto ba = static_cast<uint32_t>(bit_address);
    const uint8_t request[PPI_REQUEST_LEN] = {
        PPI_SD2, 0x1B, 0x1B, PPI_SD2,
        station, 0x00, 0x6C,          // destination, source (the gateway is 0), function
        0x32, 0x01, 0x00, 0x00, 0x00, 0x00, // S7 job header, reserved and PDU reference
        0x00, 0x0E, 0x00, 0x00,       // parameter length 14, data length 0
        0x04, 0x01,                   // read variable, one item
        0x12, 0x0A, 0x10,             // variable item header, its length, syntax id
        choice.transport_size,
        0x00, 0x01,                   // one element
        0x00, choice.db,
        choice.area,
        static_cast<uint8_t>(ba >> 16), static_cast<uint8_t>(ba >> 8), static_cast<uint8_t>(ba),
        0x00,                         // check, below
        PPI_ED,
    };
    memcpy(frame, request, PPI_REQUEST_LEN);
    frame[31] = PPI_CheckSum(frame + 4, 27);
    return 0;
}

int PPI_decode_value(const uint8_t *answer, size_t len, int item_code, uint32_t data_type,
                     char *value, size_t value_size)
{
    size_t need = 0;
    switch (data_type) {
    case 1: case 2: case 3: need = 1; break;
    case 4: case 5: case 11: need = 2; break;
    case 6: case 7: case 10: case 12: need = 4; break;
    default:
        snprintf(value, value_size, "unkown type");
        return 0;
    }
    if (answer == nullptr || len < PPI_DATA_OFFSET + need)
        return -1;
    const uint32_t d25 = answer[25];
    const uint32_t d26 = need > 1 ? answer[26] : 0;
    const uint32_t d27 = need > 2 ? answer[27] : 0;
    const uint32_t d28 = need > 2 ? answer[28] : 0;
    const uint32_t be16 = d25 << 8 | d26;
    const uint32_t be32 = d25 << 24 | d26 << 16 | d27 << 8 | d28;
    switch (data_type) {
    case 1: case 2:
    case 3: // S8 is shown unsigned, as gateways always have
        snprintf(value, value_size, "%d", static_cast<int>(d25));
        break;
    case 4: {
        // Input and output words come low byte first; other words high byte first.
        const bool io = item_code == PPI_ITEM_IQ_WORD_OLD || item_code == PPI_ITEM_IQ_WORD;
        snprintf(value, value_size, "%d", static_cast<int>(io ? (d26 << 8 | d25) : be16));
        break;
    }
    case 5:
        snprintf(value, value_size, "%d", static_cast<int>(static_cast<int16_t>(be16)));
        break;
    case 6: {
        const bool io = item_code == PPI_ITEM_IQ_DWORD_OLD || item_code == PPI_ITEM_IQ_DWORD;
        const uint32_t v = io ? (d28 << 24 | d27 << 16 | d26 << 8 | d25) : be32;
        snprintf(value, value_size, "%d", static_cast<int32_t>(v));
        break;
    }
    case 7:
        snprintf(value, value_size, "%d", static_cast<int32_t>(be32));
        break;
    case 10: {
        float f = 0;
        memcpy(&f, &be32, sizeof f);
        snprintf(value, value_size, "%f", static_cast<double>(f));
        break;
    }
    case 11:
        snprintf(value, value_size, "0x%x", be16);
        break;
    default: // 12
        snprintf(value, value_size, "0x%x", be32);
        break;
    }
    return 0;
}
