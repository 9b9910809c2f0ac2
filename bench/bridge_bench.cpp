// device-service-bridge end to end: a stand-in daemon on a private bus sends
// `nodes` once a second for 10 devices x 1,000 nodes whose values all change
// every cycle; the real bridge takes them to a private mosquitto, and a
// subscriber here stamps each message as it arrives.
//   bench_bridge_bench [measured cycles] [warm-up cycles]
// Prints the bridge's CPU per published value, its memory, and the latency
// from our emitting the signal to a DDATA reaching the subscriber. Then the
// same cycles go to a bare receiver, the bus library and the generated proxy
// with a handler that only reads the cycle's number: what receiving the
// signal costs before the bridge does anything with it.
#include <gio/gio.h>
#include <glib-unix.h>
#include <mosquitto.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bridge/mqtt_peers.h"
#include "idl/common/device_idl.h"
#include "sparkplug.h"
#include "support/bus.h"
#include "values.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int kDevices = 10;
constexpr int kNodes = 1000;
constexpr char kGroup[] = "bench";
constexpr char kEdge[] = "gw";
// Node 0 of every device counts the cycles: it ties each DDATA to the
// moment we emitted the cycle it carries.
constexpr char kCycleNode[] = "cycle";

constexpr double kCpuTargetUs = 2.0;
constexpr double kRssTargetMiB = 12.0;
constexpr double kP99TargetMs = 20.0;

struct ObjectUnref {
    void operator()(gpointer o) const
    {
        if (o != nullptr)
            g_object_unref(o);
    }
};
struct VariantUnref {
    void operator()(GVariant *v) const
    {
        if (v != nullptr)
            g_variant_unref(v);
    }
};
struct ErrorFree {
    void operator()(GError *e) const
    {
        if (e != nullptr)
            g_error_free(e);
    }
};
using ConnectionPtr = std::unique_ptr<GDBusConnection, ObjectUnref>;
using VariantPtr = std::unique_ptr<GVariant, VariantUnref>;
using ErrorPtr = std::unique_ptr<GError, ErrorFree>;

// The node types of a line, mostly words and double words, some floats and
// bits; every text differs from the previous cycle's.
struct NodeKind {
    uint32_t type;
    const char *area;
};
constexpr NodeKind kKinds[10] = {
    {bridge::NodeU16, "D"},   {bridge::NodeU16, "D"},   {bridge::NodeU16, "D"},
    {bridge::NodeS16, "D"},   {bridge::NodeS16, "D"},   {bridge::NodeU32, "D"},
    {bridge::NodeU32, "D"},   {bridge::NodeFloat, "D"}, {bridge::NodeFloat, "D"},
    {bridge::NodeBit, "M"},
};

std::string value_text(uint32_t type, int n, int k)
{
    char text[32];
    switch (type) {
    case bridge::NodeU16: snprintf(text, sizeof text, "%d", (n * 7 + k) % 65536); break;
    case bridge::NodeS16: snprintf(text, sizeof text, "%d", (n * 13 + k) % 60000 - 30000); break;
    case bridge::NodeU32: snprintf(text, sizeof text, "%d", n * 100003 + k); break;
    case bridge::NodeFloat: snprintf(text, sizeof text, "%.3f", n * 0.25 + k * 0.5); break;
    default: snprintf(text, sizeof text, "%d", (n + k) % 2); break;
    }
    return text;
}

// The argument of one `nodes` signal: (a(usuuv)), each v holding a(ssus).
GVariant *make_cycle(int k)
{
    GVariantBuilder devices;
    g_variant_builder_init(&devices, G_VARIANT_TYPE("a(usuuv)"));
    char name[32], addr[32];
    for (int d = 0; d < kDevices; ++d) {
        GVariantBuilder nodes;
        g_variant_builder_init(&nodes, G_VARIANT_TYPE("a(ssus)"));
        g_variant_builder_add(&nodes, "(ssus)", kCycleNode, "D0", bridge::NodeU32,
                              std::to_string(k).c_str());
        for (int n = 1; n < kNodes; ++n) {
            const NodeKind &kind = kKinds[n % 10];
            snprintf(name, sizeof name, "tag%04d", n);
            snprintf(addr, sizeof addr, "%s%d", kind.area, n * 2);
            g_variant_builder_add(&nodes, "(ssus)", name, addr, kind.type,
                                  value_text(kind.type, n, k).c_str());
        }
        snprintf(name, sizeof name, "line-%d", d);
        g_variant_builder_add(&devices, "(usuuv)", static_cast<guint32>(d + 1), name, 1u, 101u,
                              g_variant_builder_end(&nodes));
    }
    GVariant *cycle = g_variant_ref_sink(g_variant_new("(a(usuuv))", &devices));
    // The daemon builds each device's node array as serialised bytes; so
    // does the stand-in, before the cycle's slot.
    g_variant_get_data(cycle);
    return cycle;
}

// A libmosquitto client on its own thread that stamps every message on
// arrival and keeps it (up to a bound) for reading after the run.
class StampingSubscriber {
public:
    struct Arrival {
        Clock::time_point at;
        std::string topic;
        std::string payload;
    };

    StampingSubscriber(uint16_t port, std::string filter) : filter_(std::move(filter))
    {
        arrivals_.reserve(kMaxArrivals);
        mosq_ = mosquitto_new(nullptr, true, this);
        if (mosq_ == nullptr)
            return;
        mosquitto_connect_callback_set(mosq_, &StampingSubscriber::on_connect);
        mosquitto_subscribe_callback_set(mosq_, &StampingSubscriber::on_subscribe);
        mosquitto_message_callback_set(mosq_, &StampingSubscriber::on_message);
        mosquitto_connect(mosq_, "127.0.0.1", port, 30);
        mosquitto_loop_start(mosq_);
    }
    ~StampingSubscriber()
    {
        if (mosq_ == nullptr)
            return;
        mosquitto_disconnect(mosq_);
        mosquitto_loop_stop(mosq_, true);
        mosquitto_destroy(mosq_);
    }
    StampingSubscriber(const StampingSubscriber &) = delete;
    StampingSubscriber &operator=(const StampingSubscriber &) = delete;

    // Waits until `pred(device messages so far, subscribed)` holds.
    template <typename Pred>
    bool wait(Clock::time_point deadline, Pred pred)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return cv_.wait_until(lock, deadline, [&] { return pred(device_messages_, subscribed_); });
    }
    size_t device_messages()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return device_messages_;
    }
    std::vector<Arrival> take()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::move(arrivals_);
    }
    size_t dropped()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return dropped_;
    }

private:
    static constexpr size_t kMaxArrivals = 4096;

    static void on_connect(mosquitto *m, void *data, int rc)
    {
        if (rc == 0)
            mosquitto_subscribe(m, nullptr, static_cast<StampingSubscriber *>(data)->filter_.c_str(), 0);
    }
    static void on_subscribe(mosquitto *, void *data, int, int, const int *)
    {
        auto *self = static_cast<StampingSubscriber *>(data);
        {
            std::lock_guard<std::mutex> lock(self->mutex_);
            self->subscribed_ = true;
        }
        self->cv_.notify_all();
    }
    static void on_message(mosquitto *, void *data, const mosquitto_message *msg)
    {
        const Clock::time_point at = Clock::now();
        auto *self = static_cast<StampingSubscriber *>(data);
        {
            std::lock_guard<std::mutex> lock(self->mutex_);
            const std::string topic = msg->topic != nullptr ? msg->topic : "";
            if (topic.find("/DDATA/") != std::string::npos || topic.find("/DBIRTH/") != std::string::npos)
                ++self->device_messages_;
            if (self->arrivals_.size() < kMaxArrivals)
                self->arrivals_.push_back({at, topic,
                                           std::string(static_cast<const char *>(msg->payload),
                                                       static_cast<size_t>(msg->payloadlen))});
            else
                ++self->dropped_;
        }
        self->cv_.notify_all();
    }

    std::string filter_;
    mosquitto *mosq_ = nullptr;
    std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<Arrival> arrivals_;
    size_t device_messages_ = 0;
    size_t dropped_ = 0;
    bool subscribed_ = false;
};

// Owns the daemon's name on the bus and emits `nodes` as it does.
class StandInDaemon {
public:
    explicit StandInDaemon(dstest::PrivateBus &bus) : conn_(bus.new_connection())
    {
        GError *raw = nullptr;
        VariantPtr reply(g_dbus_connection_call_sync(
            conn_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "RequestName", g_variant_new("(su)", "com.fernwick.DeviceService", 4u /* do not queue */),
            G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &raw));
        ErrorPtr error(raw);
        guint32 result = 0;
        if (reply)
            g_variant_get(reply.get(), "(u)", &result);
        owner_ = result == 1;
    }
    ~StandInDaemon() { g_dbus_connection_close_sync(conn_.get(), nullptr, nullptr); }
    StandInDaemon(const StandInDaemon &) = delete;
    StandInDaemon &operator=(const StandInDaemon &) = delete;

    bool owner() const { return owner_; }
    bool emit(GVariant *args)
    {
        return g_dbus_connection_emit_signal(conn_.get(), nullptr, "/com/fernwick/DeviceService",
                                             "com.fernwick.DeviceService", "nodes", args, nullptr) != FALSE;
    }

private:
    ConnectionPtr conn_;
    bool owner_ = false;
};

struct CpuSample {
    double seconds = 0;                       // utime + stime of the whole process
    double minor_faults = 0;                  // pages the kernel had to supply
    std::map<std::string, double> by_thread;  // by thread name
};

// Fields after the command name in /proc/<pid>/stat, from state (3) on.
std::vector<std::string> stat_fields(const std::string &path, std::string *comm)
{
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    const size_t open = line.find('('), close = line.rfind(')');
    if (open == std::string::npos || close == std::string::npos)
        return {};
    if (comm != nullptr)
        *comm = line.substr(open + 1, close - open - 1);
    std::istringstream rest(line.substr(close + 1));
    std::vector<std::string> out;
    for (std::string f; rest >> f;)
        out.push_back(f);
    return out;
}

double cpu_of(const std::vector<std::string> &f)
{
    // utime and stime are fields 14 and 15: 11 and 12 after the state.
    if (f.size() < 13)
        return 0;
    static const double tick = static_cast<double>(sysconf(_SC_CLK_TCK));
    return (std::strtod(f[11].c_str(), nullptr) + std::strtod(f[12].c_str(), nullptr)) / tick;
}

CpuSample cpu_sample(pid_t pid)
{
    CpuSample s;
    const std::string base = "/proc/" + std::to_string(pid);
    const std::vector<std::string> process = stat_fields(base + "/stat", nullptr);
    s.seconds = cpu_of(process);
    // minflt is field 10: 7 after the state.
    if (process.size() > 7)
        s.minor_faults = std::strtod(process[7].c_str(), nullptr);
    std::unique_ptr<DIR, int (*)(DIR *)> dir(opendir((base + "/task").c_str()), &closedir);
    if (!dir)
        return s;
    while (const dirent *e = readdir(dir.get())) {
        if (e->d_name[0] == '.')
            continue;
        std::string comm;
        const double t = cpu_of(stat_fields(base + "/task/" + e->d_name + "/stat", &comm));
        s.by_thread[comm] += t;
    }
    return s;
}

// "VmRSS:" and the like from /proc/<pid>/<file>, in MiB.
double kib_line_mib(pid_t pid, const char *file, const std::string &key)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/" + file);
    for (std::string line; std::getline(in, line);)
        if (line.rfind(key, 0) == 0)
            return std::strtod(line.c_str() + key.size(), nullptr) / 1024.0;
    return 0;
}

struct Percentiles {
    double p50 = 0, p99 = 0, max = 0;
    size_t n = 0;
};

// Nearest rank.
Percentiles percentiles(std::vector<double> v)
{
    Percentiles p;
    p.n = v.size();
    if (v.empty())
        return p;
    std::sort(v.begin(), v.end());
    auto rank = [&](double q) {
        const auto i = static_cast<size_t>(q * static_cast<double>(v.size()) + 0.999999);
        return v[std::min(v.size(), std::max<size_t>(i, 1)) - 1];
    };
    p.p50 = rank(0.50);
    p.p99 = rank(0.99);
    p.max = v.back();
    return p;
}

void print_latency(const char *what, const Percentiles &p)
{
    std::printf("  %-38s p50 %6.2f ms  p99 %6.2f ms  max %6.2f ms  (n=%zu)\n", what, p.p50, p.p99,
                p.max, p.n);
}

double ms_between(Clock::time_point a, Clock::time_point b)
{
    return std::chrono::duration<double, std::milli>(b - a).count();
}

int cycle_of(const bridge::sp::Payload &p)
{
    for (const auto &m : p.metrics)
        if (m.name == kCycleNode)
            if (const auto *v = std::get_if<uint32_t>(&m.value))
                return static_cast<int>(*v);
    return -1;
}


// The reference receiver, run as `bench_bridge_bench --bare-receiver ADDRESS`:
// prints "cycle <k> at <steady clock ns>" as each signal reaches its handler.
void on_bare_nodes(GObject *, GVariant *nodes, gpointer)
{
    const auto at = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
    int k = -1;
    if (g_variant_n_children(nodes) > 0) {
        const VariantPtr device(g_variant_get_child_value(nodes, 0));
        const VariantPtr boxed(g_variant_get_child_value(device.get(), 4));
        const VariantPtr list(g_variant_get_variant(boxed.get()));
        if (g_variant_n_children(list.get()) > 0) {
            const VariantPtr node(g_variant_get_child_value(list.get(), 0));
            const VariantPtr value(g_variant_get_child_value(node.get(), 3));
            k = std::atoi(g_variant_get_string(value.get(), nullptr));
        }
    }
    std::printf("cycle %d at %lld\n", k, static_cast<long long>(at));
}

int bare_receiver(const char *address)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    GError *raw = nullptr;
    ConnectionPtr conn(g_dbus_connection_new_for_address_sync(
        address,
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &raw));
    ErrorPtr conn_error(raw);
    if (!conn) {
        std::fprintf(stderr, "bare receiver: %s\n", conn_error->message);
        return 1;
    }
    raw = nullptr;
    std::unique_ptr<GatewayDeviceService, ObjectUnref> proxy(gateway_device_service_proxy_new_sync(
        conn.get(),
        static_cast<GDBusProxyFlags>(G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES | G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START),
        "com.fernwick.DeviceService", "/com/fernwick/DeviceService", nullptr, &raw));
    ErrorPtr proxy_error(raw);
    if (!proxy) {
        std::fprintf(stderr, "bare receiver: %s\n", proxy_error->message);
        return 1;
    }
    g_signal_connect(proxy.get(), "nodes", G_CALLBACK(&on_bare_nodes), nullptr);
    GMainLoop *loop = g_main_loop_new(nullptr, FALSE);
    g_unix_signal_add(
        SIGTERM,
        [](gpointer l) -> gboolean {
            g_main_loop_quit(static_cast<GMainLoop *>(l));
            return G_SOURCE_REMOVE;
        },
        loop);
    std::printf("ready\n");
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
    return 0;
}

// What one process did over the emitted cycles.
struct Run {
    std::vector<Clock::time_point> emitted;
    std::vector<int64_t> emitted_utc_ms;
    std::vector<double> emit_call_ms;  // the emit call itself: the sender building the message
    CpuSample cpu_start, cpu_end;
    double rss_at_rest = 0, rss_busy = 0, rss = 0, hwm = 0, rss_anon = 0, rss_file = 0;
    int incomplete = 0;
};

// One cycle a second on a fixed schedule. Each cycle is built before its
// slot, so that the emit time is the signal's own; after emitting we wait
// (`handled(k, deadline)`) until the receiver is done with it before
// building the next, so that the benchmark does not compete with the
// receiver for the two cores while it works.
template <typename Handled, typename Alive>
bool drive(StandInDaemon &daemon, pid_t pid, int warmup, int total, Run &run, Handled handled, Alive alive)
{
    run.emitted.assign(static_cast<size_t>(total), {});
    run.emitted_utc_ms.assign(static_cast<size_t>(total), 0);
    run.rss_at_rest = kib_line_mib(pid, "status", "VmRSS:");
    const Clock::time_point start = Clock::now() + 200ms;
    for (int k = 0; k < total; ++k) {
        VariantPtr args(make_cycle(k));
        const Clock::time_point slot = start + std::chrono::seconds(k);
        std::this_thread::sleep_until(slot);
        if (k == warmup)
            run.cpu_start = cpu_sample(pid);
        const auto ki = static_cast<size_t>(k);
        run.emitted[ki] = Clock::now();
        run.emitted_utc_ms[ki] = g_get_real_time() / 1000;
        if (!daemon.emit(args.get())) {
            std::fprintf(stderr, "cycle %d could not be emitted\n", k);
            return false;
        }
        if (k >= warmup)
            run.emit_call_ms.push_back(ms_between(run.emitted[ki], Clock::now()));
        if (!handled(k, slot + 900ms) && k >= warmup)
            ++run.incomplete;
        if (!alive())
            return false;
    }
    run.cpu_end = cpu_sample(pid);
    run.rss_busy = kib_line_mib(pid, "status", "VmRSS:");
    // Memory as a look at the process finds it most of the time: between
    // cycles, once the last one has been handled.
    std::this_thread::sleep_until(start + std::chrono::seconds(total - 1) + 600ms);
    run.rss = kib_line_mib(pid, "status", "VmRSS:");
    run.hwm = kib_line_mib(pid, "status", "VmHWM:");
    run.rss_anon = kib_line_mib(pid, "status", "RssAnon:");
    run.rss_file = kib_line_mib(pid, "status", "RssFile:");
    return true;
}

void print_threads(const Run &run, double cpu)
{
    for (const auto &[name, end] : run.cpu_end.by_thread) {
        const auto it = run.cpu_start.by_thread.find(name);
        const double spent = end - (it != run.cpu_start.by_thread.end() ? it->second : 0.0);
        std::printf("  thread %-16s %.2f s (%.0f%%)\n", name.c_str(), spent, cpu > 0 ? 100.0 * spent / cpu : 0.0);
    }
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 3 && std::string(argv[1]) == "--bare-receiver")
        return bare_receiver(argv[2]);
    const int measured = argc > 1 ? std::clamp(std::atoi(argv[1]), 1, 50) : 30;
    const int warmup = argc > 2 ? std::clamp(std::atoi(argv[2]), 1, 20) : 5;
    const int total = warmup + measured;
    setvbuf(stdout, nullptr, _IOLBF, 0);
    struct Library {
        Library() { mosquitto_lib_init(); }
        ~Library() { mosquitto_lib_cleanup(); }
    } library;

    dstest::TempDir dir;
    dstest::PrivateBus bus;
    StandInDaemon daemon(bus);
    if (!daemon.owner()) {
        std::fprintf(stderr, "could not own the daemon's name on the private bus\n");
        return 1;
    }
    bridgetest::Broker broker;
    if (!broker.start()) {
        std::fprintf(stderr, "mosquitto did not start\n");
        return 1;
    }
    StampingSubscriber sub(broker.port(), std::string("spBv1.0/") + kGroup + "/#");
    if (!sub.wait(Clock::now() + 5s, [](size_t, bool subscribed) { return subscribed; })) {
        std::fprintf(stderr, "the subscriber was not subscribed in time\n");
        return 1;
    }
    // DS_TEST_BRIDGE_BINARY runs another build of the bridge, or a wrapper
    // around it (a profiler).
    const char *other = getenv("DS_TEST_BRIDGE_BINARY");
    const std::string binary = other != nullptr && *other != '\0' ? other : DS_BRIDGE_BINARY;
    Run run;
    {
        bridgetest::Child bridge({binary, "--broker", broker.address(), "--bus-address", bus.address(),
                                  "--state-dir", dir.file("state"), "--group", kGroup, "--edge-node", kEdge},
                                 dir.path(), "bridge");
        if (!bridge.wait_err("device-service is on the bus", 10s) || !bridge.wait_err("connected to", 10s)) {
            std::fprintf(stderr, "the bridge did not come up:\n%s\n", bridge.err().c_str());
            return 1;
        }
        // A cycle is handled once its ten device messages (births the
        // first time) have arrived.
        size_t before = 0;
        const bool driven = drive(
            daemon, bridge.pid(), warmup, total, run,
            [&](int, Clock::time_point deadline) {
                const bool done = sub.wait(deadline, [&](size_t n, bool) { return n >= before + kDevices; });
                before = sub.device_messages();
                return done;
            },
            [&] { return bridge.running(); });
        if (!driven) {
            std::fprintf(stderr, "the bridge ended:\n%s\n", bridge.err().c_str());
            return 1;
        }
        bridge.signal(SIGTERM);
        bridge.wait_exit(5s);
    }

    // The same cycles to the bare receiver.
    Run bare;
    std::string bare_out;
    {
        // By its own path, so that its threads are named after it.
        gchar *self = g_file_read_link("/proc/self/exe", nullptr);
        const std::string program = self != nullptr ? self : "/proc/self/exe";
        g_free(self);
        bridgetest::Child receiver({program, "--bare-receiver", bus.address()}, dir.path(), "bare");
        if (!receiver.wait_out("ready", 10s)) {
            std::fprintf(stderr, "the bare receiver did not come up:\n%s\n", receiver.err().c_str());
            return 1;
        }
        const bool driven = drive(
            daemon, receiver.pid(), warmup, total, bare,
            [&](int k, Clock::time_point deadline) {
                return receiver.wait_out("cycle " + std::to_string(k) + " at",
                                         std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()));
            },
            [&] { return receiver.running(); });
        if (!driven) {
            std::fprintf(stderr, "the bare receiver ended:\n%s\n", receiver.err().c_str());
            return 1;
        }
        receiver.signal(SIGTERM);
        receiver.wait_exit(5s);
        bare_out = receiver.out();
    }

    // Every DDATA of a measured cycle, tied to its cycle by the counter node.
    std::vector<double> all, last_of_cycle, bus_leg;
    std::vector<double> latest(static_cast<size_t>(total), -1.0);
    size_t values = 0, ddata = 0, births = 0;
    for (const auto &a : sub.take()) {
        bridge::sp::Topic t;
        bridge::sp::Payload p;
        if (!bridge::sp::parse_topic(a.topic, t) || !bridge::sp::decode(a.payload, p))
            continue;
        if (t.type == bridge::sp::MsgType::DBIRTH)
            ++births;
        if (t.type != bridge::sp::MsgType::DDATA)
            continue;
        const int k = cycle_of(p);
        if (k < warmup || k >= total)
            continue;
        const auto ki = static_cast<size_t>(k);
        const double ms = ms_between(run.emitted[ki], a.at);
        all.push_back(ms);
        latest[ki] = std::max(latest[ki], ms);
        if (!p.metrics.empty() && p.metrics.front().timestamp != 0)
            bus_leg.push_back(static_cast<double>(static_cast<int64_t>(p.metrics.front().timestamp) -
                                                  run.emitted_utc_ms[ki]));
        values += p.metrics.size();
        ++ddata;
    }
    for (int k = warmup; k < total; ++k)
        if (latest[static_cast<size_t>(k)] >= 0)
            last_of_cycle.push_back(latest[static_cast<size_t>(k)]);
    // The bare receiver's handler, from its stamps.
    std::vector<double> bare_leg;
    {
        std::istringstream in(bare_out);
        for (std::string line; std::getline(in, line);) {
            int k = -1;
            long long ns = 0;
            if (std::sscanf(line.c_str(), "cycle %d at %lld", &k, &ns) != 2 || k < warmup || k >= total)
                continue;
            const Clock::time_point at{std::chrono::duration_cast<Clock::duration>(std::chrono::nanoseconds(ns))};
            bare_leg.push_back(ms_between(bare.emitted[static_cast<size_t>(k)], at));
        }
    }

    const double cpu = run.cpu_end.seconds - run.cpu_start.seconds;
    const double bare_cpu = bare.cpu_end.seconds - bare.cpu_start.seconds;
    const double expected = static_cast<double>(measured) * kDevices * kNodes;
    const double us_per_value = values > 0 ? cpu * 1e6 / static_cast<double>(values) : 0;
    const double bare_us_per_value = bare_cpu * 1e6 / expected;
    const Percentiles last = percentiles(last_of_cycle);
    const Percentiles every = percentiles(all);
    const Percentiles bus_part = percentiles(bus_leg);
    const Percentiles bare_part = percentiles(bare_leg);
    const Percentiles emit_call = percentiles(run.emit_call_ms);

    std::printf("device-service-bridge, %d devices x %d nodes, every value changed each cycle, 1 cycle/s\n",
                kDevices, kNodes);
    std::printf("  %d warm-up + %d measured cycles; %zu DDATA with %zu values (%.0f expected), "
                "%zu DBIRTH, %d incomplete cycles, %zu messages beyond the record\n",
                warmup, measured, ddata, values, expected, births, run.incomplete, sub.dropped());
    std::printf("CPU of the bridge over the measured cycles: %.2f s (clock ticks of %.0f ms)\n", cpu,
                1000.0 / static_cast<double>(sysconf(_SC_CLK_TCK)));
    print_threads(run, cpu);
    std::printf("  page faults %.0f a cycle\n", (run.cpu_end.minor_faults - run.cpu_start.minor_faults) / measured);
    std::printf("  per published value %.3f us (target <= %.1f us: %s, ratio %.2f)\n", us_per_value,
                kCpuTargetUs, us_per_value <= kCpuTargetUs ? "met" : "MISSED", us_per_value / kCpuTargetUs);
    std::printf("memory of the bridge between cycles: VmRSS %.2f MiB (target <= %.0f MiB: %s, ratio %.2f); "
                "%.2f MiB as the last cycle was delivered, VmHWM %.2f MiB\n",
                run.rss, kRssTargetMiB, run.rss <= kRssTargetMiB ? "met" : "MISSED", run.rss / kRssTargetMiB,
                run.rss_busy, run.hwm);
    std::printf("  anonymous %.2f MiB, file-backed (code and libraries) %.2f MiB; VmRSS %.2f MiB before the first cycle\n",
                run.rss_anon, run.rss_file, run.rss_at_rest);
    std::printf("latency from emitting `nodes` to the subscriber:\n");
    print_latency("last DDATA of each cycle", last);
    print_latency("every DDATA", every);
    print_latency("emit to the bridge's stamp (ms clock)", bus_part);
    print_latency("the emit call itself (the sender)", emit_call);
    std::printf("  p99 of the last DDATA %.2f ms (target <= %.0f ms: %s, ratio %.2f)\n", last.p99,
                kP99TargetMs, last.p99 <= kP99TargetMs ? "met" : "MISSED", last.p99 / kP99TargetMs);
    std::printf("a bare receiver of the same cycles (the bus library and the generated proxy, nothing else):\n");
    print_threads(bare, bare_cpu);
    std::printf("  CPU per received value %.3f us; the bridge spends %.2f times that\n", bare_us_per_value,
                bare_us_per_value > 0 ? us_per_value / bare_us_per_value : 0.0);
    std::printf("  VmRSS between cycles %.2f MiB (anonymous %.2f, file-backed %.2f; %.2f before the first cycle); "
                "the bridge holds %.2f MiB more\n",
                bare.rss, bare.rss_anon, bare.rss_file, bare.rss_at_rest, run.rss - bare.rss);
    print_latency("emit to its handler", bare_part);
    std::printf("  the bridge's last DDATA comes %.2f ms (p50) and %.2f ms (p99) after the bare receiver's handler\n",
                last.p50 - bare_part.p50, last.p99 - bare_part.p99);
    const bool complete = values == static_cast<size_t>(expected) && run.incomplete == 0 &&
                          bare_part.n == static_cast<size_t>(measured);
    if (!complete)
        std::printf("WARNING: not every value of the measured cycles arrived\n");
    return complete ? 0 : 1;
}
