// device-service-bridge as a child process between the daemon on a private
// bus (the tests' driver and a simulated FX-5U on loopback) and a real
// mosquitto, seen by a subscriber of the test.
#include <gtest/gtest.h>
#include <json-glib/json-glib.h>

#include <csignal>
#include <cstdlib>
#include <unistd.h>
#include <optional>
#include <string>
#include <vector>

#include "mqtt_peers.h"
#include "sim/modbus_tcp_sim.h"
#include "sparkplug.h"
#include "support/config_calls.h"
#include "support/daemon_fixture.h"
#include "support/test_driver.h"
#include "values.h"

using namespace dstest;
using namespace bridgetest;
using bridge::sp::MsgType;

namespace {

constexpr char GROUP[] = "plant";
constexpr char EDGE[] = "gw1";
constexpr uint32_t FX5U = 11;

struct SpMessage {
    bridge::sp::Topic topic;
    bridge::sp::Payload payload;
};

// DS_TEST_BRIDGE_BINARY runs the same tests against another build of the
// bridge (a sanitizer build).
std::string bridge_binary()
{
    const char *other = getenv("DS_TEST_BRIDGE_BINARY");
    return other != nullptr && *other != '\0' ? other : DS_BRIDGE_BINARY;
}

const bridge::sp::Metric *metric(const bridge::sp::Payload &p, const std::string &name)
{
    for (const auto &m : p.metrics)
        if (m.name == name)
            return &m;
    return nullptr;
}

uint64_t bd_seq(const bridge::sp::Payload &p)
{
    const auto *m = metric(p, "bdSeq");
    return m != nullptr && std::holds_alternative<uint64_t>(m->value) ? std::get<uint64_t>(m->value) : 999;
}

// The number an integer metric stands for, whichever field it came in.
std::optional<int64_t> integer(const bridge::sp::Metric &m)
{
    if (const auto *v = std::get_if<uint32_t>(&m.value))
        return bridge::integer_of(m.datatype, *v);
    if (const auto *v = std::get_if<uint64_t>(&m.value))
        return bridge::integer_of(m.datatype, *v);
    return std::nullopt;
}

bridge::sp::Metric command_metric(const std::string &name, uint32_t datatype, bridge::sp::Value v)
{
    bridge::sp::Metric m;
    m.name = name;
    m.datatype = datatype;
    m.timestamp = 1;
    m.value = std::move(v);
    return m;
}

class BridgeE2E : public DaemonTest {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(broker_.start());
        watch_topics();
        start_daemon(true);
        start_system_service(1);
    }

    void watch_topics(const std::string &filter = "spBv1.0/#")
    {
        sub_ = std::make_unique<Subscriber>(broker_.port(), filter);
        ASSERT_TRUE(sub_->ready());
    }

    void configure(const char *method, GVariant *args)
    {
        const CallResult r = call(method, args);
        ASSERT_TRUE(r.ok) << r.error << ": " << r.message;
        ASSERT_EQ(r.response, 0) << method;
    }
    void add_device(uint32_t id, const std::string &name)
    {
        configure("EthernetDeviceAdd", ethernet_args(id, TEST_DRIVER_MFG, TEST_DRIVER_TYPE, name));
    }

    Child &start_bridge(std::vector<std::string> extra = {})
    {
        std::vector<std::string> args = {bridge_binary(), "--broker", broker_.address(),
                                         "--bus-address", bus_.address(), "--state-dir",
                                         dir_.file("state"), "--group", GROUP, "--edge-node", EDGE};
        args.insert(args.end(), extra.begin(), extra.end());
        bridge_ = std::make_unique<Child>(args, dir_.path(), "bridge" + std::to_string(bridges_++));
        return *bridge_;
    }

    std::vector<SpMessage> received() const
    {
        std::vector<SpMessage> out;
        for (const auto &r : sub_->messages()) {
            SpMessage m;
            EXPECT_TRUE(bridge::sp::parse_topic(r.topic, m.topic)) << r.topic;
            EXPECT_TRUE(bridge::sp::decode(r.payload, m.payload)) << r.topic;
            out.push_back(std::move(m));
        }
        return out;
    }

    // Waits for a message of `type` (for `device`) at index `from` or later
    // that satisfies `pred`; its index, or -1.
    int wait_for(MsgType type, const std::string &device, size_t from = 0,
                 const std::function<bool(const bridge::sp::Payload &)> &pred = nullptr,
                 std::chrono::milliseconds timeout = 15s)
    {
        int found = -1;
        wait_until(
            [&] {
                const auto all = received();
                for (size_t i = from; i < all.size(); ++i) {
                    if (all[i].topic.type == type && all[i].topic.device == device &&
                        (!pred || pred(all[i].payload))) {
                        found = static_cast<int>(i);
                        return true;
                    }
                }
                return false;
            },
            timeout);
        if (found < 0)
            ADD_FAILURE() << "no " << bridge::sp::msg_type_name(type) << " " << device << " from #" << from
                          << "; bridge said:\n"
                          << (bridge_ ? bridge_->err() : "");
        return found;
    }

    // seq of every edge message from `from` on: +1 each, 255 -> 0, NBIRTH 0.
    void expect_seq_continuity(size_t from) const
    {
        std::optional<uint64_t> last;
        const auto all = received();
        for (size_t i = from; i < all.size(); ++i) {
            const auto &m = all[i];
            if (m.topic.type == MsgType::NDEATH || m.topic.type == MsgType::NCMD ||
                m.topic.type == MsgType::DCMD)
                continue;
            ASSERT_TRUE(m.payload.seq) << i;
            if (m.topic.type == MsgType::NBIRTH) {
                EXPECT_EQ(*m.payload.seq, 0u) << i;
            } else if (last) {
                EXPECT_EQ(*m.payload.seq, (*last + 1) % 256) << "message #" << i;
            }
            last = m.payload.seq;
        }
    }

    Broker broker_;
    std::unique_ptr<Subscriber> sub_;
    std::unique_ptr<Child> bridge_;
    int bridges_ = 0;
};

} // namespace

TEST_F(BridgeE2E, SessionBirthsDatatypesWillAndRestart)
{
    add_device(1, "press");
    add_device(2, "oven");
    // Every node type, with the driver's text as it would print it.
    configure("nodeTableAddMulti",
              node_array({{1, 101, "val:1", 1, "bit", "press"},      {1, 102, "val:200", 2, "u8", "press"},
                          {1, 103, "val:200", 3, "s8", "press"},     {1, 104, "val:65535", 4, "u16", "press"},
                          {1, 105, "val:-87", 5, "s16", "press"},    {1, 106, "val:-1", 6, "u32", "press"},
                          {1, 107, "val:-5", 7, "s32", "press"},     {1, 108, "val:1234", 8, "bcd16", "press"},
                          {1, 109, "val:12345678", 9, "bcd32", "press"}, {1, 110, "val:1.5", 10, "float", "press"},
                          {1, 111, "val:0x1f", 11, "hex16", "press"}, {1, 112, "val:0xdeadbeef", 12, "hex32", "press"},
                          {1, 113, "val:5", 13, "bin16", "press"},   {1, 114, "val:7", 14, "bin32", "press"},
                          {1, 115, "val:A7", 15, "text", "press"},   {1, 116, "count", 6, "counter", "press"},
                          {1, 117, "val:abc", 4, "garbled", "press"}, {2, 201, "val:3", 4, "trays", "oven"}}));
    Child watcher({bridge_binary(), "--watch", "--broker", broker_.address(), "--group", GROUP},
                  dir_.path(), "watch");
    const auto started_ms = static_cast<uint64_t>(g_get_real_time() / 1000);
    start_bridge();

    const int nbirth = wait_for(MsgType::NBIRTH, "");
    ASSERT_GE(nbirth, 0);
    const int press = wait_for(MsgType::DBIRTH, "press", static_cast<size_t>(nbirth));
    const int oven = wait_for(MsgType::DBIRTH, "oven", static_cast<size_t>(nbirth));
    ASSERT_GE(press, 0);
    ASSERT_GE(oven, 0);
    auto all = received();
    EXPECT_EQ(nbirth, 0) << "nothing before the NBIRTH";
    EXPECT_EQ(bd_seq(all[0].payload), 0u);
    const auto *rebirth = metric(all[0].payload, "Node Control/Rebirth");
    ASSERT_NE(rebirth, nullptr);
    EXPECT_EQ(rebirth->value, bridge::sp::Value(false));

    // Each node type travels as its datatype, with the number it stands for.
    const auto &birth = all[static_cast<size_t>(press)].payload;
    const struct {
        const char *name;
        uint32_t datatype;
        int64_t value;
    } integers[] = {{"u8", bridge::sp::UInt8, 200},       {"s8", bridge::sp::Int8, -56},
                    {"u16", bridge::sp::UInt16, 65535},   {"s16", bridge::sp::Int16, -87},
                    {"u32", bridge::sp::UInt32, 4294967295}, {"s32", bridge::sp::Int32, -5},
                    {"bcd16", bridge::sp::UInt16, 1234},  {"bcd32", bridge::sp::UInt32, 12345678},
                    {"hex16", bridge::sp::UInt16, 31},    {"hex32", bridge::sp::UInt32, 0xdeadbeef},
                    {"bin16", bridge::sp::UInt16, 5},     {"bin32", bridge::sp::UInt32, 7}};
    for (const auto &c : integers) {
        const auto *m = metric(birth, c.name);
        ASSERT_NE(m, nullptr) << c.name;
        EXPECT_EQ(m->datatype, c.datatype) << c.name;
        EXPECT_EQ(integer(*m), c.value) << c.name;
    }
    ASSERT_NE(metric(birth, "bit"), nullptr);
    EXPECT_EQ(metric(birth, "bit")->datatype, bridge::sp::Boolean);
    EXPECT_EQ(metric(birth, "bit")->value, bridge::sp::Value(true));
    EXPECT_EQ(metric(birth, "bit")->address, "val:1") << "the node's address is a property";
    ASSERT_NE(metric(birth, "float"), nullptr);
    EXPECT_EQ(metric(birth, "float")->value, bridge::sp::Value(1.5f));
    ASSERT_NE(metric(birth, "text"), nullptr);
    EXPECT_EQ(metric(birth, "text")->value, bridge::sp::Value(std::string("A7")));
    // A text that does not read for its type is null, and counted.
    ASSERT_NE(metric(birth, "garbled"), nullptr);
    EXPECT_TRUE(std::holds_alternative<std::monostate>(metric(birth, "garbled")->value));
    EXPECT_EQ(metric(birth, "garbled")->datatype, bridge::sp::UInt16);
    EXPECT_TRUE(bridge_->wait_err("values that did not read for their type so far: 1 (published as null)"))
        << bridge_->err();

    // Values are stamped with the cycle's arrival, births with their sending.
    for (const auto &m : birth.metrics) {
        EXPECT_GE(m.timestamp, started_ms) << m.name;
        EXPECT_LE(m.timestamp, birth.timestamp) << m.name;
    }

    // By exception: later cycles carry the counter alone.
    const int ddata = wait_for(MsgType::DDATA, "press", static_cast<size_t>(press));
    ASSERT_GE(ddata, 0);
    all = received();
    ASSERT_EQ(all[static_cast<size_t>(ddata)].payload.metrics.size(), 1u);
    EXPECT_EQ(all[static_cast<size_t>(ddata)].payload.metrics[0].name, "counter");
    EXPECT_EQ(all[static_cast<size_t>(ddata)].payload.metrics[0].datatype, 0u) << "no datatype in data";
    for (size_t i = 0; i < all.size(); ++i)
        EXPECT_FALSE(all[i].topic.type == MsgType::DDATA && all[i].topic.device == "oven")
            << "the oven's value never changes";
    expect_seq_continuity(0);

    // Killed: the broker sends the Will, the NDEATH of this session.
    bridge_->signal(SIGKILL);
    const int will = wait_for(MsgType::NDEATH, "");
    ASSERT_GE(will, 0);
    EXPECT_EQ(bd_seq(received()[static_cast<size_t>(will)].payload), 0u);

    // Restarted: the next bdSeq, from the state directory.
    const size_t mark = sub_->count();
    start_bridge();
    const int nbirth2 = wait_for(MsgType::NBIRTH, "", mark);
    ASSERT_GE(nbirth2, 0);
    EXPECT_EQ(bd_seq(received()[static_cast<size_t>(nbirth2)].payload), 1u);
    ASSERT_GE(wait_for(MsgType::DBIRTH, "press", mark), 0);
    expect_seq_continuity(mark);

    // A planned stop says goodbye itself, then leaves cleanly.
    bridge_->signal(SIGTERM);
    const int goodbye = wait_for(MsgType::NDEATH, "", mark);
    ASSERT_GE(goodbye, 0);
    EXPECT_EQ(bd_seq(received()[static_cast<size_t>(goodbye)].payload), 1u);
    EXPECT_EQ(bridge_->wait_exit(), 0) << bridge_->err();

    // The watcher printed what it saw, decoded.
    EXPECT_TRUE(wait_until([&] { return watcher.out().find("NDEATH plant/gw1 no seq: bdSeq=1") != std::string::npos; }, 5s))
        << watcher.out() << watcher.err();
    EXPECT_NE(watcher.out().find("NBIRTH plant/gw1 seq=0:"), std::string::npos);
    EXPECT_NE(watcher.out().find("DBIRTH plant/gw1/oven seq="), std::string::npos);
    EXPECT_NE(watcher.out().find("trays=3 (UInt16) @val:3"), std::string::npos) << watcher.out();
}

TEST_F(BridgeE2E, NodesAndDevicesComeAndGo)
{
    sim::ModbusTcpSim fx5u;
    ASSERT_TRUE(fx5u.start());
    fx5u.set_register(100, 42);
    const uint16_t fx_port = fx5u.port();
    configure("EthernetDeviceAdd", ethernet_args(FX5U, 1, 103, "fx", "127.0.0.1", fx_port));
    add_device(1, "press");
    configure("nodeTableAddMulti", node_array({{FX5U, 1101, "D100", 4, "strokes", "fx"},
                                               {1, 11, "val:5", 4, "a", "press"},
                                               {1, 12, "count", 6, "counter", "press"}}));
    start_bridge();
    ASSERT_GE(wait_for(MsgType::DBIRTH, "fx"), 0);
    ASSERT_GE(wait_for(MsgType::DBIRTH, "press"), 0);

    // The PLC stops answering: its device dies once. A node no longer read
    // on a device that was read is null once.
    size_t mark = sub_->count();
    fx5u.stop();
    configure("nodeTableDelMulti", node_id_array({11}));
    const auto a_is_null = [](const bridge::sp::Payload &p) {
        const auto *m = metric(p, "a");
        return m != nullptr && std::holds_alternative<std::monostate>(m->value);
    };
    ASSERT_GE(wait_for(MsgType::DDEATH, "fx", mark), 0);
    const int null_at = wait_for(MsgType::DDATA, "press", mark, a_is_null);
    ASSERT_GE(null_at, 0);

    // Both come back: the device is born again, the value returns in data.
    const size_t null_mark = static_cast<size_t>(null_at) + 1;
    mark = sub_->count();
    fx5u.set_register(100, 43);
    ASSERT_TRUE(fx5u.start(fx_port));
    configure("nodeTableAddMulti", node_array({{1, 11, "val:5", 4, "a", "press"}}));
    const int reborn = wait_for(MsgType::DBIRTH, "fx", mark);
    ASSERT_GE(reborn, 0);
    const auto after_rebirth = received(); // the metric below points into it
    const auto *strokes = metric(after_rebirth[static_cast<size_t>(reborn)].payload, "strokes");
    ASSERT_NE(strokes, nullptr);
    EXPECT_EQ(integer(*strokes), 43);
    const int back = wait_for(MsgType::DDATA, "press", mark, [](const bridge::sp::Payload &p) {
        const auto *m = metric(p, "a");
        return m != nullptr && m->value == bridge::sp::Value(uint32_t{5});
    });
    ASSERT_GE(back, 0);
    auto all = received();
    for (size_t i = null_mark; i < all.size(); ++i)
        EXPECT_FALSE(all[i].topic.device == "press" && a_is_null(all[i].payload)) << "null once, #" << i;

    // A new node: the device is born again with it. A deleted device dies.
    mark = sub_->count();
    configure("nodeTableAddMulti", node_array({{1, 13, "val:9", 15, "b", "press"}}));
    configure("EthernetDeviceDel", g_variant_new("(uuuus)", FX5U, 1u, 0u, 0u, ""));
    const int with_b = wait_for(MsgType::DBIRTH, "press", mark,
                                [](const bridge::sp::Payload &p) { return metric(p, "b") != nullptr; });
    ASSERT_GE(with_b, 0);
    EXPECT_NE(metric(received()[static_cast<size_t>(with_b)].payload, "a"), nullptr);
    ASSERT_GE(wait_for(MsgType::DDEATH, "fx", mark), 0);
    expect_seq_continuity(0);
}

TEST_F(BridgeE2E, CommandsDaemonAndBrokerRestarts)
{
    add_device(1, "press");
    configure("nodeTableAddMulti", node_array({{1, 11, "count", 6, "counter", "press"}}));
    start_bridge();
    ASSERT_GE(wait_for(MsgType::DBIRTH, "press"), 0);

    // A rebirth request: NBIRTH (seq 0, the same bdSeq) and the DBIRTH again.
    bridge::sp::Payload cmd;
    cmd.timestamp = 1;
    cmd.metrics.push_back(command_metric("Node Control/Rebirth", bridge::sp::Boolean, true));
    size_t mark = sub_->count();
    ASSERT_TRUE(sub_->publish("spBv1.0/plant/NCMD/gw1", bridge::sp::encode(cmd)));
    const int nbirth = wait_for(MsgType::NBIRTH, "", mark);
    ASSERT_GE(nbirth, 0);
    EXPECT_EQ(bd_seq(received()[static_cast<size_t>(nbirth)].payload), 0u);
    ASSERT_GE(wait_for(MsgType::DBIRTH, "press", static_cast<size_t>(nbirth)), 0);
    expect_seq_continuity(0);

    // Writes are refused, with a line that says so.
    bridge::sp::Payload write;
    write.metrics.push_back(command_metric("counter", bridge::sp::UInt32, uint32_t{0}));
    ASSERT_TRUE(sub_->publish("spBv1.0/plant/DCMD/gw1/press", bridge::sp::encode(write)));
    EXPECT_TRUE(bridge_->wait_err("DCMD for press (counter) refused: the gateway only reads"))
        << bridge_->err();

    // The daemon goes: its devices die. It comes back: they are born again.
    mark = sub_->count();
    stop_daemon();
    ASSERT_GE(wait_for(MsgType::DDEATH, "press", mark), 0);
    start_daemon(true);
    ASSERT_GE(wait_for(MsgType::DBIRTH, "press", mark), 0);

    // The broker goes: a new session once it is back, with the next bdSeq.
    broker_.stop();
    ASSERT_TRUE(bridge_->wait_err("lost the broker")) << bridge_->err();
    ASSERT_TRUE(broker_.start());
    watch_topics(); // before the bridge's first retry, a second after the loss
    const int again = wait_for(MsgType::NBIRTH, "");
    ASSERT_GE(again, 0);
    EXPECT_EQ(bd_seq(received()[static_cast<size_t>(again)].payload), 1u);
    ASSERT_GE(wait_for(MsgType::DBIRTH, "press", static_cast<size_t>(again)), 0);
    expect_seq_continuity(0);
    EXPECT_TRUE(bridge_->running());
}

TEST_F(BridgeE2E, JsonMessagesAndStatus)
{
    add_device(1, "press");
    configure("nodeTableAddMulti", node_array({{1, 11, "val:1", 1, "running", "press"},
                                               {1, 12, "val:-87", 5, "temp", "press"},
                                               {1, 13, "val:1.5", 10, "speed", "press"},
                                               {1, 14, "val:A7", 15, "recipe", "press"}}));
    watch_topics("site/gw1/#");
    start_bridge({"--mode", "json", "--topic-prefix", "site/gw1"});
    ASSERT_TRUE(sub_->wait([](const std::vector<Received> &all) {
        bool online = false, press = false;
        for (const auto &r : all) {
            online |= r.topic == "site/gw1/status" && r.payload == "online";
            press |= r.topic == "site/gw1/press";
        }
        return online && press;
    })) << bridge_->err();
    std::string body;
    for (const auto &r : sub_->messages())
        if (r.topic == "site/gw1/press")
            body = r.payload;

    std::unique_ptr<JsonParser, decltype(&g_object_unref)> parser(json_parser_new(), &g_object_unref);
    ASSERT_TRUE(json_parser_load_from_data(parser.get(), body.c_str(), -1, nullptr)) << body;
    JsonObject *o = json_node_get_object(json_parser_get_root(parser.get()));
    EXPECT_GT(json_object_get_int_member(o, "timestamp"), 1600000000000) << body;
    EXPECT_EQ(json_object_get_int_member(o, "dev_id"), 1);
    EXPECT_STREQ(json_object_get_string_member(o, "dev_name"), "press");
    EXPECT_EQ(json_object_get_int_member(o, "dev_mfg"), TEST_DRIVER_MFG);
    EXPECT_EQ(json_object_get_int_member(o, "dev_type"), TEST_DRIVER_TYPE);
    JsonObject *values = json_object_get_object_member(o, "values");
    ASSERT_NE(values, nullptr) << body;
    EXPECT_TRUE(json_object_get_boolean_member(values, "running")) << body;
    EXPECT_EQ(json_object_get_int_member(values, "temp"), -87) << body;
    EXPECT_DOUBLE_EQ(json_object_get_double_member(values, "speed"), 1.5) << body;
    EXPECT_STREQ(json_object_get_string_member(values, "recipe"), "A7") << body;

    // Killed: the Will leaves "offline" retained for whoever comes later.
    bridge_->signal(SIGKILL);
    ASSERT_TRUE(sub_->wait([](const std::vector<Received> &all) {
        return all.back().topic == "site/gw1/status" && all.back().payload == "offline";
    }));
    Subscriber late(broker_.port(), "site/gw1/status");
    ASSERT_TRUE(late.ready());
    EXPECT_TRUE(late.wait([](const std::vector<Received> &all) {
        return !all.empty() && all.back().payload == "offline" && all.back().retained;
    })) << "status as retained: " << (late.messages().empty() ? "nothing" : late.messages().back().payload);
}

TEST(BridgeProgram, RefusalsAndBadInputEndWithOneLine)
{
    TempDir dir;
    PrivateBus bus;
    Broker closed(Broker::Closed);
    ASSERT_TRUE(closed.start());
    dstest::write_file(dir.file("plain"), "");
    const struct {
        std::vector<std::string> args;
        int status;
        std::string line;
    } cases[] = {
        {{"--mode", "xml"}, 1, "--mode 'xml': expected sparkplug or json"},
        {{"--config", dir.file("missing.conf")}, 1, "--config " + dir.file("missing.conf")},
        {{"--edge-node", "gw/1"}, 1, "--edge-node 'gw/1' must not hold"},
        {{"--broker", closed.address()}, 2, "broker refused: not authorised"},
        {{"--state-dir", dir.file("plain/state")}, 4, "cannot make the state directory"},
        {{"--bus-address", "unix:path=" + dir.file("nobus")}, 3, "cannot reach the bus"},
    };
    int n = 0;
    for (const auto &c : cases) {
        std::vector<std::string> args = {bridge_binary(), "--bus-address", bus.address(),
                                         "--broker", "127.0.0.1:1", "--state-dir", dir.file("state")};
        args.insert(args.end(), c.args.begin(), c.args.end());
        Child bridge(args, dir.path(), "bad" + std::to_string(n++));
        EXPECT_EQ(bridge.wait_exit(), c.status) << c.line << "\n" << bridge.err();
        // GLib's own progress lines aside, the reason is one line of ours.
        const std::string err = bridge.err();
        const size_t at = err.rfind("device-service-bridge: ");
        const std::string ours = at == std::string::npos ? "" : err.substr(at);
        EXPECT_EQ(count_of(err, "device-service-bridge: "), 1u) << err;
        EXPECT_NE(ours.find(c.line), std::string::npos) << bridge.err();
    }
}

TEST(BridgeProgram, TlsWithClientCertificates)
{
    if (access("/usr/bin/openssl", X_OK) != 0)
        GTEST_SKIP() << "openssl (Debian: openssl) makes the certificates";
    TempDir dir;
    PrivateBus bus;
    Broker broker(Broker::Tls);
    ASSERT_TRUE(broker.start());
    const std::vector<std::string> tls = {"--broker", broker.address(), "--tls-ca", broker.file("ca.crt"),
                                          "--tls-cert", broker.file("client.crt"), "--tls-key",
                                          broker.file("client.key"), "--group", GROUP};
    std::vector<std::string> args = {bridge_binary(), "--watch"};
    args.insert(args.end(), tls.begin(), tls.end());
    Child watcher(args, dir.path(), "watch");
    ASSERT_TRUE(wait_until([&] { return watcher.err().find("connected to") != std::string::npos; }, 10s))
        << watcher.err();
    args = {bridge_binary(), "--bus-address", bus.address(), "--state-dir", dir.file("state"), "--edge-node", EDGE};
    args.insert(args.end(), tls.begin(), tls.end());
    Child bridge(args, dir.path(), "bridge");
    EXPECT_TRUE(wait_until([&] { return watcher.out().find("NBIRTH plant/gw1 seq=0: bdSeq=0") != std::string::npos; }, 10s))
        << watcher.out() << bridge.err();

    // Without TLS the same broker is not reached, and the bridge says so.
    Child plain({bridge_binary(), "--bus-address", bus.address(), "--state-dir", dir.file("plain"),
                 "--broker", broker.address()},
                dir.path(), "plain");
    EXPECT_TRUE(plain.wait_err("cannot reach the broker at " + broker.address())) << plain.err();

    // A TLS session whose broker went away is retried like any other.
    broker.stop();
    EXPECT_TRUE(bridge.wait_err("lost the broker at " + broker.address())) << bridge.err();
    EXPECT_TRUE(bridge.wait_err("cannot reach the broker at " + broker.address(), 5s)) << bridge.err();
    EXPECT_TRUE(bridge.running());
}

TEST(BridgeProgram, CredentialsFromThePasswordFile)
{
    TempDir dir;
    Broker broker(Broker::Password);
    ASSERT_TRUE(broker.start());
    dstest::write_file(dir.file("good"), "s3cret\n");
    dstest::write_file(dir.file("bad"), "secret\n");
    auto watch = [&](const std::string &password_file) {
        return std::make_unique<Child>(
            std::vector<std::string>{bridge_binary(), "--watch", "--broker", broker.address(), "--username",
                                     "bridge", "--password-file", dir.file(password_file)},
            dir.path(), password_file);
    };
    auto refused = watch("bad");
    EXPECT_EQ(refused->wait_exit(), 2);
    EXPECT_NE(refused->err().find("device-service-bridge: broker refused: not authorised"), std::string::npos)
        << refused->err();
    auto accepted = watch("good");
    EXPECT_TRUE(accepted->wait_err("connected to " + broker.address() + " as ")) << accepted->err();
    accepted->signal(SIGTERM);
    EXPECT_EQ(accepted->wait_exit(), 0);
}

TEST(BridgeProgram, BusGoneEndsTheSessionWithItsDeath)
{
    TempDir dir;
    auto bus = std::make_unique<PrivateBus>();
    Broker broker;
    ASSERT_TRUE(broker.start());
    Subscriber sub(broker.port(), "spBv1.0/#");
    ASSERT_TRUE(sub.ready());
    Child bridge({bridge_binary(), "--bus-address", bus->address(), "--broker", broker.address(), "--state-dir",
                  dir.file("state"), "--group", GROUP, "--edge-node", EDGE},
                 dir.path(), "bridge");
    ASSERT_TRUE(sub.wait([](const std::vector<Received> &all) { return !all.empty(); })) << bridge.err();
    bus.reset();
    EXPECT_EQ(bridge.wait_exit(), 3) << bridge.err();
    EXPECT_NE(bridge.err().find("the bus connection closed"), std::string::npos) << bridge.err();
    ASSERT_TRUE(sub.wait([](const std::vector<Received> &all) { return all.size() >= 2; }));
    const auto all = sub.messages();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[1].topic, "spBv1.0/plant/NDEATH/gw1") << "a goodbye before leaving";
}
