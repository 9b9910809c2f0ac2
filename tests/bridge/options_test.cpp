// The bridge's command line and key file, in process.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "options.h"
#include "support/test_util.h"

using bridge::Options;

namespace {

bool parse(std::vector<std::string> args, Options &out, std::string &error)
{
    static char program[] = "device-service-bridge";
    std::vector<char *> argv = {program};
    for (auto &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    return bridge::parse_options(static_cast<int>(argv.size()) - 1, argv.data(), out, error);
}

// Every field, one "key=value" each, in declaration order.
std::string shown(const Options &o)
{
    const char *ids = o.node.device_id == bridge::DeviceIdMode::Id ? "id" : "name";
    return "broker=" + o.broker_host + ":" + std::to_string(o.broker_port) + " client=" + o.client_id +
           " user=" + o.username + " password=" + o.password + " tls=" + o.tls_ca + "," + o.tls_cert + "," +
           o.tls_key + " mode=" + (o.mode == bridge::Mode::Json ? "json" : "sparkplug") + " group=" + o.node.group +
           " edge=" + o.node.edge_node + " ids=" + ids + " prefix=" + o.topic_prefix + " state=" + o.state_dir +
           " store=" + std::to_string(o.store_max_mb) + " host=" + o.primary_host + " bus=" + o.bus_address +
           " watch=" + (o.watch ? "yes" : "no");
}

} // namespace

TEST(BridgeOptions, DefaultsAndEveryValue)
{
    Options o;
    std::string error;
    ASSERT_TRUE(parse({}, o, error)) << error;
    const std::string host = o.node.edge_node;
    EXPECT_FALSE(host.empty()) << "the host name";
    EXPECT_EQ(shown(o), "broker=127.0.0.1:1883 client=device-service-bridge-" + host +
                            " user= password= tls=,, mode=sparkplug group=device-service edge=" + host +
                            " ids=name prefix=device-service state=" + bridge::default_state_dir() +
                            " store=64.000000 host= bus= watch=no");

    dstest::TempDir dir;
    dstest::write_file(dir.file("pw"), "s3cret\nignored\n");
    dstest::write_file(dir.file("ca"), "x");
    ASSERT_TRUE(parse({"--broker", "mqtt.local:8883", "--client-id=c1", "--username", "u", "--password-file",
                       dir.file("pw"), "--tls-ca", dir.file("ca"), "--tls-cert", dir.file("ca"), "--tls-key",
                       dir.file("ca"), "--mode", "json", "--group", "plant", "--edge-node", "gw7", "--device-id",
                       "id", "--topic-prefix", "site/a", "--state-dir", dir.path(), "--bus-address", "unix:path=/x"},
                      o, error))
        << error;
    const std::string ca = dir.file("ca");
    EXPECT_EQ(shown(o), "broker=mqtt.local:8883 client=c1 user=u password=s3cret tls=" + ca + "," + ca + "," + ca +
                            " mode=json group=plant edge=gw7 ids=id prefix=site/a state=" + dir.path() +
                            " store=64.000000 host= bus=unix:path=/x watch=no");
    ASSERT_TRUE(parse({"--store-max-mb", "0.5", "--primary-host", "scada-1", "--broker", "[::1]:1884"}, o, error))
        << error;
    EXPECT_EQ(o.store_max_mb, 0.5);
    EXPECT_EQ(o.primary_host, "scada-1");
    EXPECT_EQ(o.broker_host + " " + std::to_string(o.broker_port), "::1 1884");
    ASSERT_TRUE(parse({"--broker", "fe80::1"}, o, error)) << error;
    EXPECT_EQ(o.broker_host + " " + std::to_string(o.broker_port), "fe80::1 1883");

    // Watching must not take the bridge's own client id (the broker would
    // drop the bridge for it).
    ASSERT_TRUE(parse({"--watch", "--edge-node", "gw7"}, o, error)) << error;
    EXPECT_TRUE(o.watch);
    EXPECT_NE(o.client_id, "device-service-bridge-gw7");
}

TEST(BridgeOptions, MistakesAreOneLineEach)
{
    dstest::TempDir dir;
    dstest::write_file(dir.file("ca"), "x");
    const struct {
        std::vector<std::string> args;
        std::string error;
    } cases[] = {
        {{"--bogus"}, "--bogus"},
        {{"--mode", "xml"}, "--mode 'xml': expected sparkplug or json"},
        {{"--device-id", "tag"}, "--device-id 'tag': expected name or id"},
        {{"--broker", "host:0"}, "the port must be 1-65535"},
        {{"--broker", "host:99999"}, "the port must be 1-65535"},
        {{"--broker", ":1883"}, "expected HOST[:PORT]"},
        {{"--broker", "[::1"}, "expected HOST[:PORT]"},
        {{"--group", "a/b"}, "--group 'a/b' must not hold '+', '/' or '#'"},
        {{"--edge-node", "gw+1"}, "--edge-node 'gw+1' must not hold"},
        {{"--edge-node", "gw#"}, "must not hold"},
        {{"--group", ""}, "--group must not be empty"},
        {{"--topic-prefix", "a/#"}, "--topic-prefix 'a/#' must not hold '+' or '#'"},
        {{"--username", "u", "--password-file", dir.file("missing")}, "--password-file: cannot read"},
        {{"--password-file", dir.file("ca")}, "--password-file needs --username"},
        {{"--tls-ca", dir.file("missing")}, "--tls-ca: cannot read"},
        {{"--tls-ca", dir.file("ca"), "--tls-cert", dir.file("ca")}, "--tls-cert and --tls-key go together"},
        {{"--tls-cert", dir.file("ca"), "--tls-key", dir.file("ca")}, "--tls-cert needs --tls-ca"},
        {{"--config", dir.file("missing.conf")}, "--config " + dir.file("missing.conf")},
        {{"--store-max-mb", "-1"}, "--store-max-mb '-1': expected a number of MiB (0 for no store)"},
        {{"--store-max-mb", "64M"}, "expected a number of MiB"},
        {{"--primary-host", "scada/1"}, "--primary-host 'scada/1' must not hold"},
        {{"--primary-host", "scada", "--mode", "json"}, "--primary-host is for Sparkplug mode"},
        {{"stray"}, "unexpected 'stray'"},
    };
    for (const auto &c : cases) {
        Options o;
        std::string error;
        EXPECT_FALSE(parse(c.args, o, error)) << c.args[0];
        EXPECT_NE(error.find(c.error), std::string::npos) << c.args[0] << ": " << error;
        EXPECT_EQ(error.find('\n'), std::string::npos) << error;
    }
}

TEST(BridgeOptions, KeyFileHoldsTheSameKeysAndTheCommandLineWins)
{
    dstest::TempDir dir;
    const std::string conf = dir.file("bridge.conf");
    dstest::write_file(conf, "# the plant's broker\n[bridge]\nbroker=10.0.0.5:1884\nmode=json\n"
                             "group=plant\nedge-node=gw1\ntopic-prefix=plant/gw1\n");
    Options o;
    std::string error;
    ASSERT_TRUE(parse({"--config", conf, "--edge-node", "gw2"}, o, error)) << error;
    EXPECT_EQ(o.broker_host, "10.0.0.5");
    EXPECT_EQ(o.broker_port, 1884);
    EXPECT_EQ(o.mode, bridge::Mode::Json);
    EXPECT_EQ(o.node.group, "plant");
    EXPECT_EQ(o.node.edge_node, "gw2");
    EXPECT_EQ(o.topic_prefix, "plant/gw1");

    // A key file's values are checked like the command line's.
    for (const auto &[text, reason] : std::vector<std::pair<std::string, std::string>>{
             {"[bridge]\ngroup=a+b\n", "--group 'a+b'"},
             {"[bridge]\nbrokr=host\n", "unknown key 'brokr' in [bridge]"},
             {"[other]\nbroker=host\n", "no [bridge] group"},
             {"broker=host\n", "--config " + conf + ": "},
         }) {
        dstest::write_file(conf, text);
        EXPECT_FALSE(parse({"--config", conf}, o, error));
        EXPECT_NE(error.find(reason), std::string::npos) << error;
    }
}
