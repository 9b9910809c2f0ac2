// device-service-ctl against the running daemon on a private bus: a whole
// configuration applied and watched, kept through a restart; single calls
// and their result codes; mistakes that send nothing.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <json-glib/json-glib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <set>

#include "ctl_config.h"
#include "sim/dvp_sim.h"
#include "sim/fx_sim.h"
#include "sim/mc_3e_sim.h"
#include "sim/modbus_tcp_sim.h"
#include "sim/ppi_sim.h"
#include "sim/qna_4c_sim.h"
#include "sim/serial_line.h"
#include "run_program.h"
#include "support/daemon_fixture.h"

using namespace dstest;

namespace {

RunResult run_ctl(const std::vector<std::string> &args)
{
    std::vector<std::string> argv = {DS_CTL};
    argv.insert(argv.end(), args.begin(), args.end());
    return run_program(argv);
}

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

// What one JSON line of `monitor --json` shows: its devices
// ("dev_id name model") and its nodes ("dev_id name address type").
struct Cycle {
    std::set<std::string> devices;
    std::set<std::string> nodes;
};

std::string replaced(std::string text, const std::string &from, const std::string &to)
{
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

bool parse_cycle(const std::string &line, Cycle &c)
{
    JsonParser *parser = json_parser_new();
    bool ok = json_parser_load_from_data(parser, line.c_str(), -1, nullptr) != FALSE;
    JsonNode *root = ok ? json_parser_get_root(parser) : nullptr;
    ok = root != nullptr && JSON_NODE_HOLDS_OBJECT(root);
    if (ok) {
        JsonArray *devs = json_object_get_array_member(json_node_get_object(root), "devices");
        for (guint i = 0; devs != nullptr && i < json_array_get_length(devs); ++i) {
            JsonObject *d = json_array_get_object_element(devs, i);
            const std::string id = std::to_string(json_object_get_int_member(d, "dev_id"));
            c.devices.insert(id + " " + json_object_get_string_member(d, "dev_name") + " " +
                             json_object_get_string_member(d, "model"));
            JsonArray *nodes = json_object_get_array_member(d, "nodes");
            for (guint j = 0; j < json_array_get_length(nodes); ++j) {
                JsonObject *n = json_array_get_object_element(nodes, j);
                c.nodes.insert(id + " " + json_object_get_string_member(n, "node_name") + " " +
                               json_object_get_string_member(n, "node_addr") + " " +
                               json_object_get_string_member(n, "type"));
            }
        }
    }
    g_object_unref(parser);
    return ok;
}

// The serial PLCs of the example on the daemon's two ports, and its FX-5U
// and Q CPU on loopback. The S7 family's port is one where nothing listens
// (a real S7 server needs port 102, which other tests may hold): those
// devices appear without values.
class Plant {
public:
    Plant(const std::string &tty1, const std::string &tty2)
    {
        for (const auto &path : {tty1, tty2}) {
            auto &p = plcs_.emplace_back(std::make_unique<SerialPlcs>());
            auto &line = lines_.emplace_back(std::make_unique<sim::SerialLine>(path));
            line->add_protocol(&p->ppi); // claims a 0x10 frame only while it owes an answer
            line->add_protocol(&p->q);
            line->add_protocol(&p->fx);
            line->add_protocol(&p->dvp);
            line->start();
        }
        EXPECT_TRUE(fx5u_.start());
        EXPECT_TRUE(qna_.start());
        // Bound but not listening: connections are refused at once.
        closed_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        EXPECT_EQ(bind(closed_, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
        EXPECT_EQ(getsockname(closed_, reinterpret_cast<sockaddr *>(&a), &len), 0);
        closed_port_ = ntohs(a.sin_port);
    }
    ~Plant()
    {
        for (auto &l : lines_)
            l->stop();
        close(closed_);
    }
    // The example file with this plant's ports.
    std::string example() const
    {
        std::string text = read_file(DS_SOURCE_DIR "/examples/plant.json");
        text = replaced(text, "\"port\": 5020", "\"port\": " + std::to_string(fx5u_.port()));
        text = replaced(text, "\"port\": 5007", "\"port\": " + std::to_string(qna_.port()));
        return replaced(text, "\"port\": 102,", "\"port\": " + std::to_string(closed_port_) + ",");
    }

private:
    struct SerialPlcs {
        sim::PpiSim ppi{2};
        sim::QnA4CSim q;
        sim::FxSim fx;
        sim::DvpSim dvp;
    };
    std::vector<std::unique_ptr<SerialPlcs>> plcs_;
    std::vector<std::unique_ptr<sim::SerialLine>> lines_;
    sim::ModbusTcpSim fx5u_;
    sim::Mc3eSim qna_;
    int closed_ = -1;
    uint16_t closed_port_ = 0;
};

class CtlOnDaemon : public DaemonTest {
protected:
    std::vector<std::string> ctl(std::initializer_list<std::string> args)
    {
        std::vector<std::string> v = {"--address", bus_.address()};
        v.insert(v.end(), args);
        return v;
    }
    // The handlers print their name when called.
    bool daemon_was_called() { return daemon_->out().find("on_handle") != std::string::npos; }

    // Every cycle of a `monitor --json` run, and the union of what they show.
    Cycle watch(unsigned cycles)
    {
        const RunResult r = run_ctl(ctl({"monitor", "--json", "--count", std::to_string(cycles)}));
        EXPECT_EQ(r.status, 0) << r.err;
        const auto lines = lines_of(r.out);
        EXPECT_EQ(lines.size(), cycles) << r.out;
        Cycle all;
        for (const auto &l : lines) {
            Cycle c;
            EXPECT_TRUE(parse_cycle(l, c)) << l;
            if (all.devices.empty())
                all.devices = c.devices;
            EXPECT_EQ(c.devices, all.devices) << "every cycle shows every device";
            all.nodes.insert(c.nodes.begin(), c.nodes.end());
        }
        return all;
    }
};

} // namespace

TEST_F(CtlOnDaemon, AppliedConfigurationIsReadAndSurvivesARestart)
{
    Plant plant(dir_.file("ttymxc1"), dir_.file("ttymxc2"));
    write_file(dir_.file("plant.json"), plant.example());
    start_daemon();
    start_system_service(1);

    RunResult r = run_ctl(ctl({"apply", dir_.file("plant.json")}));
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.out, "SerialDeviceSyncMulti (5 serial devices): 0 done\n"
                     "EthernetDeviceSyncMulti (7 Ethernet devices): 0 done\n"
                     "nodeTableSyncMulti (42 nodes): 0 done\n");

    // Every device shows; nodes show when read: all but the S7 family's.
    ctl::Config cfg;
    std::string err;
    ASSERT_TRUE(ctl::parse_config("plant.json", plant.example(), cfg, err)) << err;
    std::set<std::string> devices, readable;
    std::set<uint32_t> s7;
    for (const auto &d : cfg.serial)
        devices.insert(std::to_string(d.dev_id) + " " + d.dev_name + " " + ctl::model_name(d.dev_type));
    for (const auto &d : cfg.ethernet) {
        devices.insert(std::to_string(d.dev_id) + " " + d.dev_name + " " + ctl::model_name(d.dev_type));
        if (d.dev_mfg == 2)
            s7.insert(d.dev_id);
    }
    for (const auto &n : cfg.nodes)
        if (s7.count(n.dev_id) == 0)
            readable.insert(std::to_string(n.dev_id) + " " + n.node_name + " " + n.node_addr + " " +
                            ctl::data_type_name(n.node_data_type));
    ASSERT_EQ(devices.size(), 12u);

    // Over three cycles every readable node answers at least once.
    const Cycle before = watch(3);
    EXPECT_EQ(before.devices, devices);
    EXPECT_EQ(before.nodes, readable);

    restart_daemon();
    const Cycle after = watch(3);
    EXPECT_EQ(after.devices, before.devices);
    EXPECT_EQ(after.nodes, before.nodes);

    r = run_ctl(ctl({"monitor", "--count", "1"}));
    ASSERT_EQ(r.status, 0) << r.err;
    const auto table = lines_of(r.out);
    ASSERT_GE(table.size(), 14u) << r.out;
    EXPECT_EQ(table[0].rfind("cycle 1 at ", 0), 0u) << table[0];
    EXPECT_EQ(table[1].rfind("DEV_ID  DEVICE ", 0), 0u) << table[1];
    EXPECT_NE(r.out.find("17      S7-400 turbine"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("(no values)"), std::string::npos) << r.out;
}

TEST_F(CtlOnDaemon, MistakesSendNothing)
{
    start_daemon();
    write_file(dir_.file("bad.json"),
               R"({"serial_devices": [{"dev_id": 1, "dev_name": "a", "model": "FX-3U", "serial_number": 1}],
                   "ethernet_devices": [],
                   "nodes": [{"node_id": 1, "dev_id": 1, "node_name": "n", "node_data_type": "U16"}]})");
    RunResult r = run_ctl(ctl({"apply", dir_.file("bad.json")}));
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "device-service-ctl: " + dir_.file("bad.json") + ": nodes[0].node_addr: missing field\n");
    EXPECT_EQ(r.out, "");

    r = run_ctl(ctl({"apply", dir_.file("missing.json")}));
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("missing.json"), std::string::npos) << r.err;

    r = run_ctl(ctl({"ethernet-add", "--dev-id", "2", "--dev-name", "p", "--model", "FX-5U", "--ip-addr",
                     "127.0.0.1", "--rack"}));
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "device-service-ctl: --rack needs a value\n");
    r = run_ctl(ctl({"serial-add", "--dev-id", "2", "--dev-name", "p", "--model", "FX-3U",
                     "--serial-number", "1", "--parity", "even"}));
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "device-service-ctl: --parity: unknown option\n");
    r = run_ctl(ctl({"node-delete", "12", "x"}));
    EXPECT_EQ(r.status, 1);
    r = run_ctl(ctl({"frobnicate"}));
    EXPECT_EQ(r.status, 1);
    EXPECT_FALSE(daemon_was_called()) << daemon_->out();
}

TEST_F(CtlOnDaemon, SingleCallsReportTheirResultsInWords)
{
    start_daemon();
    const std::initializer_list<std::string> fx = {"serial-add", "--dev-id", "1", "--dev-name", "fx",
                                                   "--model", "FX-3U", "--serial-number", "1"};
    RunResult r = run_ctl(ctl(fx));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "SerialDeviceAdd: 0 done\n");
    r = run_ctl(ctl(fx));
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "device-service-ctl: SerialDeviceAdd: 1 a device with this dev_id already exists\n");

    r = run_ctl(ctl({"ethernet-add", "--dev-id", "2", "--dev-name", "cpu", "--model", "S7-1500",
                     "--ip-addr", "127.0.0.1", "--port", "1"}));
    EXPECT_EQ(r.status, 0) << r.err;
    r = run_ctl(ctl({"ethernet-modify", "--dev-id", "2", "--dev-name", "cpu 2", "--model", "s7-400",
                     "--ip-addr", "127.0.0.1", "--port", "1", "--slot", "3"}));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "EthernetDeviceMdf: 0 done\n");
    r = run_ctl(ctl({"ethernet-delete", "--dev-id", "42"}));
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "device-service-ctl: EthernetDeviceDel: 6 no such device\n");
    r = run_ctl(ctl({"node-modify", "--dev-id", "1", "--dev-name", "fx", "--node-id", "5", "--node-name",
                     "n", "--node-addr", "D0", "--node-data-type", "U16"}));
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "device-service-ctl: nodeTableMdfOne: 6 no such device or node\n");
    r = run_ctl(ctl({"node-delete", "5", "6"}));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "nodeTableDelMulti (2 nodes): 0 done\n");
    r = run_ctl(ctl({"serial-delete", "--dev-id", "1"}));
    EXPECT_EQ(r.status, 0) << r.err;

    stop_daemon();
    r = run_ctl(ctl({"serial-delete", "--dev-id", "1"}));
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.err, "device-service-ctl: SerialDeviceDel failed: device-service is not running on "
                     "this bus (nobody owns com.fernwick.DeviceService)\n");
    r = run_ctl({"--address", "unix:path=" + dir_.file("no-bus"), "node-delete", "3"});
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.err.rfind("device-service-ctl: cannot reach the session bus at unix:path=", 0), 0u) << r.err;
}
