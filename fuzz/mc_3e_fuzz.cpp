// Feeds arbitrary responses to the 3E response check and value extraction,
// against a word and a bit request, and arbitrary addresses to the parser.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "device/driver/ethernet/mc_3e_codec.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    auto *response = new uint8_t[size == 0 ? 1 : size];
    memcpy(response, data, size);
    MC_bulk_read_msg m;
    if (build_MC_bulk_read_word_msg_2(&m, "D100") == 0 && analyze_MC_response(response, size, &m) == 0)
        get_word_soft_component_value(&m);
    if (build_MC_bulk_read_bit_msg_2(&m, "M20") == 0 && analyze_MC_response(response, size, &m) == 0)
        get_bit_soft_component_value(&m);
    delete[] response;
    const std::string addr(reinterpret_cast<const char *>(data), size);
    if (build_MC_bulk_read_word_msg_2(&m, addr.c_str()) == 0) {
        char text[64];
        uint8_t frame[MC_REQUEST_HEX_LEN];
        output_hex_MC_bulk_read_msg(&m, frame, sizeof frame);
        output_ascii_MC_bulk_read_msg(&m, text, sizeof text);
    }
    return 0;
}
