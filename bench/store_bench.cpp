// The bridge's store during an outage: what storing a value costs, what a
// stored value takes on disk, how fast a replay reads the store out, and
// how long opening a full store takes.
//   bench_store_bench [dir]     (default: a fresh directory under $TMPDIR)
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "store.h"
#include "support/test_util.h"

using bridge::Store;
using clock_type = std::chrono::steady_clock;

namespace {

constexpr uint64_t kMiB = 1024 * 1024;

double since(clock_type::time_point t0)
{
    return std::chrono::duration<double>(clock_type::now() - t0).count();
}

void varint(std::string &out, uint64_t v)
{
    while (v >= 0x80) {
        out.push_back(static_cast<char>((v & 0x7f) | 0x80));
        v >>= 7;
    }
    out.push_back(static_cast<char>(v));
}

// A DDATA payload shaped as the bridge writes one: the publish timestamp,
// then per metric its name ("node_0042"), capture timestamp and a float.
std::string ddata(uint32_t first, uint32_t count, uint64_t ts, float base)
{
    std::string out;
    out.push_back(0x08);
    varint(out, ts);
    for (uint32_t i = 0; i < count; ++i) {
        std::string m;
        char name[16];
        const int n = snprintf(name, sizeof name, "node_%04u", first + i);
        m.push_back(0x0a);
        varint(m, static_cast<uint64_t>(n));
        m.append(name, static_cast<size_t>(n));
        m.push_back(0x18);
        varint(m, ts);
        const float v = base + static_cast<float>(i);
        m.push_back(0x65); // field 12, fixed32
        m.append(reinterpret_cast<const char *>(&v), sizeof v);
        out.push_back(0x12);
        varint(out, m.size());
        out += m;
    }
    return out;
}

struct Cycle {
    std::vector<std::string> topics;
    std::vector<std::string> bodies;
    std::vector<Store::Item> items;
    uint64_t values = 0;
};

// One reading cycle of 10 devices x 1,000 values as the bridge would store
// it: 10 messages of 1,000 values, or one message per value.
Cycle make_cycle(uint64_t ts, bool per_value)
{
    Cycle c;
    for (uint32_t d = 0; d < 10; ++d) {
        const std::string topic = "plc-" + std::to_string(d + 1);
        if (per_value) {
            for (uint32_t i = 0; i < 1000; ++i) {
                c.topics.push_back(topic);
                c.bodies.push_back(ddata(i, 1, ts, static_cast<float>(ts % 1000)));
            }
        } else {
            c.topics.push_back(topic);
            c.bodies.push_back(ddata(0, 1000, ts, static_cast<float>(ts % 1000)));
        }
    }
    const uint32_t per = per_value ? 1 : 1000;
    for (size_t i = 0; i < c.bodies.size(); ++i)
        c.items.push_back({c.topics[i], ts, per, c.bodies[i]});
    c.values = c.items.size() * per;
    return c;
}

struct Fill {
    double us_per_value = 0;
    double bytes_per_value = 0;
    uint64_t values = 0;
};

// Appends `cycles` cycles (timestamps a second apart) and reports the cost.
Fill fill(Store &s, int cycles, bool per_value)
{
    Fill f;
    const uint64_t disk0 = s.disk_bytes();
    double secs = 0;
    for (int k = 0; k < cycles; ++k) {
        Cycle c = make_cycle(1'700'000'000'000 + static_cast<uint64_t>(k) * 1000, per_value);
        const auto t0 = clock_type::now();
        if (!s.append(c.items)) {
            fprintf(stderr, "append failed: %s\n", s.last_error().c_str());
            break;
        }
        secs += since(t0);
        f.values += c.values;
    }
    f.us_per_value = secs * 1e6 / static_cast<double>(f.values);
    f.bytes_per_value =
        static_cast<double>(s.disk_bytes() - disk0) / static_cast<double>(f.values);
    return f;
}

std::unique_ptr<Store> open_or_die(const std::string &path, uint64_t cap)
{
    std::string notice;
    auto s = Store::open(path, cap, &notice);
    if (!s) {
        fprintf(stderr, "%s\n", notice.c_str());
        exit(1);
    }
    return s;
}

} // namespace

int main(int argc, char **argv)
{
    dstest::TempDir tmp;
    const std::string dir = argc > 1 ? argv[1] : tmp.path();

    printf("storing during an outage, 10 devices x 1,000 values per cycle:\n");
    const std::string bulk_path = dir + "/bulk.db";
    {
        auto s = open_or_die(bulk_path, 64 * kMiB);
        const Fill f = fill(*s, 100, false);
        printf("  10 messages of 1,000 values: %.2f us per value, %.1f bytes per value on disk "
               "(%llu values)\n",
               f.us_per_value, f.bytes_per_value, static_cast<unsigned long long>(f.values));
    }
    {
        auto s = open_or_die(dir + "/single.db", 64 * kMiB);
        const Fill f = fill(*s, 30, true);
        printf("  10,000 messages of 1 value:  %.2f us per value, %.1f bytes per value on disk "
               "(%llu values)\n",
               f.us_per_value, f.bytes_per_value, static_cast<unsigned long long>(f.values));
    }
    {
        // A full store: every append first drops the oldest.
        auto s = open_or_die(dir + "/full.db", 8 * kMiB);
        fill(*s, 40, false);
        const Fill f = fill(*s, 40, false);
        printf("  a full 8 MiB store (oldest dropped each cycle): %.2f us per value, "
               "%.1f MiB on disk, %llu values dropped\n",
               f.us_per_value, static_cast<double>(s->disk_bytes()) / kMiB,
               static_cast<unsigned long long>(s->dropped_values()));
    }

    {
        // The default cap filled: how many values an outage can keep, and
        // what opening a full store costs (every page is checked).
        const std::string path = dir + "/default.db";
        uint64_t held = 0;
        {
            auto s = open_or_die(path, 64 * kMiB);
            fill(*s, 300, false);
            for (const auto &m : s->peek(SIZE_MAX))
                held += m.values;
        }
        const auto t0 = clock_type::now();
        auto s = open_or_die(path, 64 * kMiB);
        printf("  the default 64 MiB store, full: holds %llu values (%.1f bytes each), "
               "%.1f MiB on disk, opens in %.0f ms\n",
               static_cast<unsigned long long>(held),
               64.0 * kMiB / static_cast<double>(held),
               static_cast<double>(s->disk_bytes()) / kMiB, since(t0) * 1e3);
    }

    printf("reading out (peek + remove_through), 1,000,000 stored values:\n");
    for (size_t batch : {10, 100}) {
        const std::string path = dir + "/readout-" + std::to_string(batch) + ".db";
        auto s = open_or_die(path, 64 * kMiB);
        fill(*s, 100, false);
        uint64_t values = 0;
        const auto t0 = clock_type::now();
        for (;;) {
            auto msgs = s->peek(batch);
            if (msgs.empty())
                break;
            for (const auto &m : msgs)
                values += m.values;
            s->remove_through(msgs.back().id);
        }
        const double secs = since(t0);
        printf("  messages of 1,000 values, %3zu a batch: %.0f values/s (%.2f s)\n", batch,
               static_cast<double>(values) / secs, secs);
    }
    {
        auto s = open_or_die(dir + "/readout-single.db", 64 * kMiB);
        fill(*s, 20, true);
        uint64_t values = 0;
        const auto t0 = clock_type::now();
        for (;;) {
            auto msgs = s->peek(1000);
            if (msgs.empty())
                break;
            values += msgs.size();
            s->remove_through(msgs.back().id);
        }
        const double secs = since(t0);
        printf("  messages of 1 value, 1,000 a batch: %.0f values/s (%llu values, %.2f s)\n",
               static_cast<double>(values) / secs, static_cast<unsigned long long>(values), secs);
    }
    return 0;
}
