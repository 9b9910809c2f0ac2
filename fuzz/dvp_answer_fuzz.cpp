// Feeds arbitrary answers to the Modbus ASCII decoder of the DVP driver and
// arbitrary addresses to the code and address mapping.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "codec/dvp_codec.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    auto *answer = new char[size == 0 ? 1 : size];
    memcpy(answer, data, size);
    uint32_t value = 0;
    char exception[3];
    analysis_delta(answer, size, size % 2 != 0 ? "01" : "03", &value, exception); // coil or register
    delete[] answer;
    std::string addr(reinterpret_cast<const char *>(data), size);
    addr = addr.substr(0, addr.find('\0'));
    char code[3];
    get_code(code, addr.data(), size > 0 ? data[0] % 8 : 1);
    char letter;
    char hex[5];
    if (mapping(addr.c_str(), &letter, hex) == 0 ? strlen(hex) != 4 : hex[0] != '\0')
        __builtin_trap();
    return 0;
}
