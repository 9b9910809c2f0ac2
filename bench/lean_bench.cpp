// What a node costs: CPU per read and cycle time of the daemon against a
// plain libmodbus loop doing the same requests to a loopback server of the
// same code,
// and the daemon's resident memory with 10,000 nodes configured over the bus
// and restored from my.db.
//   bench_lean_bench [growth-cycles]      (default 1000)
//   bench_lean_bench --churn-minutes [N]  (default 10)
// The second form measures instead how the daemon's resident memory moves
// under a configuration call every 100 ms while it cycles: a warm-up minute,
// then N minutes sampled once a minute.
// The servers and the measured client share CPU 0 (a loopback round trip
// across CPUs costs several times more on a VM and varies a lot): the raw
// loop in a process of its own, as the daemon is one, since a switch between
// two address spaces costs more than one between two threads of a process;
// of the daemon only its reading thread. Everything else (this program's main
// thread, which only receives signals, the daemon's main and bus threads)
// stays on CPU 1.
#include <modbus.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "sim/modbus_tcp_sim.h"
#include "support/bus.h"
#include "support/config_calls.h"
#include "support/standin_system_service.h"

using namespace dstest;

namespace {

constexpr uint32_t READS_PER_CYCLE = 2000;
constexpr uint32_t BULK_NODES = 10000;
constexpr uint32_t BULK_DEVICES = 10;
// The raw loop and the daemon take turns (the daemon stopped while the loop
// runs), so that a slower or faster spell of the machine falls on both.
constexpr int ROUNDS = 5;
constexpr int CYCLES_PER_ROUND = 8;

void pin_task(pid_t tid, int cpu)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    if (sched_setaffinity(tid, sizeof set, &set) != 0)
        perror("sched_setaffinity");
}

pid_t self_tid()
{
    return static_cast<pid_t>(syscall(SYS_gettid));
}

std::string read_line(const std::string &path)
{
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

// The daemon's reading thread to `reading_cpu`, every other thread of it to
// `other_cpu`. The reading thread is the one started without a name of its
// own: GLib names its threads (gmain, gdbus, pool threads).
void pin_daemon(pid_t pid, int reading_cpu, int other_cpu)
{
    const std::string proc = "/proc/" + std::to_string(pid);
    const std::string name = read_line(proc + "/comm");
    for (const auto &e : std::filesystem::directory_iterator(proc + "/task")) {
        const auto tid = static_cast<pid_t>(std::stol(e.path().filename().string()));
        const bool reading = tid != pid && read_line(e.path() / "comm") == name;
        pin_task(tid, reading ? reading_cpu : other_cpu);
    }
}

// Time on CPU of every thread of the process, in ns (the scheduler's own
// account, finer than utime/stime ticks).
double process_cpu_ns(pid_t pid)
{
    double total = 0;
    for (const auto &e : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        std::ifstream in(e.path() / "schedstat");
        double ns = 0;
        if (in >> ns)
            total += ns;
    }
    return total;
}

long status_kib(pid_t pid, const char *field)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind(field, 0) == 0)
            return std::atol(line.c_str() + strlen(field));
    }
    return -1;
}

void reset_peak(pid_t pid)
{
    std::ofstream("/proc/" + std::to_string(pid) + "/clear_refs") << "5";
}

double thread_cpu_ns()
{
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}

double now_s()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

struct Rate {
    double cpu_per_read_us;
    double cycle_ms;
};

// connect, N x one-register read, close: what the daemon does per cycle for
// one device, with nothing around it.
Rate raw_cycles(uint16_t port, int cycles)
{
    const double cpu0 = thread_cpu_ns();
    const double t0 = now_s();
    for (int c = 0; c < cycles; ++c) {
        modbus_t *ctx = modbus_new_tcp("127.0.0.1", port);
        if (modbus_connect(ctx) == -1) {
            fprintf(stderr, "raw loop: connect failed\n");
            modbus_free(ctx);
            exit(1);
        }
        for (uint32_t i = 0; i < READS_PER_CYCLE; ++i) {
            uint16_t r = 0;
            if (modbus_read_registers(ctx, static_cast<int>(i), 1, &r) != 1)
                fprintf(stderr, "raw loop: read %u failed\n", i);
        }
        modbus_close(ctx);
        modbus_free(ctx);
    }
    return {(thread_cpu_ns() - cpu0) / 1e3 / (cycles * READS_PER_CYCLE),
            (now_s() - t0) * 1e3 / cycles};
}

// The raw loop in a child process on CPU 0; its figures come back by a pipe.
Rate raw_loop(uint16_t port, int cycles)
{
    int fds[2];
    if (pipe(fds) != 0) {
        perror("pipe");
        exit(1);
    }
    const pid_t child = fork();
    if (child == 0) {
        close(fds[0]);
        pin_task(self_tid(), 0);
        const Rate rate = raw_cycles(port, cycles);
        _exit(write(fds[1], &rate, sizeof rate) == static_cast<ssize_t>(sizeof rate) ? 0 : 1);
    }
    close(fds[1]);
    Rate rate{};
    const bool got = child > 0 && read(fds[0], &rate, sizeof rate) == static_cast<ssize_t>(sizeof rate);
    close(fds[0]);
    int status = 0;
    if (child > 0)
        waitpid(child, &status, 0);
    if (!got || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        fprintf(stderr, "raw loop failed\n");
        exit(1);
    }
    return rate;
}

std::vector<NodeSpec> nodes(uint32_t devices, uint32_t per_device, uint32_t first_id)
{
    std::vector<NodeSpec> v;
    v.reserve(devices * per_device);
    for (uint32_t d = 1; d <= devices; ++d)
        for (uint32_t i = 0; i < per_device; ++i)
            v.push_back({d, first_id + (d - 1) * per_device + i, "D" + std::to_string(i)});
    return v;
}

struct Daemon {
    TempDir dir;
    PrivateBus bus;
    sim::StandInSystemService system{bus.address()};
    std::unique_ptr<DaemonProcess> proc;
    DaemonOptions opts;
    std::unique_ptr<NodesRecorder> rec;

    Daemon()
    {
        opts.workdir = dir.path();
        opts.bus_address = bus.address();
        system.set_scan_interval(0);
        system.start();
        start();
    }
    void start()
    {
        proc = std::make_unique<DaemonProcess>(opts);
        bus.wait_for_name("com.fernwick.DeviceService", 120s);
        // The object is exported right after the name is acquired.
        wait_until([&] { return call_device(bus.connection(), "nodeTableDelMulti",
                                            node_id_array({})).ok; }, 10s);
        pin_daemon(proc->pid(), 0, 1);
        rec = std::make_unique<NodesRecorder>(bus.connection());
    }
    void restart()
    {
        rec.reset();
        proc->kill_now();
        bus.wait_for_name_gone("com.fernwick.DeviceService");
        opts.log_name = "restart";
        start();
    }
    int call(const char *method, GVariant *params)
    {
        auto r = call_device(bus.connection(), method, params, 600000);
        if (!r.ok || r.response != 0)
            fprintf(stderr, "%s answered %d %s\n", method, r.response, r.error.c_str());
        return r.ok ? r.response : -999;
    }
    // Waits for `n` more complete cycles; the recorder keeps none of them.
    void cycles(size_t n)
    {
        for (size_t i = 0; i < n; ++i) {
            if (!rec->wait_for_count(1, 120s)) {
                fprintf(stderr, "no cycle within 120 s\n");
                exit(1);
            }
            rec->clear();
        }
    }
    long rss() const { return status_kib(proc->pid(), "VmRSS:"); }
};

// One configuration call per step, in a round of ten that goes through the
// served methods and ends where it began: devices 1 and 2 with their nodes,
// device 3 coming and going with nodes of its own.
class Churn {
public:
    Churn(Daemon &d, uint16_t port) : d_(d), port_(port) {}

    void setup()
    {
        d_.call("EthernetDeviceAdd", device_args(1, "churn-1"));
        d_.call("EthernetDeviceAdd", device_args(2, "churn-2"));
        d_.call("nodeTableAddMulti", node_array(base_nodes()));
    }

    void step()
    {
        const uint32_t round = step_ / 10;
        switch (step_++ % 10) {
        case 0: d_.call("EthernetDeviceAdd", device_args(3, "churn-3")); break;
        case 1: d_.call("nodeTableAddMulti", node_array(extra_nodes(round))); break;
        case 2: d_.call("nodeTableMdfOne", node_tuple(renamed(EXTRA_FIRST, round))); break;
        case 3: d_.call("EthernetDeviceMdf", device_args(3, "churn-3-" + std::to_string(round))); break;
        case 4: {
            std::vector<uint32_t> ids;
            for (uint32_t i = EXTRA_COUNT / 2; i < EXTRA_COUNT; ++i)
                ids.push_back(EXTRA_FIRST + i);
            d_.call("nodeTableDelMulti", node_id_array(ids));
            break;
        }
        case 5: d_.call("EthernetDeviceDel", g_variant_new("(uuuus)", 3u, 1u, 1u, 103u, "")); break;
        case 6: {
            // The nodes of the devices it replaces leave memory (their rows
            // stay) and come back with the node sync after it.
            GVariantBuilder b;
            g_variant_builder_init(&b, G_VARIANT_TYPE("a(uuuussuuu)"));
            for (uint32_t id : {1u, 2u})
                g_variant_builder_add_value(&b, device_args(id, "churn-" + std::to_string(id)));
            d_.call("EthernetDeviceSyncMulti", g_variant_new("(@a(uuuussuuu))", g_variant_builder_end(&b)));
            break;
        }
        case 7: {
            GVariantBuilder b;
            g_variant_builder_init(&b, G_VARIANT_TYPE("a(uuuusuuuuuuu)"));
            d_.call("SerialDeviceSyncMulti", g_variant_new("(@a(uuuusuuuuuuu))", g_variant_builder_end(&b)));
            break;
        }
        case 8: d_.call("nodeTableSyncMulti", node_array(base_nodes(round))); break;
        default: d_.call("nodeTableMdfOne", node_tuple(renamed(1, round))); break;
        }
    }

private:
    static constexpr uint32_t BASE_PER_DEVICE = 200;
    static constexpr uint32_t EXTRA_FIRST = 3001;
    static constexpr uint32_t EXTRA_COUNT = 100;

    GVariant *device_args(uint32_t id, const std::string &name) const
    {
        return ethernet_args(id, 1, 103, name, "127.0.0.1", port_);
    }
    // Names change from round to round, so that texts are made anew.
    static std::vector<NodeSpec> base_nodes(uint32_t round = 0)
    {
        std::vector<NodeSpec> v = nodes(2, BASE_PER_DEVICE, 1);
        for (auto &n : v)
            n.name = "n" + std::to_string(n.node_id) + "-" + std::to_string(round % 7);
        return v;
    }
    static std::vector<NodeSpec> extra_nodes(uint32_t round)
    {
        std::vector<NodeSpec> v;
        for (uint32_t i = 0; i < EXTRA_COUNT; ++i)
            v.push_back({3, EXTRA_FIRST + i, "D" + std::to_string(i + round % 5), 4,
                         "extra-" + std::to_string(i) + "-" + std::to_string(round % 3)});
        return v;
    }
    static NodeSpec renamed(uint32_t node_id, uint32_t round)
    {
        const uint32_t dev = node_id >= EXTRA_FIRST ? 3 : 1 + (node_id - 1) / BASE_PER_DEVICE;
        return {dev, node_id, "D" + std::to_string(round % 50), 4,
                "renamed-" + std::to_string(node_id) + "-" + std::to_string(round % 11)};
    }

    Daemon &d_;
    uint16_t port_;
    uint32_t step_ = 0;
};

int run_churn(uint16_t port, int minutes)
{
    using clock = std::chrono::steady_clock;
    Daemon d;
    Churn churn(d, port);
    churn.setup();
    d.cycles(3);
    size_t cycles_seen = 0;
    auto run_for = [&](std::chrono::seconds span) {
        const auto start = clock::now();
        for (int i = 1; clock::now() - start < span; ++i) {
            churn.step();
            // The next call is due 100 ms after the previous one was; cycles
            // that arrive meanwhile are counted and dropped.
            const auto due = start + i * 100ms;
            const auto left = due - clock::now();
            if (left > 0ms)
                pump_main_context(std::chrono::duration_cast<std::chrono::milliseconds>(left));
            cycles_seen += d.rec->count();
            d.rec->clear();
        }
    };
    run_for(60s);
    std::vector<long> rss{d.rss()};
    printf("configuration churn: a call every 100 ms, the daemon cycling against a loopback "
           "Modbus TCP server\n");
    printf("  after the warm-up minute: VmRSS %ld KiB\n", rss.back());
    fflush(stdout);
    for (int m = 1; m <= minutes; ++m) {
        run_for(60s);
        rss.push_back(d.rss());
        printf("  minute %d: VmRSS %ld KiB (%+ld KiB)\n", m, rss.back(), rss.back() - rss[rss.size() - 2]);
        fflush(stdout);
    }
    printf("  cycles completed: %zu; VmHWM %ld KiB\n", cycles_seen, status_kib(d.proc->pid(), "VmHWM:"));
    printf("  growth after the warm-up: %.2f KiB per minute over %d minutes\n",
           static_cast<double>(rss.back() - rss.front()) / minutes, minutes);
    return 0;
}

struct Footprint {
    long base, hwm_call, after_add, after_sync, restored;

    double per_node(long kib) const { return static_cast<double>(kib - base) * 1024.0 / BULK_NODES; }
    void print(const char *texts) const
    {
        printf("  %s:\n", texts);
        printf("    VmRSS with the devices, no nodes: %.1f MiB\n", base / 1024.0);
        printf("    VmHWM during nodeTableAddMulti of %u: %.1f MiB\n", BULK_NODES, hwm_call / 1024.0);
        printf("    VmRSS cycling after nodeTableAddMulti: %.1f MiB (%.0f bytes per node)\n",
               after_add / 1024.0, per_node(after_add));
        printf("    VmRSS cycling after nodeTableSyncMulti to %u others: %.1f MiB\n", BULK_NODES,
               after_sync / 1024.0);
        printf("    VmRSS cycling after restoring them from my.db: %.1f MiB (%.0f bytes per node)\n",
               restored / 1024.0, per_node(restored));
        printf("    ratio configured / restored: %.2fx (add), %.2fx (sync)\n",
               static_cast<double>(after_add) / static_cast<double>(restored),
               static_cast<double>(after_sync) / static_cast<double>(restored));
    }
};

// (a(suussusubbuuiuuiss)) of the bulk nodes; with long texts every one of
// the six texts has 16 characters.
GVariant *bulk_nodes(uint32_t first_id, bool long_texts)
{
    if (!long_texts)
        return node_array(nodes(BULK_DEVICES, BULK_NODES / BULK_DEVICES, first_id));
    const uint32_t per_device = BULK_NODES / BULK_DEVICES;
    auto text16 = [](const char *head, uint32_t n) {
        char s[17];
        snprintf(s, sizeof s, "%s%0*u", head, static_cast<int>(16 - strlen(head)), n);
        return std::string(s);
    };
    GVariantBuilder b;
    g_variant_builder_init(&b, G_VARIANT_TYPE("a(suussusubbuuiuuiss)"));
    for (uint32_t d = 1; d <= BULK_DEVICES; ++d)
        for (uint32_t i = 0; i < per_device; ++i) {
            const uint32_t id = first_id + (d - 1) * per_device + i;
            g_variant_builder_add(&b, "(suussusubbuuiuuiss)", text16("device-", d).c_str(), d, id,
                                  text16("node-", id).c_str(), text16("D", i).c_str(), 4u,
                                  text16("unit-", id).c_str(), 0u, FALSE, FALSE, 0u, 0u, 0, 0u, 0u,
                                  0, text16("alarm-", id).c_str(), text16("about-", id).c_str());
        }
    return g_variant_new("(@a(suussusubbuuiuuiss))", g_variant_builder_end(&b));
}

Footprint footprint(uint16_t port, bool long_texts)
{
    Daemon d;
    for (uint32_t dev = 1; dev <= BULK_DEVICES; ++dev)
        d.call("EthernetDeviceAdd",
               ethernet_args(dev, 1, 103, "fx5u-" + std::to_string(dev), "127.0.0.1", port));
    d.cycles(5);
    Footprint f{};
    f.base = d.rss();
    reset_peak(d.proc->pid());
    d.call("nodeTableAddMulti", bulk_nodes(1, long_texts));
    f.hwm_call = status_kib(d.proc->pid(), "VmHWM:");
    d.cycles(5);
    f.after_add = d.rss();
    d.call("nodeTableSyncMulti", bulk_nodes(BULK_NODES + 1, long_texts));
    d.cycles(5);
    f.after_sync = d.rss();
    d.restart();
    d.cycles(5);
    f.restored = d.rss();
    return f;
}

} // namespace

int main(int argc, char **argv)
{
    int growth_cycles = 1000;
    int churn_minutes = 0;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--churn-minutes") == 0)
            churn_minutes = i + 1 < argc ? std::atoi(argv[++i]) : 10;
        else
            growth_cycles = std::atoi(argv[i]);
    }
    // The server's thread inherits CPU 0; this thread moves off it.
    pin_task(self_tid(), 0);
    sim::ModbusTcpSim server;
    server.start();
    // The raw loop's own: a stopped daemon may hold the other one mid-request.
    sim::ModbusTcpSim raw_server;
    raw_server.start();
    pin_task(self_tid(), 1);
    if (churn_minutes > 0)
        return run_churn(server.port(), churn_minutes);

    Rate raw{};
    Rate daemon_rate{};
    double growth_per_100 = 0;
    {
        Daemon d;
        d.call("EthernetDeviceAdd", ethernet_args(1, 1, 103, "fx5u", "127.0.0.1", server.port()));
        d.call("nodeTableAddMulti", node_array(nodes(1, READS_PER_CYCLE, 1)));
        d.cycles(3);
        for (int round = 0; round < ROUNDS; ++round) {
            kill(d.proc->pid(), SIGSTOP);
            const Rate r = raw_loop(raw_server.port(), CYCLES_PER_ROUND);
            kill(d.proc->pid(), SIGCONT);
            d.rec->clear();
            d.cycles(1); // the one the stop cut in two
            const double cpu0 = process_cpu_ns(d.proc->pid());
            const double t0 = now_s();
            d.cycles(CYCLES_PER_ROUND);
            raw.cpu_per_read_us += r.cpu_per_read_us / ROUNDS;
            raw.cycle_ms += r.cycle_ms / ROUNDS;
            daemon_rate.cpu_per_read_us += (process_cpu_ns(d.proc->pid()) - cpu0) / 1e3 /
                                           (CYCLES_PER_ROUND * READS_PER_CYCLE) / ROUNDS;
            daemon_rate.cycle_ms += (now_s() - t0) * 1e3 / CYCLES_PER_ROUND / ROUNDS;
        }
        d.cycles(50);
        const long before = d.rss();
        d.cycles(static_cast<size_t>(growth_cycles));
        growth_per_100 = static_cast<double>(d.rss() - before) * 100.0 / growth_cycles;
    }

    const Footprint short_texts = footprint(server.port(), false);
    const Footprint long_texts = footprint(server.port(), true);
    printf("reads against a loopback Modbus TCP server (one each, the same code), %u "
           "one-register reads per cycle, "
           "server and reading client on CPU 0, each in its own process; %d rounds of %d cycles "
           "each in turn\n", READS_PER_CYCLE, ROUNDS, CYCLES_PER_ROUND);
    printf("  raw libmodbus loop: %.2f us CPU per read, %.2f ms per cycle\n", raw.cpu_per_read_us,
           raw.cycle_ms);
    printf("  daemon (whole process): %.2f us CPU per read, %.2f ms per cycle\n",
           daemon_rate.cpu_per_read_us, daemon_rate.cycle_ms);
    printf("  ratio to the raw loop: CPU per read %.2fx, cycle %.2fx\n",
           daemon_rate.cpu_per_read_us / raw.cpu_per_read_us, daemon_rate.cycle_ms / raw.cycle_ms);
    printf("  VmRSS growth while cycling: %.2f KiB per 100 cycles (over %d cycles)\n",
           growth_per_100, growth_cycles);
    printf("%u devices x %u U16 nodes, scan interval 0\n", BULK_DEVICES, BULK_NODES / BULK_DEVICES);
    short_texts.print("names of 3-5 characters, no unit, alarm text or description");
    long_texts.print("every text of 16 characters");
    return 0;
}
