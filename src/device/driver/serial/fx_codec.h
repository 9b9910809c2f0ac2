// FX programming-port frames: the 11-byte device read request and the
// decoding of its answer. Pure functions over bytes.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t FX_REQUEST_SIZE = 11;

// Builds the read request for a node address ("D100", "X17", "m8000").
// 0 done, -1 unknown device letter, -2 number out of range.
int fx_build_request(const char *node_addr, uint8_t frame[FX_REQUEST_SIZE], uint8_t *bit);

// Decodes an answer (STX, ASCII hex data, ...) into the value text. `float_ok`
// is the FX3U's Float support. 0 done (an unsupported type writes "unkown
// type" and still succeeds), -1 when the answer is too short for the type.
int fx_decode_answer(const uint8_t *answer, size_t len, uint32_t data_type, bool float_ok,
                     uint8_t bit, char *value, size_t value_size);

uint8_t atoh(char c);
