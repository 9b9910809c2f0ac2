// FX programming-port frames: the 11-byte device read request and the
// decoding of its answer. Pure functions over bytes.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t FX_REQUEST_SIZE = 11;
constexpr uint8_t FX_STX = 0x02;
constexpr uint8_t FX_ETX = 0x03;
constexpr uint8_t FX_NAK = 0x15; // the PLC's refusal, a single byte

// Builds the read request for a node address ("D100", "X17", "m8000").
// 0 done, -1 unknown device letter, -2 number out of range.
int fx_build_request(const char *node_addr, uint8_t frame[FX_REQUEST_SIZE], uint8_t *bit);

// Decodes an answer (STX, ASCII hex data, ...) into the value text. `float_ok`
// is the FX3U's Float support. 0 done (an unsupported type writes "unkown
// type" and still succeeds), -1 when the answer is too short for the type.
int fx_decode_answer(const uint8_t *answer, size_t len, uint32_t data_type, bool float_ok,
                     uint8_t bit, char *value, size_t value_size);

// Whether the bytes received so far form a whole answer: STX, data, ETX
// and the two sum characters.
bool fx_answer_complete(const uint8_t *answer, size_t len);

uint8_t atoh(char c);
