// device-service-ctl against the running daemon on a private bus: a whole
// configuration applied and watched, kept through a restart; single calls
// and their result codes; mistakes that send nothing.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <json-glib/json-glib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <regex>
#include <set>

#include "ctl_config.h"
#include "support/daemon_fixture.h"

using namespace dstest;

namespace {

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    gchar **parts = g_strsplit(text.c_str(), "\n", -1);
    for (gchar **p = parts; *p != nullptr; ++p)
        if (**p != '\0')
            lines.push_back(*p);
    g_strfreev(parts);
    return lines;
}

// The devices one JSON line of `monitor --json` shows: "dev_id name model".
using Devices = std::set<std::string>;

bool parse_cycle(const std::string &line, Devices &devices)
{
    JsonNode *root = json_from_string(line.c_str(), nullptr);
    const bool ok = root != nullptr && JSON_NODE_HOLDS_OBJECT(root);
    JsonArray *devs = ok ? json_object_get_array_member(json_node_get_object(root), "devices") : nullptr;
    for (guint i = 0; devs != nullptr && i < json_array_get_length(devs); ++i) {
        JsonObject *d = json_array_get_object_element(devs, i);
        devices.insert(std::to_string(json_object_get_int_member(d, "dev_id")) + " " +
                       json_object_get_string_member(d, "dev_name") + " " +
                       json_object_get_string_member(d, "model"));
    }
    if (root != nullptr)
        json_node_unref(root);
    return ok;
}

// The example with every Ethernet PLC at a port where nothing listens (bound,
// not listening: connections are refused at once) and no serial line: every
// device appears, without values. The demo reads the example's PLCs.
std::string example_without_plcs(int closed)
{
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    EXPECT_EQ(bind(closed, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    EXPECT_EQ(getsockname(closed, reinterpret_cast<sockaddr *>(&a), &len), 0);
    const std::string port = "\"port\": " + std::to_string(ntohs(a.sin_port));
    return std::regex_replace(read_file(DS_SOURCE_DIR "/examples/plant.json"),
                              std::regex(R"("port": (5020|5007|102)\b)"), port);
}

struct RunResult {
    int status; // -1 when it did not end in time
    std::string out, err;
};

class CtlOnDaemon : public DaemonTest {
protected:
    // device-service-ctl on this test's bus, run to its end.
    RunResult run_ctl(const std::vector<std::string> &args, bool on_our_bus = true)
    {
        std::vector<std::string> argv = {DS_CTL};
        if (on_our_bus)
            argv.insert(argv.end(), {"--address", bus_.address()});
        argv.insert(argv.end(), args.begin(), args.end());
        Child ctl(argv, dir_.path(), "ctl" + std::to_string(runs_++));
        const int status = ctl.wait_exit(60s);
        return {status, ctl.out(), ctl.err()};
    }
    struct Step {
        std::vector<std::string> args;
        int status;
        std::string printed; // stdout after a success, stderr after a failure; unchecked when empty
    };
    // Runs each step in turn; a failure prints nothing on stdout.
    void run_steps(const std::vector<Step> &steps)
    {
        for (const auto &s : steps) {
            const RunResult r = run_ctl(s.args);
            EXPECT_EQ(r.status, s.status) << s.args[0] << ": " << r.err;
            if (!s.printed.empty()) {
                EXPECT_EQ(s.status == 0 ? r.out : r.err, s.printed) << s.args[0];
            }
            if (s.status != 0) {
                EXPECT_EQ(r.out, "") << s.args[0];
            }
        }
    }
    // The handlers print their name when called.
    bool daemon_was_called() { return daemon_->out().find("on_handle") != std::string::npos; }

    // The devices of a `monitor --json` cycle.
    Devices watch()
    {
        const RunResult r = run_ctl({"monitor", "--json", "--count", "1"});
        EXPECT_EQ(r.status, 0) << r.err;
        const auto lines = lines_of(r.out);
        Devices devices;
        EXPECT_EQ(lines.size(), 1u) << r.out;
        EXPECT_TRUE(!lines.empty() && parse_cycle(lines[0], devices)) << r.out;
        return devices;
    }
    int runs_ = 0;
};

} // namespace

TEST_F(CtlOnDaemon, AppliedConfigurationIsShownAndSurvivesARestart)
{
    const int closed = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const std::string example = example_without_plcs(closed);
    write_file(dir_.file("plant.json"), example);
    start_daemon();
    start_system_service(1);

    RunResult r = run_ctl({"apply", dir_.file("plant.json")});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.out, "SerialDeviceSyncMulti (5 serial devices): 0 done\n"
                     "EthernetDeviceSyncMulti (7 Ethernet devices): 0 done\n"
                     "nodeTableSyncMulti (42 nodes): 0 done\n");
    ctl::Config cfg;
    std::string err;
    ASSERT_TRUE(ctl::parse_config("plant.json", example, cfg, err)) << err;
    Devices devices;
    for (const auto &d : cfg.serial)
        devices.insert(std::to_string(d.dev_id) + " " + d.dev_name + " " + ctl::model_name(d.dev_type));
    for (const auto &d : cfg.ethernet)
        devices.insert(std::to_string(d.dev_id) + " " + d.dev_name + " " + ctl::model_name(d.dev_type));
    ASSERT_EQ(devices.size(), 12u);
    EXPECT_EQ(watch(), devices);
    restart_daemon();
    EXPECT_EQ(watch(), devices);

    r = run_ctl({"monitor", "--count", "1"});
    ASSERT_EQ(r.status, 0) << r.err;
    const auto table = lines_of(r.out);
    ASSERT_GE(table.size(), 14u) << r.out;
    EXPECT_EQ(table[0].rfind("cycle 1 at ", 0), 0u) << table[0];
    EXPECT_EQ(table[1].rfind("DEV_ID  DEVICE ", 0), 0u) << table[1];
    EXPECT_NE(r.out.find("17      S7-400 turbine"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("(no values)"), std::string::npos) << r.out;
    close(closed);
}

TEST_F(CtlOnDaemon, MistakesSendNothing)
{
    start_daemon();
    write_file(dir_.file("bad.json"),
               R"({"serial_devices": [{"dev_id": 1, "dev_name": "a", "model": "FX-3U", "serial_number": 1}],
                   "ethernet_devices": [],
                   "nodes": [{"node_id": 1, "dev_id": 1, "node_name": "n", "node_data_type": "U16"}]})");
    const std::string bad = dir_.file("bad.json");
    run_steps({
        {{"apply", bad}, 1, "device-service-ctl: " + bad + ": nodes[0].node_addr: missing field\n"},
        {{"ethernet-add", "--dev-id", "2", "--dev-name", "p", "--model", "FX-5U", "--ip-addr", "127.0.0.1", "--rack"},
         1, "device-service-ctl: --rack needs a value\n"},
        {{"serial-add", "--dev-id", "2", "--dev-name", "p", "--model", "FX-3U", "--serial-number", "1", "--parity", "even"},
         1, "device-service-ctl: --parity: unknown option\n"},
        {{"node-delete", "12", "x"}, 1, "device-service-ctl: node-delete: 'x' is not a node_id\n"},
        {{"frobnicate"}, 1, ""},
        {{"apply", dir_.file("missing.json")}, 1, ""}, // in the system's own words
    });
    EXPECT_FALSE(daemon_was_called()) << daemon_->out();
}

TEST_F(CtlOnDaemon, SingleCallsReportTheirResultsInWords)
{
    start_daemon();
    const std::vector<std::string> fx = {"serial-add", "--dev-id", "1", "--dev-name", "fx",
                                         "--model", "FX-3U", "--serial-number", "1"};
    const std::string ctl = "device-service-ctl: ";
    run_steps({
        {fx, 0, "SerialDeviceAdd: 0 done\n"},
        {fx, 2, ctl + "SerialDeviceAdd: 1 a device with this dev_id already exists\n"},
        {{"ethernet-add", "--dev-id", "2", "--dev-name", "cpu", "--model", "S7-1500", "--ip-addr", "127.0.0.1",
          "--port", "1"},
         0, "EthernetDeviceAdd: 0 done\n"},
        {{"ethernet-modify", "--dev-id", "2", "--dev-name", "cpu 2", "--model", "s7-400", "--ip-addr", "127.0.0.1",
          "--port", "1", "--slot", "3"},
         0, "EthernetDeviceMdf: 0 done\n"},
        {{"ethernet-delete", "--dev-id", "42"}, 2, ctl + "EthernetDeviceDel: 6 no such device\n"},
        {{"node-modify", "--dev-id", "1", "--dev-name", "fx", "--node-id", "5", "--node-name", "n", "--node-addr",
          "D0", "--node-data-type", "U16"},
         2, ctl + "nodeTableMdfOne: 6 no such device or node\n"},
        {{"node-delete", "5", "6"}, 0, "nodeTableDelMulti (2 nodes): 0 done\n"},
        {{"serial-delete", "--dev-id", "1"}, 0, "SerialDeviceDel: 0 done\n"},
    });

    stop_daemon();
    RunResult r = run_ctl({"serial-delete", "--dev-id", "1"});
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.err, "device-service-ctl: SerialDeviceDel failed: device-service is not running on "
                     "this bus (nobody owns com.fernwick.DeviceService)\n");
    r = run_ctl({"--address", "unix:path=" + dir_.file("no-bus"), "node-delete", "3"}, false);
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.err.rfind("device-service-ctl: cannot reach the session bus at unix:path=", 0), 0u) << r.err;
}
