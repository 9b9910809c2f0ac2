// Feeds arbitrary answers to the PPI value decoding (first two bytes pick
// the data type and item code), and arbitrary address texts to the request
// builder.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "codec/ppi_codec.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    const uint32_t type = data[0] % 17;
    if ((data[1] & 0x80) != 0) {
        const std::string addr(reinterpret_cast<const char *>(data + 2), size - 2);
        uint8_t frame[PPI_REQUEST_LEN];
        int item = 0;
        if (getReadCommandFrame(addr.c_str(), type, data[1], frame, &item) == 0 &&
            (item == PPI_ITEM_NONE || frame[32] != PPI_ED))
            __builtin_trap();
        return 0;
    }
    const int item = data[1] % 28;
    // Exactly the bytes received, in a buffer of their own size.
    const size_t len = size - 2;
    auto *answer = new uint8_t[len == 0 ? 1 : len];
    memcpy(answer, data + 2, len);
    char value[32];
    if (PPI_decode_value(answer, len, item, type, value, sizeof value) == 0 &&
        memchr(value, '\0', sizeof value) == nullptr)
        __builtin_trap();
    delete[] answer;
    return 0;
}
