// Store-and-forward of the bridge, its real session code in process: cycles
// go through the edge node's model into the store while no broker is there
// (what storing costs beyond the model, per value), then the session
// connects to a private mosquitto and replays the store (values per second,
// from the CONNACK to the store empty, with a subscriber counting arrivals).
//   bench_replay_bench [values]   (default 1,000,000)
#include <glib.h>
#include <time.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "bridge/mqtt_peers.h"
#include "edge_node.h"
#include "mqtt.h"
#include "publisher.h"
#include "store.h"
#include "support/test_util.h"
#include "values.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr double kReplayTarget = 20000; // values per second
constexpr double kStoreTargetUs = 10;   // per value

double cpu_seconds()
{
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// `devices` devices of `nodes` nodes each, every value different from the
// previous cycle's: words, double words and floats as a line's PLC has them.
bridge::Cycle make_cycle(int devices, int nodes, uint64_t k)
{
    static constexpr uint32_t kinds[] = {bridge::NodeU16, bridge::NodeS16, bridge::NodeU32, bridge::NodeFloat};
    bridge::Cycle c;
    c.timestamp_ms = 1700000000000 + k * 1000;
    char text[32];
    for (int d = 0; d < devices; ++d) {
        bridge::DeviceReading dev{static_cast<uint32_t>(d + 1), "line-" + std::to_string(d), 1, 101, {}};
        for (int n = 0; n < nodes; ++n) {
            const uint32_t type = kinds[n % 4];
            if (type == bridge::NodeFloat)
                snprintf(text, sizeof text, "%.2f", static_cast<double>(k) * 0.25 + n);
            else
                snprintf(text, sizeof text, "%llu", static_cast<unsigned long long>((k * 7 + static_cast<uint64_t>(n)) % 30000));
            dev.nodes.push_back({"tag" + std::to_string(n), "D" + std::to_string(n * 2), type, text});
        }
        c.devices.push_back(std::move(dev));
    }
    return c;
}

struct Run {
    uint64_t values = 0;
    uint64_t messages = 0;
    double cpu_s = 0;        // in session.cycle()
    uint64_t disk = 0;
};

// Feeds `cycles` cycles to a session whose client never connected.
Run outage(bridge::SparkplugSession &session, bridge::Store *store, int devices, int nodes, uint64_t cycles)
{
    Run r;
    session.cycle(make_cycle(devices, nodes, 0)); // births, not stored values
    for (uint64_t k = 1; k <= cycles; ++k) {
        const bridge::Cycle c = make_cycle(devices, nodes, k);
        const double t0 = cpu_seconds();
        session.cycle(c);
        r.cpu_s += cpu_seconds() - t0;
        r.values += static_cast<uint64_t>(devices) * static_cast<uint64_t>(nodes);
    }
    if (store != nullptr) {
        r.messages = store->count();
        r.disk = store->disk_bytes();
    }
    return r;
}

struct Layout {
    const char *name;
    int devices;
    int nodes;
};

bool measure(const Layout &l, uint64_t values, bridgetest::Broker &broker)
{
    const uint64_t per_cycle = static_cast<uint64_t>(l.devices) * static_cast<uint64_t>(l.nodes);
    const uint64_t cycles = std::max<uint64_t>(1, values / per_cycle);
    dstest::TempDir dir;
    bridge::EdgeNodeConfig cfg{"bench", "gw", bridge::DeviceIdMode::Name};

    // The model alone: the same cycles with nowhere to keep them.
    bridge::MqttClient idle({}, {});
    bridge::EdgeNode bare(cfg);
    bridge::SparkplugSession live_only(bare, idle, dir.file("bare"));
    const Run base = outage(live_only, nullptr, l.devices, l.nodes, cycles);

    std::string notice;
    auto store = bridge::Store::open(dir.file("store.db"), 1024ull << 20, &notice);
    if (!store) {
        fprintf(stderr, "store: %s\n", notice.c_str());
        return false;
    }
    bridge::EdgeNode node(cfg);
    std::unique_ptr<bridge::SparkplugSession> session;
    bridge::MqttSettings settings;
    settings.port = broker.port();
    settings.client_id = "replay-bench";
    bridge::MqttClient::Events ev;
    ev.before_connect = [&] {
        std::string why;
        return session->before_connect(why);
    };
    ev.connected = [&] { session->connected(); };
    ev.disconnected = [&] { session->disconnected(); };
    ev.delivered = [&](int mid) { session->delivered(mid); };
    bridge::MqttClient client(settings, ev);
    session = std::make_unique<bridge::SparkplugSession>(node, client, dir.file("state"), store.get());
    const Run stored = outage(*session, store.get(), l.devices, l.nodes, cycles);
    const uint64_t messages = stored.messages;

    printf("%s: %llu values in %llu stored messages\n", l.name, static_cast<unsigned long long>(stored.values),
           static_cast<unsigned long long>(messages));
    const double model_us = base.cpu_s * 1e6 / static_cast<double>(base.values);
    const double with_us = stored.cpu_s * 1e6 / static_cast<double>(stored.values);
    printf("  outage: %.2f us per value through the model and into the store, %.2f us of it storing "
           "(target <= %.0f us); %.1f bytes per value on disk\n",
           with_us, with_us - model_us, kStoreTargetUs,
           static_cast<double>(stored.disk) / static_cast<double>(stored.values));

    bridgetest::Traffic sub;
    sub.watch(broker.port(), "spBv1.0/bench/DDATA/#");
    std::unique_ptr<GMainLoop, void (*)(GMainLoop *)> loop(g_main_loop_new(nullptr, FALSE), g_main_loop_unref);
    std::string error;
    const auto t0 = Clock::now();
    const double cpu0 = cpu_seconds();
    if (!client.start(error)) {
        fprintf(stderr, "client: %s\n", error.c_str());
        return false;
    }
    struct Watch {
        bridge::Store *store;
        GMainLoop *loop;
        Clock::time_point deadline;
    } watch{store.get(), loop.get(), Clock::now() + 600s};
    g_timeout_add(5, [](gpointer p) -> gboolean {
        auto *w = static_cast<Watch *>(p);
        if (!w->store->empty() && Clock::now() < w->deadline)
            return G_SOURCE_CONTINUE;
        g_main_loop_quit(w->loop);
        return G_SOURCE_REMOVE;
    }, &watch);
    g_main_loop_run(loop.get());
    const double wall = std::chrono::duration<double>(Clock::now() - t0).count();
    const double cpu = cpu_seconds() - cpu0;
    const bool all = sub.wait([&](const auto &m) { return m.size() >= messages; }, 60s);
    const double rate = static_cast<double>(stored.values) / wall;
    printf("  replay: %.0f values per second (target >= %.0f), %.2f s, %.2f us of CPU per value "
           "in this process (its subscriber thread included, mosquitto not); %zu of %llu messages reached the subscriber\n",
           rate, kReplayTarget, wall, cpu * 1e6 / static_cast<double>(stored.values), sub.count(),
           static_cast<unsigned long long>(messages));
    bool done = false;
    client.disconnect([&] { done = true; });
    while (!done)
        g_main_context_iteration(nullptr, TRUE);
    return all && store->empty();
}

} // namespace

int main(int argc, char **argv)
{
    const uint64_t values = argc > 1 ? strtoull(argv[1], nullptr, 10) : 1000000;
    g_log_set_handler("device-service-bridge", G_LOG_LEVEL_MESSAGE, [](const gchar *, GLogLevelFlags, const gchar *, gpointer) {}, nullptr);
    bridgetest::Broker broker;
    if (!broker.start()) {
        fprintf(stderr, "mosquitto did not start\n");
        return 1;
    }
    bool ok = measure({"10 devices x 1,000 values a message", 10, 1000}, values, broker);
    ok = measure({"1,000 devices x 1 value a message", 1000, 1}, values / 5, broker) && ok;
    return ok ? 0 : 1;
}
