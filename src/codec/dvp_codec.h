// Modbus ASCII for the Delta DVP-32EC: function codes, address mapping,
// LRC, one-point requests and answer decoding. Pure functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// Up to `n` hex characters (either case) read as "%x" would: the value of
// those before the first non-hex one.
uint32_t dvp_hex_field(const char *p, size_t n);
uint8_t get_LRC(const char *hex_text);
// Upper-cases `address` in place (as the node's text is), then the code
// "01"/"02"/"03" for the letter and data type; -1 when not allowed.
int get_code(char code_out[3], char *address, uint32_t data_type);
// The four-digit Modbus start address ("%04X") and the device letter; -1,
// with hex_out empty, when the number is negative or the start address
// passes 16 bits (D28672, M20480).
int mapping(const char *address, char *letter_out, char hex_out[5]);
// ":" station(%02x) code address "0001" LRC CR LF.
std::string dvp_request(uint32_t station, const char *code, const char *address_hex);
// The answer to a request with function `code`: 0 value decoded, -1
// framing, -2 LRC mismatch, -3 exception answer (its code in exception_out,
// two characters). A coil or input ("01", "02") comes as a whole byte of
// which only bit 0 is the point.
int analysis_delta(const char *answer, size_t len, const char *code, uint32_t *value_out,
                   char exception_out[3]);
