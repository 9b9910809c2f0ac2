// Feeds arbitrary responses to the 3E response check and value extraction,
// against word and bit requests of one and of several points, and arbitrary
// addresses to the parser and the request writers.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "codec/mc_3e_codec.h"

namespace {

void check_and_extract(const uint8_t *response, size_t size, MC_bulk_read_msg &m)
{
    MC_response_claimed_size(response, size);
    if (analyze_MC_response(response, size, &m) != 0)
        return;
    // What the check accepted must lie inside what was received.
    if (m.response_data < response || m.response_data + m.response_data_len > response + size)
        __builtin_trap();
    if (m.soft_component_type == E_BIT_SOFT_COMPONENT) {
        get_bit_soft_component_value(&m);
        std::vector<char> text(2 * static_cast<size_t>(m.response_data_len) + 1);
        BCD_to_ascii(m.response_data, m.response_data_len, text.data(), text.size() - 1);
    } else {
        get_word_soft_component_value(&m);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // An exact-size copy, so that a read past the response is caught.
    std::vector<uint8_t> response(data, data + size);
    const uint8_t *r = size == 0 ? nullptr : response.data();
    MC_bulk_read_msg m;
    if (build_MC_bulk_read_word_msg_2(&m, "D100") == 0)
        check_and_extract(r, size, m);
    if (build_MC_bulk_read_bit_msg_2(&m, "M20") == 0)
        check_and_extract(r, size, m);
    if (build_MC_bulk_read_bit_msg_1(&m, "X0", 3) == 0)
        check_and_extract(r, size, m);
    if (build_MC_bulk_read_word_msg(&m, 0xA8, 0, 0xFFFF) == 0)
        check_and_extract(r, size, m);

    const std::string addr(reinterpret_cast<const char *>(data), size);
    for (int kind = 0; kind < 2; ++kind) {
        if (build_MC_bulk_read_msg_1(&m, kind, addr.c_str(), 1) != 0)
            continue;
        char text[MC_REQUEST_ASCII_LEN];
        uint8_t frame[MC_REQUEST_HEX_LEN];
        output_hex_MC_bulk_read_msg(&m, frame, sizeof frame);
        output_ascii_MC_bulk_read_msg(&m, text, sizeof text);
    }
    return 0;
}
