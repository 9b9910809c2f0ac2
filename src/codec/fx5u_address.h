// FX5U device addresses as Modbus objects (the fixed allocation of the
// FX5U's devices to coils, discrete inputs and holding registers), and the
// values of its registers.
#pragma once

#include <cstddef>
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

// Registers a data type reads from a register area: 1 or 2; 0 when the type
// is not allowed there ("wrong type").
int fx5u_register_count(uint32_t data_type);

// The value text of the registers read for `data_type`. Two registers hold
// the low word first, a Float too (as libmodbus's modbus_get_float takes it).
void fx5u_register_text(uint32_t data_type, const uint16_t r[2], char *value, size_t value_size);
