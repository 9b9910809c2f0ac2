// Bulk configuration and restore against the running daemon, and how long a
// configuration call takes while the reading thread waits on a PLC.
//   bench_config_bench
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>

#include "support/bus.h"
#include "support/config_calls.h"
#include "support/standin_system_service.h"
#include "support/test_driver.h"

using namespace dstest;
using clock_type = std::chrono::steady_clock;

namespace {

double seconds_of(const std::function<void()> &fn)
{
    const auto t0 = clock_type::now();
    fn();
    return std::chrono::duration<double>(clock_type::now() - t0).count();
}

std::vector<NodeSpec> nodes_for(uint32_t dev_id, uint32_t count, const std::string &addr = "D0")
{
    std::vector<NodeSpec> v;
    v.reserve(count);
    for (uint32_t i = 1; i <= count; ++i)
        v.push_back({dev_id, i, addr});
    return v;
}

struct Session {
    TempDir dir;
    PrivateBus bus;
    std::unique_ptr<DaemonProcess> daemon;
    DaemonOptions opts;
    explicit Session(bool test_driver = false)
    {
        opts.workdir = dir.path();
        opts.bus_address = bus.address();
        opts.test_driver = test_driver;
        start();
    }
    void start()
    {
        daemon = std::make_unique<DaemonProcess>(opts);
        bus.wait_for_name("com.fernwick.DeviceService", 120s);
        // The object is exported right after the name: a call proves it.
        call_device(bus.connection(), "nodeTableDelMulti", node_id_array({}));
    }
    int call(const char *method, GVariant *params)
    {
        auto r = call_device(bus.connection(), method, params, 600000);
        return r.ok ? r.response : -999;
    }
};

double bulk(const char *method, uint32_t count)
{
    Session s;
    s.call("SerialDeviceAdd", serial_args(1, 1, 102, "fx"));
    int r = 0;
    const double t = seconds_of([&] { r = s.call(method, node_array(nodes_for(1, count))); });
    if (r != 0)
        fprintf(stderr, "%s of %u answered %d\n", method, count, r);
    return t;
}

double restore(uint32_t count)
{
    Session s;
    s.call("SerialDeviceAdd", serial_args(1, 1, 102, "fx"));
    s.call("nodeTableSyncMulti", node_array(nodes_for(1, count)));
    // Best of three restarts: process start-up and bus round trips are noise here.
    double best = 1e9;
    for (int i = 0; i < 3; ++i) {
        s.daemon->kill_now();
        s.bus.wait_for_name_gone("com.fernwick.DeviceService");
        s.opts.log_name = "restart" + std::to_string(i);
        best = std::min(best, seconds_of([&] { s.start(); }));
    }
    return best;
}

double add_latency(bool hanging)
{
    Session s(true);
    sim::StandInSystemService system(s.bus.address());
    s.call("EthernetDeviceAdd", ethernet_args(1, TEST_DRIVER_MFG, TEST_DRIVER_TYPE, "plc"));
    // A node whose every read takes 3 s, as a PLC that never answers within
    // the driver's full time-out.
    s.call("nodeTableAddMulti", node_array({{1, 1, hanging ? "sleep:3000:x" : "val:1"}}));
    system.start();
    s.daemon->wait_output("read nodes table", 10s);
    double worst = 0;
    for (uint32_t round = 0; round < 5; ++round) {
        std::vector<NodeSpec> more;
        for (uint32_t i = 0; i < 100; ++i)
            more.push_back({1, 1000 + round * 100 + i, "val:2"});
        worst = std::max(worst, seconds_of([&] { s.call("nodeTableAddMulti", node_array(more)); }));
    }
    system.stop();
    return worst;
}

} // namespace

int main()
{
    const double add10 = bulk("nodeTableAddMulti", 10000);
    const double add50 = bulk("nodeTableAddMulti", 50000);
    printf("nodeTableAddMulti   10,000: %.3f s   50,000: %.3f s   ratio %.2f (linear: 5)\n", add10,
           add50, add50 / add10);
    const double sync10 = bulk("nodeTableSyncMulti", 10000);
    const double sync50 = bulk("nodeTableSyncMulti", 50000);
    printf("nodeTableSyncMulti  10,000: %.3f s   50,000: %.3f s   ratio %.2f (linear: 5)\n",
           sync10, sync50, sync50 / sync10);
    const double r20 = restore(20000);
    const double r100 = restore(100000);
    printf("restore at start-up 20,000: %.3f s  100,000: %.3f s   ratio %.2f (linear: 5)\n", r20,
           r100, r100 / r20);
    const double idle = add_latency(false);
    const double hang = add_latency(true);
    printf("nodeTableAddMulti of 100 while reading: PLC answering %.1f ms, PLC hanging %.1f ms, "
           "ratio %.2f\n",
           idle * 1000, hang * 1000, hang / idle);
    return 0;
}
