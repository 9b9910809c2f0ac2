// The bridge's own share of the work per published value, without bus or
// broker: 10 devices x 1,000 nodes whose values all change every cycle, the
// edge node's model, the Sparkplug encoding (with seq) and the JSON mode.
//   bench_bridge_core_bench [cycles]
#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "edge_node.h"
#include "json_message.h"
#include "values.h"

using namespace bridge;

namespace {

double cpu_seconds()
{
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

constexpr int kDevices = 10;
constexpr int kNodes = 1000;

// Every node's text changes from one cycle to the next; the types are mixed
// as on a real line: words, double words, bits and floats.
Cycle make_cycle(int k)
{
    Cycle c;
    c.timestamp_ms = 1700000000000ull + static_cast<uint64_t>(k) * 1000;
    char text[32];
    for (int d = 0; d < kDevices; ++d) {
        DeviceReading dev;
        dev.dev_id = static_cast<uint32_t>(d + 1);
        dev.dev_name = "plc-" + std::to_string(d);
        dev.dev_mfg = 1;
        dev.dev_type = 101;
        for (int n = 0; n < kNodes; ++n) {
            NodeReading r;
            r.name = "node-" + std::to_string(n);
            r.addr = "D" + std::to_string(n * 2);
            switch (n % 4) {
            case 0: r.data_type = NodeS16; snprintf(text, sizeof text, "%d", (n + k) % 30000 - 15000); break;
            case 1: r.data_type = NodeU32; snprintf(text, sizeof text, "%d", n * 1000 + k); break;
            case 2: r.data_type = NodeBit; snprintf(text, sizeof text, "%d", (n + k) % 2); break;
            default: r.data_type = NodeFloat; snprintf(text, sizeof text, "%f", n * 0.5 + k); break;
            }
            r.value = text;
            dev.nodes.push_back(std::move(r));
        }
        c.devices.push_back(std::move(dev));
    }
    return c;
}

} // namespace

int main(int argc, char **argv)
{
    const int cycles = argc > 1 ? std::atoi(argv[1]) : 50;
    std::vector<Cycle> input;
    for (int k = 0; k <= cycles; ++k)
        input.push_back(make_cycle(k));
    const double values = static_cast<double>(cycles) * kDevices * kNodes;

    EdgeNodeConfig cfg;
    cfg.edge_node = "bench";
    EdgeNode en(cfg);
    en.on_cycle(input[0]); // births

    double model = 0, encoding = 0, json = 0;
    size_t bytes = 0, published = 0;
    uint64_t seq = 0;
    for (int k = 1; k <= cycles; ++k) {
        double t0 = cpu_seconds();
        const std::vector<Message> out = en.on_cycle(input[static_cast<size_t>(k)]);
        double t1 = cpu_seconds();
        for (const Message &m : out) {
            bytes += sp::with_seq(sp::encode(m.payload), seq++ % 256).size();
            published += m.payload.metrics.size();
        }
        double t2 = cpu_seconds();
        for (const DeviceReading &d : input[static_cast<size_t>(k)].devices)
            bytes += json_message(d, input[static_cast<size_t>(k)].timestamp_ms).size();
        double t3 = cpu_seconds();
        model += t1 - t0;
        encoding += t2 - t1;
        json += t3 - t2;
    }
    if (published != static_cast<size_t>(values)) {
        std::fprintf(stderr, "expected every value to be published, got %zu of %.0f\n", published, values);
        return 1;
    }
    const double us = 1e6 / values;
    const double sparkplug = (model + encoding) * us;
    std::printf("%d cycles of %d devices x %d nodes, every value changed (%zu bytes out)\n", cycles,
                kDevices, kNodes, bytes);
    std::printf("CPU per value: model %.3f us, Sparkplug encoding %.3f us, Sparkplug total %.3f us, JSON %.3f us\n",
                model * us, encoding * us, sparkplug, json * us);
    std::printf("ratios: encoding/model %.2f, JSON/Sparkplug %.2f, Sparkplug total / 2 us budget %.2f\n",
                encoding / model, json / (model + encoding), sparkplug / 2.0);
    return 0;
}
