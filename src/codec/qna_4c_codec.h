// Mitsubishi QnA-compatible 4C serial frames for a one-point batch read
// (command 0401): the ASCII formats 1 to 4 and the binary format 5.
//
// The builders write into one request buffer owned by this module and
// remember the sub-command and the address of the last request; the
// analysers decode the answer by that remembered sub-command. So a request
// must be analysed before the next one is built, and only one thread may
// use the codec (the reading thread does).
#pragma once

#include <cstddef>
#include <cstdint>

constexpr uint32_t QnA_4C_BUF_SIZE = 1024;
constexpr uint16_t SUB_COMMAND_WORD = 0;
constexpr uint16_t SUB_COMMAND_BIT = 1;

constexpr uint8_t QnA_4C_STX = 0x02;
constexpr uint8_t QnA_4C_ETX = 0x03;
constexpr uint8_t QnA_4C_ENQ = 0x05;
constexpr uint8_t QnA_4C_LF = 0x0A;
constexpr uint8_t QnA_4C_CR = 0x0D;
constexpr uint8_t QnA_4C_DLE = 0x10;
constexpr uint8_t QnA_4C_NAK = 0x15;

// Splits "D100" / "sm400" into the two-character device code ("D*", "SM",
// upper case; one letter is padded with '*') and the decimal device number.
// `code` receives 3 bytes. 0, or -1 when the text is not letters+digits.
int analysis_softComponent(const char *softComponent, char *code, int *address);
// The binary device code of a two-character code, from the device table.
int transform_softComponentCode_from_ascii_to_hex(const char *asciiCode, uint8_t *hexCode);
// 0 when the device's units (bit or word) agree with the sub-command.
int check(uint8_t softComponent_hexCode, uint16_t sub_command);

// Request builders: the frame goes into the shared request buffer; the
// result is its length, or -1.
int build_QnA_4C_request_msg_of_format_1_4(uint32_t format_number, uint16_t sub_command,
                                           const char *softComponent);
int build_QnA_4C_request_msg_of_format_5(uint16_t sub_command, const char *softComponent);
// The shared request buffer (QnA_4C_BUF_SIZE bytes) the builders fill.
const uint8_t *QnA_4C_request_msg();

// Answer analysers. 0 when the frame is well formed: then *prespond_code
// holds the PLC's end code, and when that is 0 the value text ("%u") has
// been written into str_value (at most value_size bytes, NUL included).
// -1 for a malformed, short or unexpected answer; the value is untouched.
int analysis_QnA_4C_respond_msg_of_format_1_4(uint32_t format_number, const uint8_t *respond_data,
                                              uint32_t len, uint16_t *prespond_code,
                                              char *str_value, size_t value_size);
int analysis_QnA_4C_respond_msg_of_format_5(const uint8_t *original_respond_data,
                                            uint32_t original_len, uint16_t *prespond_code,
                                            char *str_value, size_t value_size);

void upper_string(char *text);

// Helpers the PLC side of the protocol shares with the codec.
// Sum check of a byte range, modulo 256.
uint8_t QnA_4C_sum(const uint8_t *data, size_t len);
// Doubles every DLE from index 2 up to, not including, the closing DLE ETX
// and the two sum characters. Returns the new length, or 0 if `out` is too
// small.
size_t QnA_4C_dle_double(const uint8_t *frame, size_t len, uint8_t *out, size_t out_size);
// Units of a binary device code: 1 bit, 0 word, -1 not a known device.
int QnA_4C_units(uint8_t softComponent_hexCode);
