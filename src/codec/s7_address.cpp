#include "codec/s7_address.h"

#include <cstdio>
#include <cstring>

namespace {

// Start byte from every digit in [from, to); bit from the last character
// when the one before it is ".".
void plain_number(const char *s, size_t len, uint32_t &start, uint8_t &bit)
{
    size_t end = len;
    bit = 0;
    if (len >= 2 && s[len - 2] == '.') {
        end = len - 2;
        const char b = s[len - 1];
        bit = (b >= '0' && b <= '7') ? static_cast<uint8_t>(b - '0') : 0;
    }
    start = 0;
    for (size_t i = 0; i < end; ++i)
        if (s[i] >= '0' && s[i] <= '9')
            start = start * 10 + static_cast<uint32_t>(s[i] - '0');
}

} // namespace

uint16_t change_2byte_order(uint16_t v)
{
    return static_cast<uint16_t>((v >> 8) | (v << 8));
}

uint32_t change_4byte_order(uint32_t v)
{
    return (v >> 24) | ((v >> 8) & 0xFF00u) | ((v << 8) & 0xFF0000u) | (v << 24);
}

s7_address s7_parse_address(const char *text, s7_dialect dialect)
{
    s7_address a;
    char s[16] = {};
    if (text == nullptr)
        return a;
    strncpy(s, text, sizeof s - 1);
    for (char &c : s)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    const size_t len = strlen(s);
    if (len < 2)
        return a; // too short to name an area and a number
    if (s[0] == 'i')
        a.area = s7_area::inputs;
    else if (s[0] == 'q')
        a.area = s7_area::outputs;
    else if (dialect == s7_dialect::s7_1200 && s[0] == 'd' && s[1] == 'b')
        a.area = s7_area::db;
    else if (s[0] == 'c')
        a.area = s7_area::counter;
    else if (s[0] == 't')
        a.area = s7_area::timer;
    else if (s[0] == 'm')
        a.area = s7_area::merkers;
    else if (dialect == s7_dialect::smart_200 && s[0] == 'v')
        a.area = s7_area::v;
    if (a.area == s7_area::unknown || a.area == s7_area::counter || a.area == s7_area::timer)
        return a;
    if (a.area != s7_area::db) {
        plain_number(s, len, a.start, a.bit);
        return a;
    }
    const char *us = strrchr(s, '_');
    if (us == nullptr) {
        plain_number(s, len, a.start, a.bit); // no "_": DB 0, every digit is the byte
        return a;
    }
    for (const char *p = s; p < us; ++p)
        if (*p >= '0' && *p <= '9')
            a.db = static_cast<uint8_t>(a.db * 10 + (*p - '0'));
    plain_number(us, len - static_cast<size_t>(us - s), a.start, a.bit);
    return a;
}

size_t s7_read_size(s7_area area, uint32_t data_type)
{
    const bool io = area == s7_area::inputs || area == s7_area::outputs;
    switch (data_type) {
    case 1: case 2: return 1;
    case 3: return io ? 0 : 1;
    case 4: return 2;
    case 6: return 4;
    case 5: case 11: return io ? 0 : 2;
    case 7: case 10: case 12: return io ? 0 : 4;
    default: return 0;
    }
}

bool s7_decode(s7_area area, uint32_t data_type, uint8_t bit, const uint8_t *bytes, size_t len,
               char *value, size_t value_size)
{
    const size_t need = s7_read_size(area, data_type);
    if (need == 0 || len < need)
        return false;
    const bool io = area == s7_area::inputs || area == s7_area::outputs;
    uint16_t w = 0;
    uint32_t d = 0;
    memcpy(&w, bytes, need >= 2 ? 2 : 0);
    memcpy(&d, bytes, need >= 4 ? 4 : 0);
    // I and Q words have always been shown in the gateway's own byte order.
    const uint16_t w_be = io ? w : change_2byte_order(w);
    const uint32_t d_be = io ? d : change_4byte_order(d);
    switch (data_type) {
    case 1: snprintf(value, value_size, "%u", (bytes[0] >> (bit & 7)) & 1u); break;
    case 2: snprintf(value, value_size, "%u", bytes[0]); break;
    case 3: snprintf(value, value_size, "%d", static_cast<int8_t>(bytes[0])); break;
    case 4: snprintf(value, value_size, "%u", w_be); break;
    case 5: snprintf(value, value_size, "%d", static_cast<int16_t>(w_be)); break;
    case 6: snprintf(value, value_size, "%u", d_be); break;
    case 7: snprintf(value, value_size, "%d", static_cast<int32_t>(d_be)); break;
    case 10: {
        float f = 0;
        memcpy(&f, &d_be, sizeof f);
        snprintf(value, value_size, "%f", static_cast<double>(f));
        break;
    }
    case 11: snprintf(value, value_size, "0x%x", w_be); break;
    case 12: snprintf(value, value_size, "0x%x", d_be); break;
    default: return false;
    }
    return true;
}
