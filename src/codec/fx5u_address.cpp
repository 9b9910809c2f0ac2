#include "codec/fx5u_address.h"

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
