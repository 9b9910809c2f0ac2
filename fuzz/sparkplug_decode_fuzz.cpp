// Feeds arbitrary bytes to the Sparkplug payload decoder, as an NCMD or DCMD
// from anyone on the broker would. What decodes must encode again and decode
// to the same payload; describing it must not fail either.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "sparkplug.h"

namespace {

bool same(const bridge::sp::Value &a, const bridge::sp::Value &b)
{
    const auto *fa = std::get_if<float>(&a);
    const auto *fb = std::get_if<float>(&b);
    if (fa != nullptr && fb != nullptr)
        return std::memcmp(fa, fb, sizeof *fa) == 0;
    const auto *da = std::get_if<double>(&a);
    const auto *db = std::get_if<double>(&b);
    if (da != nullptr && db != nullptr)
        return std::memcmp(da, db, sizeof *da) == 0;
    return a == b;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using namespace bridge::sp;
    const std::string bytes(reinterpret_cast<const char *>(data), size);
    (void)describe("spBv1.0/g/NCMD/e", bytes);
    Payload p;
    if (!decode(bytes, p))
        return 0;
    Payload q;
    if (!decode(encode(p), q) || q.timestamp != p.timestamp || q.seq != p.seq ||
        q.metrics.size() != p.metrics.size())
        __builtin_trap();
    for (size_t i = 0; i < p.metrics.size(); ++i) {
        const Metric &a = p.metrics[i];
        const Metric &b = q.metrics[i];
        if (a.name != b.name || a.datatype != b.datatype || a.timestamp != b.timestamp ||
            a.historical != b.historical || a.address != b.address || !same(a.value, b.value))
            __builtin_trap();
    }
    return 0;
}
