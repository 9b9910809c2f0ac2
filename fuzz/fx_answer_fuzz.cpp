// Feeds arbitrary answers to the FX answer decoding (first byte picks the
// data type and bit) and the completeness check, and arbitrary addresses to
// the request builder.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "codec/fx_codec.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    const uint32_t type = data[0] % 17;
    const uint8_t bit = (data[0] >> 5) & 7;
    const size_t len = size - 1;
    auto *answer = new uint8_t[len == 0 ? 1 : len];
    memcpy(answer, data + 1, len);
    char value[32];
    memset(value, 'x', sizeof value);
    fx_answer_complete(answer, len);
    if (fx_decode_answer(answer, len, type, (data[0] & 0x80) != 0, bit, value, sizeof value) == 0 &&
        memchr(value, '\0', sizeof value) == nullptr)
        __builtin_trap();
    delete[] answer;
    const std::string addr(reinterpret_cast<const char *>(data + 1), len);
    uint8_t frame[FX_REQUEST_SIZE];
    uint8_t b = 0;
    if (fx_build_request(addr.c_str(), frame, &b) == 0 && (frame[0] != 0x02 || frame[8] != 0x03))
        __builtin_trap();
    return 0;
}
