#include "codec/fx5u_address.h"

#include <cstdio>
#include <cstring>

fx5u_address fx5u_parse_address(const char *text)
{
    fx5u_address a;
    char s[16] = {};
    if (text == nullptr)
        return a;
    strncpy(s, text, sizeof s - 1);
    uint32_t n = 0;
    for (char &c : s) {
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
        if (c >= '0' && c <= '9')
            n = n > 0xFFFFFF ? n : n * 10 + static_cast<uint32_t>(c - '0');
    }
    struct row {
        const char *prefix;
        int area;
        fx5u_object object;
        uint32_t base;
    };
    // Longer prefixes first: "sb", "sm", "sw" before a step relay "s<digit>".
    static const row rows[] = {
        {"x", 1, fx5u_object::input_bits, 0},  {"y", 2, fx5u_object::coils, 0},
        {"d", 3, fx5u_object::registers, 0},   {"m", 4, fx5u_object::coils, 8192},
        {"l", 8, fx5u_object::coils, 22528},   {"b", 9, fx5u_object::coils, 30720},
        {"f", 10, fx5u_object::coils, 38912},  {"w", 13, fx5u_object::registers, 30720},
        {"sb", 11, fx5u_object::coils, 40960}, {"sm", 12, fx5u_object::coils, 20480},
        {"sw", 14, fx5u_object::registers, 40960},
    };
    for (const row &r : rows) {
        if (strncmp(s, r.prefix, strlen(r.prefix)) != 0)
            continue;
        a.area = r.area;
        a.object = r.object;
        a.modbus = n + r.base;
        break;
    }
    if (a.area == 0 && s[0] == 's' && s[1] >= '0' && s[1] <= '9') {
        a.area = 5;
        a.object = fx5u_object::coils;
        a.modbus = n + 45056;
    }
    if (a.area == 1 || a.area == 2) {
        // Octal the FX5U way: right for one and two digits; higher digits
        // count together as tens (X100 is 80). Kept as the PLCs are wired.
        if (n % 10 > 7)
            a.wrong_address = true;
        a.modbus = (n / 10) * 8 + n % 10;
    }
    if (a.modbus > 0xFFFF)
        a.wrong_address = true;
    return a;
}

int fx5u_register_count(uint32_t data_type)
{
    switch (data_type) {
    case 4: case 5: return 1;
    case 6: case 7: case 10: return 2;
    default: return 0;
    }
}

void fx5u_register_text(uint32_t data_type, const uint16_t r[2], char *value, size_t value_size)
{
    const uint32_t d = static_cast<uint32_t>(r[1]) << 16 | r[0];
    float f = 0;
    memcpy(&f, &d, sizeof f);
    switch (data_type) {
    case 4: snprintf(value, value_size, "%u", r[0]); break;
    case 5: snprintf(value, value_size, "%d", static_cast<int16_t>(r[0])); break;
    case 6: snprintf(value, value_size, "%u", d); break;
    case 7: snprintf(value, value_size, "%d", static_cast<int32_t>(d)); break;
    default: snprintf(value, value_size, "%f", static_cast<double>(f)); break;
    }
}
