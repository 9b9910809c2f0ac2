// FX5U device addresses as Modbus objects: the fixed allocation of the
// FX5U's devices to coils, discrete inputs and holding registers.
#pragma once

#include <cstdint>

enum class fx5u_object { unknown, input_bits, coils, registers };

struct fx5u_address {
    fx5u_object object = fx5u_object::unknown;
    int area = 0;          // 0 unknown
    uint32_t modbus = 0;   // Modbus address
    // X/Y number whose last digit is 8 or 9, or an address past the 16 bits
    // a Modbus request carries (sent as it is it would read another device).
    bool wrong_address = false;
};

fx5u_address fx5u_parse_address(const char *text);
