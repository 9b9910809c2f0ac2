// device-service-bridge as a child process between the daemon on a private
// bus (the tests' driver and a simulated FX-5U on loopback) and a real
// mosquitto, seen by a subscriber of the test.
#include <gtest/gtest.h>

#include <csignal>
#include <unistd.h>
#include <string>
#include <vector>

#include "bridge_core/readings.h"
#include "mqtt_peers.h"
#include "sim/modbus_tcp_sim.h"
#include "support/config_calls.h"
#include "support/daemon_fixture.h"
#include "support/test_driver.h"

using namespace dstest;
using namespace bridgetest;
using bctest::command;
using bridge::sp::MsgType;

namespace {

constexpr uint32_t FX5U = 11;

uint64_t bd_seq(const SpMessage &m)
{
    return static_cast<uint64_t>(integer(m.payload, "bdSeq").value_or(999));
}

// A metric's part of a message as a person watching the broker reads it.
std::string shown(const bridge::sp::Payload &p)
{
    const std::string line = bridge::sp::describe("spBv1.0/g/DDATA/e/d", bridge::sp::encode(p));
    return line.substr(line.find(": ") + 2);
}

class BridgeE2E : public DaemonTest {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(broker_.start());
        traffic_.watch(broker_.port());
        start_daemon(true);
        start_system_service(1);
    }

    void configure(const char *method, GVariant *args) { ASSERT_EQ(code(method, args), 0) << method; }
    void add_device(uint32_t id, const std::string &name)
    {
        configure("EthernetDeviceAdd", ethernet_args(id, TEST_DRIVER_MFG, TEST_DRIVER_TYPE, name));
    }
    void start_bridge(const std::vector<std::string> &extra = {})
    {
        bridge_ = std::make_unique<Child>(bridge_args(broker_, bus_.address(), dir_.file("state"), extra),
                                          dir_.path(), "bridge" + std::to_string(bridges_++));
    }
    int wait_for(MsgType type, const std::string &device, size_t from = 0,
                 const std::function<bool(const bridge::sp::Payload &)> &pred = nullptr)
    {
        return traffic_.wait_for(type, device, from, pred, bridge_.get());
    }
    SpMessage at(int i) const { return traffic_.decoded().at(static_cast<size_t>(i)); }

    Broker broker_;
    Traffic traffic_;
    std::unique_ptr<Child> bridge_;
    int bridges_ = 0;
};

} // namespace

TEST_F(BridgeE2E, SparkplugSessionThroughDevicesCommandsAndRestarts)
{
    sim::ModbusTcpSim fx5u;
    ASSERT_TRUE(fx5u.start());
    fx5u.set_register(100, 42);
    const uint16_t fx_port = fx5u.port();
    configure("EthernetDeviceAdd", ethernet_args(FX5U, 1, 103, "fx", "127.0.0.1", fx_port));
    add_device(1, "press");
    add_device(2, "oven");
    // Node types with the driver's text as it would print it: what each
    // text stands for is the values' own test; here the type travels.
    configure("nodeTableAddMulti",
              node_array({{1, 101, "val:1", 1, "bit", "press"},     {1, 103, "val:200", 3, "s8", "press"},
                          {1, 106, "val:-1", 6, "u32", "press"},    {1, 110, "val:1.5", 10, "float", "press"},
                          {1, 111, "val:0x1f", 11, "hex16", "press"}, {1, 115, "val:A7", 15, "text", "press"},
                          {1, 117, "val:abc", 4, "garbled", "press"}, {2, 201, "val:3", 4, "trays", "oven"},
                          {2, 202, "count", 6, "counter", "oven"},  {FX5U, 1101, "D100", 4, "strokes", "fx"}}));
    const auto started_ms = static_cast<uint64_t>(g_get_real_time() / 1000);
    start_bridge();

    const int nbirth = wait_for(MsgType::NBIRTH, "");
    ASSERT_EQ(nbirth, 0) << "nothing before the NBIRTH";
    const int press = wait_for(MsgType::DBIRTH, "press");
    ASSERT_GE(press, 0);
    ASSERT_GE(wait_for(MsgType::DBIRTH, "oven"), 0);
    ASSERT_GE(wait_for(MsgType::DBIRTH, "fx"), 0);
    EXPECT_EQ(shown(at(nbirth).payload),
              "bdSeq=0 (Int64), Node Control/Rebirth=false (Boolean), Store/Dropped Values=0 (UInt64)");

    // A text that does not read for its type is null, and counted.
    const auto birth = at(press).payload;
    EXPECT_EQ(shown(birth),
              "bit=true (Boolean) @val:1, s8=-56 (Int8) @val:200, u32=4294967295 (UInt32) @val:-1, "
              "float=1.5 (Float) @val:1.5, hex16=31 (UInt16) @val:0x1f, text=\"A7\" (String) @val:A7, "
              "garbled=null (UInt16) @val:abc");
    EXPECT_TRUE(bridge_->wait_err("values that did not read for their type so far: 1 (published as null)"))
        << bridge_->err();
    // Values are stamped with the cycle's arrival, births with their sending.
    for (const auto &m : birth.metrics) {
        EXPECT_GE(m.timestamp, started_ms) << m.name;
        EXPECT_LE(m.timestamp, birth.timestamp) << m.name;
    }

    // By exception: later cycles carry the counter alone.
    const int ddata = wait_for(MsgType::DDATA, "oven", static_cast<size_t>(press));
    ASSERT_GE(ddata, 0);
    EXPECT_EQ(shown(at(ddata).payload).substr(0, 8), "counter=");
    for (const auto &m : traffic_.decoded())
        EXPECT_FALSE(m.topic.type == MsgType::DDATA && m.topic.device == "press") << "no value of it changes";

    // The PLC stops answering: its device dies. Back, it is born again with
    // the value it holds now; deleted, it dies.
    size_t mark = traffic_.count();
    fx5u.stop();
    ASSERT_GE(wait_for(MsgType::DDEATH, "fx", mark), 0);
    mark = traffic_.count();
    fx5u.set_register(100, 43);
    ASSERT_TRUE(fx5u.start(fx_port));
    const int reborn = wait_for(MsgType::DBIRTH, "fx", mark);
    ASSERT_GE(reborn, 0);
    EXPECT_EQ(integer(at(reborn).payload, "strokes"), 43);
    mark = traffic_.count();
    configure("EthernetDeviceDel", g_variant_new("(uuuus)", FX5U, 1u, 0u, 0u, ""));
    ASSERT_GE(wait_for(MsgType::DDEATH, "fx", mark), 0);

    // A rebirth request: NBIRTH (seq 0, the same bdSeq) and the DBIRTH again.
    mark = traffic_.count();
    ASSERT_TRUE(
        traffic_.publish("spBv1.0/plant/NCMD/gw1", command({{"Node Control/Rebirth", bridge::sp::Boolean, true}})));
    const int rebirth = wait_for(MsgType::NBIRTH, "", mark);
    ASSERT_GE(rebirth, 0);
    EXPECT_EQ(bd_seq(at(rebirth)), 0u);
    ASSERT_GE(wait_for(MsgType::DBIRTH, "press", static_cast<size_t>(rebirth)), 0);

    // Writes are refused, with a line that says so.
    ASSERT_TRUE(traffic_.publish("spBv1.0/plant/DCMD/gw1/oven", command({{"counter", bridge::sp::UInt32, 0u}})));
    EXPECT_TRUE(bridge_->wait_err("DCMD for oven (counter) refused: the gateway only reads")) << bridge_->err();

    // The daemon goes: its devices die. It comes back: they are born again.
    mark = traffic_.count();
    stop_daemon();
    ASSERT_GE(wait_for(MsgType::DDEATH, "press", mark), 0);
    start_daemon(true);
    ASSERT_GE(wait_for(MsgType::DBIRTH, "press", mark), 0);

    // Killed: the broker sends the Will, the NDEATH of this session.
    bridge_->signal(SIGKILL);
    const int will = wait_for(MsgType::NDEATH, "", mark);
    ASSERT_GE(will, 0);
    EXPECT_EQ(bd_seq(at(will)), 0u);

    // Restarted: the next bdSeq, from the state directory.
    mark = traffic_.count();
    start_bridge();
    const int restarted = wait_for(MsgType::NBIRTH, "", mark);
    ASSERT_GE(restarted, 0);
    EXPECT_EQ(bd_seq(at(restarted)), 1u);
    ASSERT_GE(wait_for(MsgType::DBIRTH, "oven", mark), 0);

    // A planned stop says goodbye itself, then leaves cleanly.
    bridge_->signal(SIGTERM);
    const int goodbye = wait_for(MsgType::NDEATH, "", mark);
    ASSERT_GE(goodbye, 0);
    EXPECT_EQ(bd_seq(at(goodbye)), 1u);
    EXPECT_EQ(bridge_->wait_exit(), 0) << bridge_->err();
    traffic_.expect_seq_continuity();

}

// Mistakes in the command line, credentials the broker refuses or takes,
// and a bus that goes away.
TEST(BridgeProgram, RefusalsBadInputAndBusGone)
{
    TempDir dir;
    auto bus = std::make_unique<PrivateBus>();
    Broker broker(Broker::Password);
    ASSERT_TRUE(broker.start());
    write_file(dir.file("plain"), "");
    write_file(dir.file("good"), "s3cret\n");
    write_file(dir.file("bad"), "secret\n");
    const std::vector<std::string> good = {"--username", "bridge", "--password-file", dir.file("good")};
    const struct {
        std::vector<std::string> args;
        int status;
        std::string line;
    } cases[] = {
        {{"--mode", "xml"}, 1, "--mode 'xml': expected sparkplug or json"},
        {{"--broker", broker.address()}, 2, "broker refused: not authorised"},
        {{"--broker", broker.address(), "--username", "bridge", "--password-file", dir.file("bad")}, 2,
         "broker refused: not authorised"},
        {{"--state-dir", dir.file("plain/state")}, 4, "cannot make the state directory"},
        {{"--bus-address", "unix:path=" + dir.file("nobus")}, 3, "cannot reach the bus"},
    };
    int n = 0;
    for (const auto &c : cases) {
        std::vector<std::string> args = {DS_BRIDGE_BINARY, "--bus-address", bus->address(),
                                         "--broker", "127.0.0.1:1", "--state-dir", dir.file("state")};
        args.insert(args.end(), c.args.begin(), c.args.end());
        Child bridge(args, dir.path(), "bad" + std::to_string(n++));
        EXPECT_EQ(bridge.wait_exit(), c.status) << c.line << "\n" << bridge.err();
        // GLib's own progress lines aside, the reason is one line of ours.
        const std::string err = bridge.err();
        EXPECT_EQ(count_of(err, "device-service-bridge: "), 1u) << err;
        EXPECT_NE(err.find("device-service-bridge: " + c.line), std::string::npos) << err;
    }
    std::vector<std::string> watch = {DS_BRIDGE_BINARY, "--watch", "--group", "plant", "--broker", broker.address()};
    watch.insert(watch.end(), good.begin(), good.end());
    Child watcher(watch, dir.path(), "watch");
    ASSERT_TRUE(watcher.wait_err("connected to " + broker.address() + " as ")) << watcher.err();
    Child bridge(bridge_args(broker, bus->address(), dir.file("state"), good), dir.path(), "bridge");
    ASSERT_TRUE(watcher.wait_out("NBIRTH plant/gw1 seq=0")) << bridge.err();

    // The bus gone, the session ends with its death and the bridge leaves.
    bus.reset();
    EXPECT_EQ(bridge.wait_exit(), 3) << bridge.err();
    EXPECT_NE(bridge.err().find("the bus connection closed"), std::string::npos) << bridge.err();
    EXPECT_TRUE(watcher.wait_out("NDEATH plant/gw1 no seq: bdSeq=0")) << watcher.out();
}

TEST(BridgeProgram, TlsWithClientCertificates)
{
    if (access("/usr/bin/openssl", X_OK) != 0)
        GTEST_SKIP() << "openssl (Debian: openssl) makes the certificates";
    TempDir dir;
    PrivateBus bus;
    Broker broker(Broker::Tls);
    ASSERT_TRUE(broker.start());
    const std::vector<std::string> tls = {"--tls-ca", broker.file("cert.pem"), "--tls-cert", broker.file("cert.pem"),
                                          "--tls-key", broker.file("key.pem")};
    std::vector<std::string> args = {DS_BRIDGE_BINARY, "--watch", "--broker", broker.address(), "--group", "plant"};
    args.insert(args.end(), tls.begin(), tls.end());
    Child watcher(args, dir.path(), "watch");
    ASSERT_TRUE(watcher.wait_err("connected to")) << watcher.err();
    Child bridge(bridge_args(broker, bus.address(), dir.file("state"), tls), dir.path(), "bridge");
    EXPECT_TRUE(watcher.wait_out("NBIRTH plant/gw1 seq=0: bdSeq=0")) << watcher.out() << bridge.err();

    // Without TLS the same broker is not reached, and the bridge says so.
    Child plain(bridge_args(broker, bus.address(), dir.file("plain")), dir.path(), "plain");
    EXPECT_TRUE(plain.wait_err("cannot reach the broker at " + broker.address())) << plain.err();

    // A TLS session whose broker went away is retried like any other.
    broker.stop();
    EXPECT_TRUE(bridge.wait_err("lost the broker at " + broker.address())) << bridge.err();
    EXPECT_TRUE(bridge.wait_err("cannot reach the broker at " + broker.address(), 5s)) << bridge.err();
    EXPECT_TRUE(bridge.running());
}
