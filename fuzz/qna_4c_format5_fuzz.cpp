// Feeds arbitrary bytes to the QnA 4C format 5 answer analyser, after a
// word or a bit request (first input byte) has set what it expects.
#include <glib.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

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
    if ((data[0] & 1) != 0)
        build_QnA_4C_request_msg_of_format_5(SUB_COMMAND_BIT, "M20");
    else
        build_QnA_4C_request_msg_of_format_5(SUB_COMMAND_WORD, "D100");
    // An exactly sized value buffer lets the sanitizer see any overrun.
    const size_t value_size = 1 + (data[0] >> 1) % 32;
    char *value = new char[value_size];
    memset(value, 'x', value_size);
    uint16_t code = 0;
    const int rc = analysis_QnA_4C_respond_msg_of_format_5(data + 1, static_cast<uint32_t>(size - 1), &code,
                                                           value, value_size);
    // A good answer always leaves a terminated value text.
    if (rc == 0 && code == 0 && memchr(value, '\0', value_size) == nullptr)
        __builtin_trap();
    delete[] value;
    return 0;
}
