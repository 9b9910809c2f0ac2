// Feeds arbitrary bytes to the QnA 4C ASCII (formats 1-4) answer analyser;
// the first input byte picks the format and the request's units. The rest
// of the first byte's room is used to fuzz the request builder's address.
#include <glib.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "codec/qna_4c_codec.h"

namespace {
void quiet_log(const gchar *, GLogLevelFlags, const gchar *, gpointer) {}
void quiet_print(const gchar *) {}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool quiet = [] {
        g_log_set_default_handler(quiet_log, nullptr);
        g_set_print_handler(quiet_print);
        return true;
    }();
    (void)quiet;
    if (size < 1)
        return 0;
    const uint32_t format = data[0] % 6; // 5 is refused
    const uint16_t sub = (data[0] & 0x80) != 0 ? SUB_COMMAND_BIT : SUB_COMMAND_WORD;
    if ((data[0] & 0x40) != 0) {
        // The rest is an address text for both builders.
        const std::string addr(reinterpret_cast<const char *>(data + 1), size - 1);
        build_QnA_4C_request_msg_of_format_1_4(format, sub, addr.c_str());
        build_QnA_4C_request_msg_of_format_5(sub, addr.c_str());
        return 0;
    }
    build_QnA_4C_request_msg_of_format_1_4(format == 5 ? 1 : format, sub, sub == SUB_COMMAND_BIT ? "M20" : "D100");
    char value[32];
    uint16_t code = 0;
    analysis_QnA_4C_respond_msg_of_format_1_4(format, data + 1, static_cast<uint32_t>(size - 1), &code, value,
                                              sizeof value);
    return 0;
}
