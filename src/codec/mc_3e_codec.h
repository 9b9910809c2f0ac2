// MC protocol 3E frame, batch read (command 0x0401) in bit or word units:
// address parsing, binary and ASCII requests, response checks and value
// extraction. Pure functions over one message record the caller owns.
#pragma once

#include <cstddef>
#include <cstdint>

enum soft_component_type { E_NONE_SOFT_COMPONENT = 0, E_BIT_SOFT_COMPONENT = 1, E_WORD_SOFT_COMPONENT = 2 };

struct MC_bulk_read_msg {
    int32_t kind; // 0 bit units, 1 word units
    uint16_t request_subheader;
    uint16_t response_subheader;
    uint8_t net_num;
    uint8_t plc_num;
    uint16_t module_io_num;
    uint8_t module_station_num;
    uint16_t request_hex_len;
    uint16_t request_ascii_len;
    uint16_t monitor_timer;
    uint16_t command;
    uint16_t subcommand;
    uint8_t soft_component_code;
    char soft_component_ascii[3];
    int32_t soft_component_type;
    uint32_t head_num;
    uint16_t points;
    uint16_t expect_response_hex_len;
    uint16_t expect_exception_hex_len;
    uint16_t response_hex_len;
    uint16_t end_code;
    const uint8_t *response_data;
    uint16_t response_data_len;
    const uint8_t *exception_info;
    uint16_t exception_info_len;
};

constexpr size_t MC_REQUEST_HEX_LEN = 21;
constexpr size_t MC_REQUEST_ASCII_LEN = 42;

void init_MC_bulk_read_msg(MC_bulk_read_msg *msg);
int get_soft_component_type(uint8_t code);
int transform_soft_component_code_ascii_to_hex(const char *text, uint8_t *code);
int transform_soft_component_code_hex_to_ascii(uint8_t code, char text[3]);
int analyze_soft_component(int kind, const char *address, uint8_t *code, uint32_t *number);

// Request building: from a device code and head number, from an address
// text with a number of points (_1), or from an address text for one point
// (_2). All return 0 or -1.
int build_MC_bulk_read_msg(MC_bulk_read_msg *msg, int kind, uint8_t code, uint32_t head,
                           uint16_t points);
int build_MC_bulk_read_bit_msg(MC_bulk_read_msg *msg, uint8_t code, uint32_t head, uint16_t points);
int build_MC_bulk_read_word_msg(MC_bulk_read_msg *msg, uint8_t code, uint32_t head, uint16_t points);
int build_MC_bulk_read_msg_1(MC_bulk_read_msg *msg, int kind, const char *address, uint16_t points);
int build_MC_bulk_read_bit_msg_1(MC_bulk_read_msg *msg, const char *address, uint16_t points);
int build_MC_bulk_read_word_msg_1(MC_bulk_read_msg *msg, const char *address, uint16_t points);
int build_MC_bulk_read_bit_msg_2(MC_bulk_read_msg *msg, const char *address);
int build_MC_bulk_read_word_msg_2(MC_bulk_read_msg *msg, const char *address);

// The binary request (21 bytes) and the ASCII request (42 characters, NUL
// added only when the buffer has room for it); the length written or -1.
int output_hex_MC_bulk_read_msg(const MC_bulk_read_msg *msg, uint8_t *buffer, size_t size);
int output_ascii_MC_bulk_read_msg(const MC_bulk_read_msg *msg, char *buffer, size_t size);

// Frame traces: "%02x " or "%c" per byte, a line break after every tenth
// byte and after the last.
void print_hex(const uint8_t *bytes, size_t count);
void print_char(const char *chars, size_t count);
void print_hex_MC_bulk_read_msg(const MC_bulk_read_msg *msg);
void print_ascii_MC_bulk_read_msg(const MC_bulk_read_msg *msg);

// Checks a binary response of `length` bytes received for `msg`; on success
// msg->response_data points into `response`, which must outlive its use.
int analyze_MC_response(const uint8_t *response, size_t length, MC_bulk_read_msg *msg);
// The whole size a response claims (header up to the data length, plus the
// data length), or 0 while fewer than the 9 bytes that tell it are in.
size_t MC_response_claimed_size(const uint8_t *response, size_t length);
// '0' or '1' for the first point of a checked bit-unit response.
char get_bit_soft_component_value(const MC_bulk_read_msg *msg);
// The first word of a checked word-unit response.
int16_t get_word_soft_component_value(const MC_bulk_read_msg *msg);
// Each byte as two lower-case hex digits, high nibble first; characters at
// or beyond out_size are dropped. No terminator is written.
void BCD_to_ascii(const uint8_t *bytes, size_t count, char *out, size_t out_size);
