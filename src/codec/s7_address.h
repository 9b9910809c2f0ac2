// S7 node addresses and values, as the S7 Ethernet drivers read them:
// parsing an address text into area, DB, byte and bit, and turning the
// bytes read into the value text. Pure functions.
#pragma once

#include <cstddef>
#include <cstdint>

enum class s7_area { unknown, inputs, outputs, counter, timer, merkers, db, v };

// The two address dialects: the 200 SMART has V memory and no DB areas.
enum class s7_dialect { smart_200, s7_1200 };

struct s7_address {
    s7_area area = s7_area::unknown;
    uint32_t start = 0;
    uint8_t db = 0; // 8 bits on purpose: DB300 is DB 44
    uint8_t bit = 0;
};

// Only the first 15 characters count; letters inside are ignored.
s7_address s7_parse_address(const char *text, s7_dialect dialect);

// Bytes to read for a data type in an area; 0 when the type is not allowed
// there ("wrong type").
size_t s7_read_size(s7_area area, uint32_t data_type);

// Writes the value text of `len` bytes read from `area` into `value` (at
// most `value_size` bytes); false when the type is not allowed there.
bool s7_decode(s7_area area, uint32_t data_type, uint8_t bit, const uint8_t *bytes, size_t len,
               char *value, size_t value_size);

uint16_t change_2byte_order(uint16_t v);
uint32_t change_4byte_order(uint32_t v);
