// The operator's client: its reading of configuration files, and the whole
// path apply -> daemon -> restart -> monitor.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include "ctl_config.h"
#include "support/daemon_fixture.h"
#include "support/test_driver.h"

using namespace dstest;

namespace {

std::string parse_error(const std::string &text)
{
    ctl::Config cfg;
    std::string err;
    EXPECT_FALSE(ctl::parse_config("plant.json", text, cfg, err)) << text;
    return err;
}

struct CtlRun {
    int status = -1;
    std::string out;
    std::string err;
};

CtlRun run_ctl(const std::vector<std::string> &args)
{
    std::vector<gchar *> argv = {g_strdup(DS_CTL)};
    for (const auto &a : args)
        argv.push_back(g_strdup(a.c_str()));
    argv.push_back(nullptr);
    CtlRun r;
    gchar *out = nullptr, *err = nullptr;
    gint status = 0;
    if (g_spawn_sync(nullptr, argv.data(), nullptr, G_SPAWN_DEFAULT, nullptr, nullptr, &out, &err,
                     &status, nullptr)) {
        r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        r.out = out;
        r.err = err;
    }
    g_free(out);
    g_free(err);
    for (gchar *a : argv)
        g_free(a);
    return r;
}

} // namespace

TEST(CtlConfig, BadInputNamesThePlace)
{
    EXPECT_EQ(parse_error("{\"nodes\": [}").rfind("plant.json:1:", 0), 0u) << parse_error("{\"nodes\": [}");
    EXPECT_EQ(parse_error(R"({"serial_devices":[{"dev_id":1,"name":"a","model":"FX-9","port":1}]})"),
              "plant.json: serial_devices[0].model: unknown model 'FX-9'");
    EXPECT_EQ(parse_error(R"({"ethernet_devices":[{"dev_id":1,"name":"a","model":"S7-1200","port":102}]})"),
              "plant.json: ethernet_devices[0].ip: missing field");
    EXPECT_EQ(parse_error(R"({"serial_devices":[{"dev_id":1,"name":"a","model":"S7-1200","port":1}]})"),
              "plant.json: serial_devices[0].model: S7-1200 is an Ethernet model");
    EXPECT_EQ(parse_error(R"({"ethernet_devices":[{"dev_id":1,"name":"a","model":"S7-1200","ip":"x","port":102}],
                            "nodes":[{"node_id":1,"dev_id":1,"name":"n","address":"DB1.DBW0","type":"U16"},
                                     {"node_id":2,"dev_id":1,"name":"n","type":"U16"}]})"),
              "plant.json: nodes[1].address: missing field");
    EXPECT_EQ(parse_error(R"({"nodes":[{"node_id":1,"dev_id":4,"name":"n","address":"D0","type":"U16"}]})"),
              "plant.json: nodes[0].dev_id: no device 4 in this file");
    EXPECT_EQ(parse_error(R"({"ethernet_devices":[{"dev_id":-1,"name":"a","model":"S7-1200","ip":"x","port":1}]})"),
              "plant.json: ethernet_devices[0].dev_id: expected a whole number from 0 to 4294967295");
    EXPECT_EQ(parse_error(R"({"serial_devices":[{"dev_id":1,"name":"a","model":"FX-3U","port":1,"parity":"mark"}]})"),
              "plant.json: serial_devices[0].parity: expected none, even or odd");
    EXPECT_EQ(parse_error("[1,2]"), "plant.json: expected an object with serial_devices, "
                                    "ethernet_devices and nodes");
}

TEST(CtlConfig, NamesAndNumbersOfModelsAndTypes)
{
    const char *names[] = {"FX-3U", "FX-1N", "FX-5U", "QnA_3E", "Q-serial", "S7-200",
                           "S7-200 Smart", "S7-1200", "S7-1500", "S7-300", "S7-400", "DVP-32EC"};
    for (const char *n : names) {
        auto m = ctl::find_model(n);
        ASSERT_TRUE(m) << n;
        EXPECT_STREQ(ctl::model_name(m->type), n);
    }
    EXPECT_EQ(ctl::find_model("s7-1200")->type, 3u);
    EXPECT_EQ(ctl::find_model("105")->mfg, 1u);
    EXPECT_FALSE(ctl::find_model("7"));
    EXPECT_EQ(*ctl::find_data_type("float"), 10u);
    EXPECT_EQ(*ctl::find_data_type("15"), 15u);
    EXPECT_FALSE(ctl::find_data_type("16"));

    ctl::Config cfg;
    std::string err;
    std::string text = read_file(DS_SOURCE_DIR "/examples/plant.json");
    ASSERT_TRUE(ctl::parse_config("plant.json", text, cfg, err)) << err;
    EXPECT_EQ(g_variant_n_children(cfg.serial) + g_variant_n_children(cfg.ethernet), 12u)
        << "the example has one device of every model";
}

class Ctl : public DaemonTest {};

TEST_F(Ctl, ApplyMonitorRestartMonitor)
{
    start_daemon();
    start_system_service(1);
    const std::string example = DS_SOURCE_DIR "/examples/plant.json";
    CtlRun r = run_ctl({"--address", bus_.address(), "apply", example});
    // The PLCs are not there: devices bind and nodes are kept, values are absent.
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("SerialDeviceSyncMulti: 0 done\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("nodeTableSyncMulti: 0 done\n"), std::string::npos) << r.out;

    auto devices_of = [](const std::string &json_lines) {
        std::vector<std::string> ids;
        for (size_t pos = json_lines.find("\"dev_id\":"); pos != std::string::npos;
             pos = json_lines.find("\"dev_id\":", pos + 1))
            ids.push_back(json_lines.substr(pos + 9, json_lines.find(',', pos) - pos - 9));
        return ids;
    };
    r = run_ctl({"--address", bus_.address(), "monitor", "--json", "--count", "2"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(count_of(r.out, "\n"), 2u);
    const auto before = devices_of(r.out.substr(0, r.out.find('\n')));
    EXPECT_EQ(before.size(), 12u) << r.out;

    restart_daemon();
    r = run_ctl({"--address", bus_.address(), "monitor", "--count", "1"});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("dev_id"), std::string::npos);
    r = run_ctl({"--address", bus_.address(), "monitor", "--json", "--count", "1"});
    EXPECT_EQ(devices_of(r.out), before);
}

TEST_F(Ctl, BadFileSendsNothingAndCallsReportFailures)
{
    start_daemon();
    write_file(dir_.file("bad.json"),
               R"({"serial_devices":[{"dev_id":1,"name":"a","model":"FX-3U","port":1}],
                   "nodes":[{"node_id":1,"dev_id":1,"name":"n","address":"D0","type":"U17"}]})");
    CtlRun r = run_ctl({"--address", bus_.address(), "apply", dir_.file("bad.json")});
    EXPECT_NE(r.status, 0);
    EXPECT_EQ(r.err, "device-service-ctl: " + dir_.file("bad.json") +
                         ": nodes[0].type: unknown data type 'U17'\n");
    EXPECT_EQ(daemon_->out().find("SyncMulti"), std::string::npos) << "nothing was sent";

    r = run_ctl({"--address", bus_.address(), "serial-add", "--id", "1", "--name", "fx", "--model",
                 "FX-3U", "--port", "1"});
    EXPECT_EQ(r.status, 0) << r.err;
    r = run_ctl({"--address", bus_.address(), "serial-add", "--id", "1", "--name", "fx", "--model",
                 "FX-3U", "--port", "1"});
    EXPECT_NE(r.status, 0);
    EXPECT_EQ(r.out, "SerialDeviceAdd: 1 a device with this dev_id already exists\n");
    r = run_ctl({"--address", bus_.address(), "ethernet-delete", "--id", "1"});
    EXPECT_NE(r.status, 0);
    EXPECT_NE(r.out.find("6 no such device or node"), std::string::npos);
    r = run_ctl({"--address", "unix:path=" + dir_.file("nobus"), "node-delete", "3"});
    EXPECT_NE(r.status, 0);
    EXPECT_NE(r.err.find("cannot reach the session bus"), std::string::npos);
}
