#include "codec/mc_3e_codec.h"

#include <glib.h>

#include <climits>
#include <cstdio>
#include <cstring>

#include "codec/number_scan.h"

#define MC_LOG(fmt, ...) g_log(G_LOG_DOMAIN, G_LOG_LEVEL_WARNING, "%s:%d " fmt, __func__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

namespace {

// The 3E device codes, searched in this order.
const char *const code_map[] = {"SM,0X91", "SD,0XA9", "X*,0X9C", "Y*,0X9D", "M*,0X90", "L*,0X92",
                                "F*,0X93", "V*,0X94", "B*,0XA0", "D*,0XA8", "W*,0XB4", "TS,0XC1",
                                "TC,0XC0", "TN,0XC2", "SS,0XC7", "SC,0XC6", "SN,0XC8", "CS,0XC4",
                                "CC,0XC3", "CN,0XC5", "SB,0XA1", "SW,0XB5", "S*,0X98", "DX,0XA2",
                                "DY,0XA3", "Z*,0XCC", "R*,0XAF", "ZR,0XB0"};

bool parse_entry(const char *entry, char text[3], unsigned *code, char *sep)
{
    return sscanf(entry, "%2[A-Z*]%c%4x", text, sep, code) == 3;
}

void put16(uint8_t *p, uint16_t v)
{
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}

uint16_t get16(const uint8_t *p)
{
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

void print_rows(const uint8_t *bytes, size_t count, bool hex)
{
    for (size_t i = 0; i < count; ++i) {
        if (hex)
            g_print("%02x ", bytes[i]);
        else
            g_print("%c", bytes[i]);
        if ((i + 1) % 10 == 0)
            g_print("\n");
    }
    if (count % 10 != 0)
        g_print("\n");
}

// The Q serial codec has its own; each codec stands alone.
void upper_string(char *text)
{
    for (; *text != '\0'; ++text)
        *text = g_ascii_toupper(*text);
}

} // namespace

void init_MC_bulk_read_msg(MC_bulk_read_msg *msg)
{
    *msg = MC_bulk_read_msg{};
    msg->request_subheader = 0x0050;
    msg->response_subheader = 0x00D0;
    msg->net_num = 0x00;
    msg->plc_num = 0xFF;
    msg->module_io_num = 0x03FF;
    msg->module_station_num = 0x00;
    msg->request_hex_len = 12;
    msg->request_ascii_len = 24;
    msg->monitor_timer = 16;
    msg->expect_exception_hex_len = 11;
}

int get_soft_component_type(uint8_t code)
{
    switch (code) {
    case 0x91: case 0x9C: case 0x9D: case 0x90: case 0x92: case 0x93: case 0x94: case 0xA0:
    case 0xC1: case 0xC0: case 0xC7: case 0xC6: case 0xC4: case 0xC3: case 0xA1: case 0x98:
    case 0xA2: case 0xA3:
        return E_BIT_SOFT_COMPONENT;
    case 0xA9: case 0xA8: case 0xB4: case 0xC2: case 0xC8: case 0xC5: case 0xB5: case 0xCC:
    case 0xAF: case 0xB0:
        return E_WORD_SOFT_COMPONENT;
    default:
        return E_NONE_SOFT_COMPONENT;
    }
}

int transform_soft_component_code_ascii_to_hex(const char *text, uint8_t *code)
{
    for (const char *entry : code_map) {
        char t[3] = {};
        unsigned c = 0;
        char sep = 0;
        if (!parse_entry(entry, t, &c, &sep))
            continue;
        if (sep != ',') {
            MC_LOG("separator != ,\n");
            return -1;
        }
        if (strcmp(t, text) == 0) {
            *code = static_cast<uint8_t>(c);
            return 0;
        }
    }
    MC_LOG("ascii_code can't match in code_map\n");
    return -1;
}

int transform_soft_component_code_hex_to_ascii(uint8_t code, char text[3])
{
    for (const char *entry : code_map) {
        char t[3] = {};
        unsigned c = 0;
        char sep = 0;
        if (parse_entry(entry, t, &c, &sep) && c == code) {
            memcpy(text, t, 3);
            return 0;
        }
    }
    MC_LOG("soft_component_hex_code = 0x%02x\n", code);
    return -1;
}

int analyze_soft_component(int kind, const char *address, uint8_t *code, uint32_t *number)
{
    char letters[4] = {};
    int used = 0;
    if (address == nullptr || sscanf(address, "%2[a-zA-Z]%n", letters, &used) < 1 ||
        letters[0] == '\0') {
        MC_LOG("code_len = 0\n");
        return -1;
    }
    if (letters[1] == '\0')
        letters[1] = '*';
    upper_string(letters);
    if ((letters[0] == 'T' || letters[0] == 'C') && letters[1] == '*')
        letters[1] = kind == 1 ? 'N' : 'S';
    if (transform_soft_component_code_ascii_to_hex(letters, code) != 0)
        return -1;
    // The number as "%d" reads it (spaces, a sign, decimal digits, X and Y
    // included: X1F reads as X1; none at all reads as 0). Held at INT_MAX
    // instead of overflowing, as the QnA 4C codec does. A negative one names
    // no device (D-5 would go out as FB FF FF) and is refused.
    const long long n = scan_number(address + used, 10, INT_MAX);
    if (n < 0) {
        MC_LOG("head_num < 0 : %s\n", address);
        return -1;
    }
    *number = static_cast<uint32_t>(n);
    return 0;
}

int build_MC_bulk_read_msg(MC_bulk_read_msg *msg, int kind, uint8_t code, uint32_t head,
                           uint16_t points)
{
    init_MC_bulk_read_msg(msg);
    msg->kind = kind;
    msg->soft_component_code = code;
    msg->head_num = head;
    msg->points = points;
    msg->soft_component_type = get_soft_component_type(code);
    if (msg->soft_component_type == E_NONE_SOFT_COMPONENT) {
        MC_LOG("soft_component_type = E_NONE_SOFT_COMPONENT\n");
        return -1;
    }
    if (transform_soft_component_code_hex_to_ascii(code, msg->soft_component_ascii) != 0)
        return -1;
    msg->command = 0x0401;
    if (kind == 0) {
        msg->subcommand = 0x0001;
        if (msg->soft_component_type != E_BIT_SOFT_COMPONENT) {
            MC_LOG("soft_component_type != E_BIT_SOFT_COMPONENT\n");
            return -1;
        }
        msg->expect_response_hex_len = static_cast<uint16_t>(points / 2 + (points % 2) + 2);
    } else {
        msg->subcommand = 0x0000;
        if (msg->soft_component_type != E_WORD_SOFT_COMPONENT) {
            MC_LOG("soft_component_type != E_WORD_SOFT_COMPONENT\n");
            return -1;
        }
        msg->expect_response_hex_len = static_cast<uint16_t>((points + 1) * 2);
    }
    return 0;
}

int build_MC_bulk_read_bit_msg(MC_bulk_read_msg *msg, uint8_t code, uint32_t head, uint16_t points)
{
    return build_MC_bulk_read_msg(msg, 0, code, head, points);
}

int build_MC_bulk_read_word_msg(MC_bulk_read_msg *msg, uint8_t code, uint32_t head, uint16_t points)
{
    return build_MC_bulk_read_msg(msg, 1, code, head, points);
}

int build_MC_bulk_read_msg_1(MC_bulk_read_msg *msg, int kind, const char *address, uint16_t points)
{
    uint8_t code = 0;
    uint32_t head = 0;
    if (analyze_soft_component(kind, address, &code, &head) != 0)
        return -1;
    return build_MC_bulk_read_msg(msg, kind, code, head, points);
}

int build_MC_bulk_read_bit_msg_1(MC_bulk_read_msg *msg, const char *address, uint16_t points)
{
    return build_MC_bulk_read_msg_1(msg, 0, address, points);
}

int build_MC_bulk_read_word_msg_1(MC_bulk_read_msg *msg, const char *address, uint16_t points)
{
    return build_MC_bulk_read_msg_1(msg, 1, address, points);
}

int build_MC_bulk_read_bit_msg_2(MC_bulk_read_msg *msg, const char *address)
{
    return build_MC_bulk_read_msg_1(msg, 0, address, 1);
}

int build_MC_bulk_read_word_msg_2(MC_bulk_read_msg *msg, const char *address)
{
    return build_MC_bulk_read_msg_1(msg, 1, address, 1);
}

int output_hex_MC_bulk_read_msg(const MC_bulk_read_msg *msg, uint8_t *b, size_t size)
{
    if (size < MC_REQUEST_HEX_LEN)
        return -1;
    put16(b, msg->request_subheader);
    b[2] = msg->net_num;
    b[3] = msg->plc_num;
    put16(b + 4, msg->module_io_num);
    b[6] = msg->module_station_num;
    put16(b + 7, msg->request_hex_len);
    put16(b + 9, msg->monitor_timer);
    put16(b + 11, msg->command);
    put16(b + 13, msg->subcommand);
    b[15] = static_cast<uint8_t>(msg->head_num);
    b[16] = static_cast<uint8_t>(msg->head_num >> 8);
    b[17] = static_cast<uint8_t>(msg->head_num >> 16);
    b[18] = msg->soft_component_code;
    put16(b + 19, msg->points);
    return static_cast<int>(MC_REQUEST_HEX_LEN);
}

int output_ascii_MC_bulk_read_msg(const MC_bulk_read_msg *msg, char *buffer, size_t size)
{
    if (buffer == nullptr || size < MC_REQUEST_ASCII_LEN) {
        MC_LOG("output_len > output_size [ascii]\n");
        return -1;
    }
    // Lower-case hex digits, head number and points in decimal: as the
    // gateway has always sent them.
    char text[64];
    const int n = snprintf(text, sizeof text, "%02x%02x%02x%02x%04x%02x%04x%04x%04x%04x%s%06d%04d",
                           msg->request_subheader & 0xFF, msg->request_subheader >> 8,
                           msg->net_num, msg->plc_num, msg->module_io_num, msg->module_station_num,
                           msg->request_ascii_len, msg->monitor_timer, msg->command,
                           msg->subcommand, msg->soft_component_ascii,
                           static_cast<int32_t>(msg->head_num), msg->points);
    if (n != static_cast<int>(MC_REQUEST_ASCII_LEN)) {
        MC_LOG("output len != output_len [ascii]\n");
        return -1;
    }
    memcpy(buffer, text, MC_REQUEST_ASCII_LEN);
    if (size > MC_REQUEST_ASCII_LEN)
        buffer[MC_REQUEST_ASCII_LEN] = '\0';
    return n;
}

void print_hex(const uint8_t *bytes, size_t count)
{
    print_rows(bytes, count, true);
}

void print_char(const char *chars, size_t count)
{
    print_rows(reinterpret_cast<const uint8_t *>(chars), count, false);
}

void print_hex_MC_bulk_read_msg(const MC_bulk_read_msg *msg)
{
    uint8_t frame[1024];
    const int n = output_hex_MC_bulk_read_msg(msg, frame, sizeof frame);
    if (n > 0)
        print_hex(frame, static_cast<size_t>(n));
}

void print_ascii_MC_bulk_read_msg(const MC_bulk_read_msg *msg)
{
    char frame[1024];
    const int n = output_ascii_MC_bulk_read_msg(msg, frame, sizeof frame);
    if (n > 0)
        print_char(frame, static_cast<size_t>(n));
}

int analyze_MC_response(const uint8_t *r, size_t length, MC_bulk_read_msg *msg)
{
    // A response shorter than its fixed header, or than the length its
    // header claims, is refused before anything is read from it.
    if (r == nullptr || length < 11) {
        MC_LOG("response too short (%d)\n", static_cast<int>(length));
        return -1;
    }
    if (get16(r) != msg->response_subheader) {
        MC_LOG("respond_subhead\n");
        return -1;
    }
    if (r[2] != msg->net_num) {
        MC_LOG("net_num\n");
        return -1;
    }
    if (r[3] != msg->plc_num) {
        MC_LOG("plc_num\n");
        return -1;
    }
    if (get16(r + 4) != msg->module_io_num) {
        MC_LOG("module_io_num\n");
        return -1;
    }
    if (r[6] != msg->module_station_num) {
        MC_LOG("module_station_num\n");
        return -1;
    }
    msg->response_hex_len = get16(r + 7);
    msg->end_code = get16(r + 9);
    if (MC_response_claimed_size(r, length) > length) {
        MC_LOG("response shorter than its header claims\n");
        return -1;
    }
    if (msg->end_code == 0) {
        g_print("respond success : respond code = 0x%04x\n", msg->end_code);
        // Under 2 there is not even the end code the length counts.
        if (msg->response_hex_len != msg->expect_response_hex_len || msg->response_hex_len < 2) {
            MC_LOG("response_hex_len(%d) != expect(%d)\n", msg->response_hex_len,
                   msg->expect_response_hex_len);
            return -1;
        }
        msg->response_data = r + 11;
        msg->response_data_len = static_cast<uint16_t>(msg->response_hex_len - 2);
        return 0;
    }
    MC_LOG("exception : respond code = 0x%04x\n", msg->end_code);
    if (msg->response_hex_len != msg->expect_exception_hex_len) {
        MC_LOG("respond_hex_len != expect_exception_hex_len\n");
        return -1;
    }
    msg->exception_info = r + 11;
    msg->exception_info_len = 9;
    const uint8_t *e = msg->exception_info;
    if (e[0] != msg->net_num)
        MC_LOG("exception,net_num err\n");
    else if (e[1] != msg->plc_num)
        MC_LOG("exception,plc_num err\n");
    else if (get16(e + 2) != msg->module_io_num)
        MC_LOG("exception,module_io_num err\n");
    else if (e[4] != msg->module_station_num)
        MC_LOG("exception,module_station_num err\n");
    else if (get16(e + 5) != msg->command)
        MC_LOG("exception,command err\n");
    else if (get16(e + 7) != msg->subcommand)
        MC_LOG("exception,subcommand err\n");
    return -1;
}

size_t MC_response_claimed_size(const uint8_t *response, size_t length)
{
    if (response == nullptr || length < 9)
        return 0;
    return 9 + static_cast<size_t>(get16(response + 7));
}

char get_bit_soft_component_value(const MC_bulk_read_msg *msg)
{
    // Two points per byte, the first in the high nibble.
    char first = '0';
    if (msg->response_data != nullptr && msg->response_data_len > 0)
        BCD_to_ascii(msg->response_data, 1, &first, 1);
    return first;
}

int16_t get_word_soft_component_value(const MC_bulk_read_msg *msg)
{
    if (msg->response_data == nullptr || msg->response_data_len < 2)
        return 0;
    return static_cast<int16_t>(get16(msg->response_data));
}

void BCD_to_ascii(const uint8_t *bytes, size_t count, char *out, size_t out_size)
{
    static const char digits[] = "0123456789abcdef";
    size_t pos = 0;
    for (size_t i = 0; i < count && pos < out_size; ++i) {
        out[pos++] = digits[bytes[i] >> 4];
        if (pos < out_size)
            out[pos++] = digits[bytes[i] & 0xF];
    }
}
