// Feeds arbitrary address texts and value bytes to the S7 address parser
// and value decoding.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "codec/s7_address.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    const std::string text(reinterpret_cast<const char *>(data + 2), size - 2);
    const s7_address a = s7_parse_address(text.c_str(), (data[0] & 1) ? s7_dialect::smart_200
                                                                     : s7_dialect::s7_1200);
    const uint32_t type = data[1] % 17;
    const size_t need = s7_read_size(a.area, type);
    const size_t len = size - 2 < 4 ? size - 2 : 4;
    char value[32];
    memset(value, 'x', sizeof value);
    if (s7_decode(a.area, type, a.bit, data + 2, len, value, sizeof value) &&
        (need > len || memchr(value, '\0', sizeof value) == nullptr))
        __builtin_trap();
    return 0;
}
