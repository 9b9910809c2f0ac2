#include "codec/fx_codec.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

char hex_digit(unsigned v)
{
    return static_cast<char>(v < 10 ? '0' + v : 'A' + (v - 10));
}

uint8_t byte_at(const uint8_t *p)
{
    return static_cast<uint8_t>((atoh(static_cast<char>(p[0])) << 4) | atoh(static_cast<char>(p[1])));
}

} // namespace

// Lower-case hex letters read as 0: the PLC only ever sends upper case.
uint8_t atoh(char c)
{
    if (c >= '0' && c <= '9')
        return static_cast<uint8_t>(c - '0');
    if (c >= 'A' && c <= 'F')
        return static_cast<uint8_t>(c - 'A' + 10);
    return 0;
}

int fx_build_request(const char *node_addr, uint8_t frame[FX_REQUEST_SIZE], uint8_t *bit)
{
    char a[16] = {};
    strncpy(a, node_addr != nullptr ? node_addr : "", 15);
    for (char &c : a)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    // Held at a bound above every area's limit, so that a long number never
    // wraps round into range.
    constexpr unsigned NUMBER_CAP = 100000;
    unsigned number = 0;
    for (const char *p = a + (a[0] != '\0' ? 1 : 0); *p >= '0' && *p <= '9'; ++p)
        number = std::min(number * 10 + static_cast<unsigned>(*p - '0'), NUMBER_CAP);
    unsigned address = 0;
    unsigned count = 1;
    *bit = 0;
    switch (a[0]) {
    case 'x':
    case 'y':
        // The digits before the last are a decimal byte number: X17 is byte
        // 1 bit 7 and X100 byte 10, not octal.
        if (number % 10 >= 8 || number / 10 >= 37)
            return -2;
        address = (a[0] == 'x' ? 0x80u : 0xA0u) + number / 10;
        *bit = static_cast<uint8_t>(number % 10);
        break;
    case 'd':
        if (number >= 8512)
            return -2;
        address = 0x1000u + 2 * number;
        count = 2;
        break;
    case 'm':
    case 's':
    case 't':
    case 'c': {
        const unsigned limit = a[0] == 'm' ? 8512 : a[0] == 's' ? 4096 : 512;
        if (number >= limit)
            return -2;
        const unsigned base = a[0] == 'm' ? 0x100u : a[0] == 's' ? 0u : a[0] == 't' ? 0xC0u : 0x1C0u;
        address = base + number / 8;
        *bit = static_cast<uint8_t>(number % 8);
        break;
    }
    default:
        return -1;
    }
    memset(frame, 0, FX_REQUEST_SIZE);
    frame[0] = FX_STX;
    frame[1] = '0';
    for (int i = 0; i < 4; ++i)
        frame[2 + i] = static_cast<uint8_t>(hex_digit((address >> (12 - 4 * i)) & 0xF));
    frame[6] = static_cast<uint8_t>('0' + (2 * count) / 10);
    frame[7] = static_cast<uint8_t>('0' + (2 * count) % 10);
    frame[8] = FX_ETX;
    unsigned sum = 0;
    for (int i = 1; i <= 8; ++i)
        sum += frame[i];
    frame[9] = static_cast<uint8_t>(hex_digit((sum >> 4) & 0xF));
    frame[10] = static_cast<uint8_t>(hex_digit(sum & 0xF));
    return 0;
}

bool fx_answer_complete(const uint8_t *answer, size_t len)
{
    if (len < 1 || answer[0] != FX_STX)
        return false;
    const void *etx = memchr(answer + 1, FX_ETX, len - 1);
    if (etx == nullptr)
        return false;
    const auto at = static_cast<size_t>(static_cast<const uint8_t *>(etx) - answer);
    return len - at >= 3;
}

int fx_decode_answer(const uint8_t *answer, size_t len, uint32_t data_type, bool float_ok,
                     uint8_t bit, char *value, size_t value_size)
{
    // The data follows the leading STX; nothing past what arrived is read.
    const uint8_t *d = answer + 1;
    const size_t have = len > 0 ? len - 1 : 0;
    auto need = [&](size_t chars) { return have >= chars; };
    switch (data_type) {
    case 1:
    case 2:
    case 3: {
        if (!need(2))
            return -1;
        const uint8_t b = byte_at(d);
        // S8 stays unsigned: 0..255, as the gateway has always shown it.
        snprintf(value, value_size, "%d", data_type == 1 ? (b >> (bit & 7)) & 1 : b);
        return 0;
    }
    case 4:
    case 5:
    case 11: {
        if (!need(4))
            return -1;
        const uint16_t w = static_cast<uint16_t>((byte_at(d + 2) << 8) | byte_at(d));
        if (data_type == 11)
            snprintf(value, value_size, "0x%x", w);
        else
            snprintf(value, value_size, "%d", data_type == 5 ? static_cast<int16_t>(w) : w);
        return 0;
    }
    case 6:
    case 7:
    case 12: {
        if (!need(8))
            return -1;
        // The first register is the high half, the second the low half.
        const uint32_t v = (static_cast<uint32_t>(byte_at(d + 2)) << 24) |
                           (static_cast<uint32_t>(byte_at(d)) << 16) |
                           (static_cast<uint32_t>(byte_at(d + 6)) << 8) | byte_at(d + 4);
        if (data_type == 12)
            snprintf(value, value_size, "0x%x", v);
        else
            snprintf(value, value_size, "%d", static_cast<int32_t>(v));
        return 0;
    }
    case 10:
        if (float_ok) {
            if (!need(8))
                return -1;
            const uint32_t v = (static_cast<uint32_t>(byte_at(d + 6)) << 24) |
                               (static_cast<uint32_t>(byte_at(d + 4)) << 16) |
                               (static_cast<uint32_t>(byte_at(d + 2)) << 8) | byte_at(d);
            float f;
            memcpy(&f, &v, sizeof f);
            snprintf(value, value_size, "%f", static_cast<double>(f));
            return 0;
        }
        [[fallthrough]];
    default:
        snprintf(value, value_size, "%s", "unkown type");
        return 0;
    }
}
