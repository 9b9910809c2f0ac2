#include "codec/dvp_codec.h"

#include <glib.h>

#include <cstdio>
#include <cstring>

#include "codec/number_scan.h"

namespace {

int hex_value(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

} // namespace

uint32_t dvp_hex_field(const char *p, size_t n)
{
    uint32_t v = 0;
    for (size_t i = 0; i < n && hex_value(p[i]) >= 0; ++i)
        v = v * 16 + static_cast<uint32_t>(hex_value(p[i]));
    return v;
}

uint8_t get_LRC(const char *hex_text)
{
    const size_t len = strlen(hex_text);
    if (len % 2 != 0) {
        g_print("get_LRC : input_len%%2 != 0\n");
        return 0xFF;
    }
    uint8_t sum = 0;
    for (size_t i = 0; i < len; i += 2)
        sum = static_cast<uint8_t>(sum + dvp_hex_field(hex_text + i, 2));
    return static_cast<uint8_t>(0 - sum);
}

int get_code(char code_out[3], char *address, uint32_t data_type)
{
    for (char *p = address; *p != '\0'; ++p)
        if (*p >= 'a' && *p <= 'z')
            *p = static_cast<char>(*p - 'a' + 'A');
    const char *code = nullptr;
    switch (address[0]) {
    case 'C': code = data_type == 1 ? "01" : (data_type == 4 || data_type == 6) ? "03" : nullptr; break;
    case 'D': code = data_type == 4 ? "03" : nullptr; break;
    case 'M':
    case 'S':
    case 'Y': code = data_type == 1 ? "01" : nullptr; break;
    case 'T': code = data_type == 1 ? "01" : data_type == 4 ? "03" : nullptr; break;
    case 'X': code = data_type == 1 ? "02" : nullptr; break;
    default: break;
    }
    if (code == nullptr)
        return -1;
    memcpy(code_out, code, 3);
    return 0;
}

int mapping(const char *address, char *letter_out, char hex_out[5])
{
    const char letter = g_ascii_toupper(address[0]);
    // Held far above every area, so that no number wraps round into range.
    constexpr long long CAP = 1000000000;
    long long n = scan_number(address[0] != '\0' ? address + 1 : address, 10, CAP);
    if (letter == 'X' || letter == 'Y') {
        // Inputs and outputs are numbered in octal: X17 is input 15. A
        // number with no octal digit keeps its decimal reading (X8).
        bool octal = false;
        const long long o = scan_number(address + 1, 8, CAP, &octal);
        if (octal)
            n = o;
    }
    long long start = 0;
    switch (letter) {
    case 'S': start = n; break;
    case 'X': start = 0x400 + n; break;
    case 'Y': start = 0x500 + n; break;
    case 'T': start = 0x600 + n; break;
    case 'M': start = n < 1536 ? 0x800 + n : 0xB000 + n; break;
    case 'C': start = 0xE00 + n; break;
    case 'D': start = n < 4096 ? 0x1000 + n : 0x9000 + n; break;
    default: start = 0; break;
    }
    *letter_out = letter;
    hex_out[0] = '\0';
    // Masked into four digits, D28672 would read S0 and D-5 another D
    // register; no register of the PLC lies out there.
    if (n < 0 || start > 0xFFFF)
        return -1;
    snprintf(hex_out, 5, "%04X", static_cast<unsigned>(start));
    return 0;
}

std::string dvp_request(uint32_t station, const char *code, const char *address_hex)
{
    char body[32];
    snprintf(body, sizeof body, "%02x%s%s0001", station, code, address_hex);
    char frame[48];
    snprintf(frame, sizeof frame, ":%s%02X\r\n", body, get_LRC(body));
    return frame;
}

int analysis_delta(const char *answer, size_t len, const char *code, uint32_t *value_out,
                   char exception_out[3])
{
    if (len < 9 || answer[0] != ':' || answer[len - 2] != '\r' || answer[len - 1] != '\n')
        return -1;
    char body[64] = {};
    const size_t body_len = len - 5;
    if (body_len >= sizeof body)
        return -1;
    memcpy(body, answer + 1, body_len);
    char lrc[3];
    snprintf(lrc, sizeof lrc, "%02X", get_LRC(body));
    if (memcmp(lrc, answer + len - 4, 2) != 0)
        return -2; // compared as text: a lower-case LRC is refused
    if (dvp_hex_field(answer + 3, 2) >= 0x80) {
        exception_out[0] = answer[5];
        exception_out[1] = answer[6];
        exception_out[2] = '\0';
        return -3;
    }
    const size_t count = dvp_hex_field(answer + 5, 2);
    const size_t chars = 2 * count;
    if (7 + chars > len - 4 || chars > 8)
        return -1; // the data must lie before the LRC
    *value_out = dvp_hex_field(answer + 7, chars);
    if (strcmp(code, "01") == 0 || strcmp(code, "02") == 0)
        *value_out &= 1;
    return 0;
}
