// The session over a recording transport: what goes out in which order,
// with which QoS, retain flag, seq and bdSeq; and the signal's decoding.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "bus_side.h"
#include "publisher.h"
#include "sparkplug.h"
#include "support/test_util.h"

using namespace bridge;

namespace {

struct Sent {
    std::string what; // "will", "sub" or "pub"
    std::string topic;
    std::string payload;
    int qos = 0;
    bool retain = false;
};

class RecordingTransport : public Transport {
public:
    bool up = true;
    std::vector<Sent> sent;

    bool connected() const override { return up; }
    bool set_will(const std::string &t, const std::string &p, int qos, bool retain) override
    {
        sent.push_back({"will", t, p, qos, retain});
        return true;
    }
    int publish(const std::string &t, const std::string &p, int qos, bool retain) override
    {
        if (!up)
            return -1;
        sent.push_back({"pub", t, p, qos, retain});
        return static_cast<int>(sent.size());
    }
    bool subscribe(const std::string &t, int qos) override
    {
        sent.push_back({"sub", t, "", qos, false});
        return true;
    }
    void restart() override { sent.push_back({"restart", "", "", 0, false}); }
};

sp::Payload payload_of(const Sent &s)
{
    sp::Payload p;
    EXPECT_TRUE(sp::decode(s.payload, p)) << s.topic;
    return p;
}

Cycle cycle_with(const std::string &value, uint64_t t = 1700000000000)
{
    Cycle c;
    c.timestamp_ms = t;
    c.devices.push_back({7, "press", 1, 103, {{"strokes", "D100", 4, value}}});
    return c;
}

uint64_t bd_seq_of(const Sent &s)
{
    for (const auto &m : payload_of(s).metrics)
        if (m.name == "bdSeq")
            return std::get<uint64_t>(m.value);
    ADD_FAILURE() << "no bdSeq in " << s.topic;
    return 999;
}

} // namespace

class BridgeSparkplugSession : public ::testing::Test {
protected:
    dstest::TempDir dir;
    EdgeNode node{{"plant", "gw1", DeviceIdMode::Name}};
    RecordingTransport t;
    SparkplugSession s{node, t, dir.path()};
    std::string error;
};

TEST_F(BridgeSparkplugSession, WillSubscriptionsBirthsAndSeqThroughItsWrap)
{
    ASSERT_TRUE(s.before_connect(error)) << error;
    ASSERT_EQ(t.sent.size(), 1u);
    EXPECT_EQ(t.sent[0].what, "will");
    EXPECT_EQ(t.sent[0].topic, "spBv1.0/plant/NDEATH/gw1");
    EXPECT_EQ(t.sent[0].qos, 1);
    EXPECT_FALSE(t.sent[0].retain);
    EXPECT_EQ(bd_seq_of(t.sent[0]), 0u);
    EXPECT_FALSE(payload_of(t.sent[0]).seq) << "NDEATH carries no seq";

    t.up = false;
    s.cycle(cycle_with("1")); // before the session: the model takes it, nothing goes out
    EXPECT_EQ(t.sent.size(), 1u);
    t.up = true;
    s.connected();
    ASSERT_EQ(t.sent.size(), 5u);
    EXPECT_EQ(t.sent[1].what + " " + t.sent[1].topic, "sub spBv1.0/plant/NCMD/gw1");
    EXPECT_EQ(t.sent[2].what + " " + t.sent[2].topic, "sub spBv1.0/plant/DCMD/gw1/+");
    EXPECT_EQ(t.sent[3].topic, "spBv1.0/plant/NBIRTH/gw1");
    EXPECT_EQ(t.sent[4].topic, "spBv1.0/plant/DBIRTH/gw1/press");
    EXPECT_EQ(payload_of(t.sent[3]).seq, 0u);
    EXPECT_EQ(bd_seq_of(t.sent[3]), 0u) << "the NBIRTH repeats the Will's bdSeq";
    EXPECT_EQ(payload_of(t.sent[4]).seq, 1u);
    for (size_t i = 3; i < t.sent.size(); ++i)
        EXPECT_EQ(t.sent[i].qos, 0);

    // One DDATA per changed value: seq runs over 255 back to 0.
    for (int v = 2; v < 300; ++v)
        s.cycle(cycle_with(std::to_string(v)));
    uint64_t expected = 2;
    int wraps = 0;
    for (size_t i = 5; i < t.sent.size(); ++i) {
        EXPECT_EQ(t.sent[i].topic, "spBv1.0/plant/DDATA/gw1/press");
        EXPECT_EQ(payload_of(t.sent[i]).seq, expected) << i;
        wraps += expected == 0 ? 1 : 0;
        expected = (expected + 1) % 256;
    }
    EXPECT_EQ(wraps, 1);

    // A rebirth request: NBIRTH at seq 0 with the same bdSeq, then the DBIRTH.
    sp::Payload cmd;
    cmd.metrics.emplace_back();
    cmd.metrics[0].name = "Node Control/Rebirth";
    cmd.metrics[0].datatype = sp::Boolean;
    cmd.metrics[0].value = true;
    const size_t before = t.sent.size();
    s.command("spBv1.0/plant/NCMD/gw1", sp::encode(cmd));
    ASSERT_EQ(t.sent.size(), before + 2);
    EXPECT_EQ(t.sent[before].topic, "spBv1.0/plant/NBIRTH/gw1");
    EXPECT_EQ(payload_of(t.sent[before]).seq, 0u);
    EXPECT_EQ(bd_seq_of(t.sent[before]), 0u);
    EXPECT_EQ(payload_of(t.sent[before + 1]).seq, 1u);
    // A write is refused: nothing goes out.
    s.command("spBv1.0/plant/DCMD/gw1/press", sp::encode(cmd));
    EXPECT_EQ(t.sent.size(), before + 2);

    // A planned stop: NDEATH at QoS 1 with this session's bdSeq.
    EXPECT_GT(s.farewell(), 0);
    EXPECT_EQ(t.sent.back().topic, "spBv1.0/plant/NDEATH/gw1");
    EXPECT_EQ(t.sent.back().qos, 1);
    EXPECT_EQ(bd_seq_of(t.sent.back()), 0u);
}

TEST_F(BridgeSparkplugSession, BrokerAwayAndBack)
{
    ASSERT_TRUE(s.before_connect(error));
    s.connected();
    s.cycle(cycle_with("1"));
    t.up = false;
    t.sent.clear();
    s.cycle(cycle_with("2"));
    s.cycle(cycle_with("3"));
    EXPECT_TRUE(t.sent.empty());
    EXPECT_EQ(s.unsent(), 2u);
    EXPECT_EQ(s.farewell(), -1) << "no goodbye without a broker";

    // The next session: a new bdSeq in a new Will, births with what is current.
    t.up = true;
    ASSERT_TRUE(s.before_connect(error));
    EXPECT_EQ(bd_seq_of(t.sent[0]), 1u);
    s.connected();
    EXPECT_EQ(s.unsent(), 0u);
    ASSERT_EQ(t.sent.size(), 5u);
    EXPECT_EQ(bd_seq_of(t.sent[3]), 1u);
    const sp::Payload dbirth = payload_of(t.sent[4]);
    ASSERT_EQ(dbirth.metrics.size(), 1u);
    EXPECT_EQ(dbirth.metrics[0].value, sp::Value(uint32_t{3}));
}

TEST(BridgeSession, BdSeqIsKeptAcrossRestartsAndWraps)
{
    dstest::TempDir dir;
    const std::string state = dir.file("state/deeper");
    uint64_t v = 99;
    std::string error;
    ASSERT_TRUE(BdSeqFile(state, "g", "e").next(v, error)) << error;
    EXPECT_EQ(v, 0u);
    ASSERT_TRUE(BdSeqFile(state, "g", "e").next(v, error)) << error;
    EXPECT_EQ(v, 1u) << "a new process goes on from the file";
    ASSERT_TRUE(BdSeqFile(state, "g", "other").next(v, error));
    EXPECT_EQ(v, 0u) << "another edge node counts for itself";

    BdSeqFile f(state, "g", "e");
    dstest::write_file(f.path(), "255\n");
    ASSERT_TRUE(f.next(v, error));
    EXPECT_EQ(v, 0u);
    EXPECT_EQ(dstest::read_file(f.path()), "0\n");
    dstest::write_file(f.path(), "garbage");
    ASSERT_TRUE(f.next(v, error));
    EXPECT_EQ(v, 0u);

    // A state directory that cannot be made is an error, not a silent 0.
    dstest::write_file(dir.file("plain"), "");
    EXPECT_FALSE(BdSeqFile(dir.file("plain/sub"), "g", "e").next(v, error));
    EXPECT_NE(error.find("cannot make the state directory"), std::string::npos) << error;
}

TEST(BridgeSession, JsonStatusAndOneMessagePerDevice)
{
    RecordingTransport t;
    JsonSession s({"g", "e", DeviceIdMode::Id}, "site/a", t);
    std::string error;
    ASSERT_TRUE(s.before_connect(error));
    s.connected();
    Cycle c = cycle_with("5");
    c.devices.push_back({8, "oven", 1, 104, {}});
    s.cycle(c);
    ASSERT_EQ(t.sent.size(), 4u);
    EXPECT_EQ(t.sent[0].what + " " + t.sent[0].topic + " " + t.sent[0].payload, "will site/a/status offline");
    EXPECT_TRUE(t.sent[0].retain);
    EXPECT_EQ(t.sent[0].qos, 1);
    EXPECT_EQ(t.sent[1].topic + " " + t.sent[1].payload, "site/a/status online");
    EXPECT_TRUE(t.sent[1].retain);
    EXPECT_EQ(t.sent[2].topic, "site/a/7");
    EXPECT_EQ(t.sent[3].topic, "site/a/8");
    EXPECT_FALSE(t.sent[2].retain);
    EXPECT_GT(s.farewell(), 0);
    EXPECT_EQ(t.sent.back().topic + " " + t.sent.back().payload, "site/a/status offline");
}

TEST(BridgeBusSide, SignalShapes)
{
    GVariantBuilder nodes;
    g_variant_builder_init(&nodes, G_VARIANT_TYPE("a(ssus)"));
    g_variant_builder_add(&nodes, "(ssus)", "strokes", "D100", 4u, "42");
    g_variant_builder_add(&nodes, "(ssus)", "label", "D200", 15u, "A7");
    GVariantBuilder devs;
    g_variant_builder_init(&devs, G_VARIANT_TYPE("a(usuuv)"));
    g_variant_builder_add(&devs, "(usuuv)", 7u, "press", 1u, 103u, g_variant_builder_end(&nodes));
    g_variant_builder_add(&devs, "(usuuv)", 8u, "oven", 1u, 104u,
                          g_variant_new_array(G_VARIANT_TYPE("(ssus)"), nullptr, 0));
    GVariant *good = g_variant_ref_sink(g_variant_builder_end(&devs));
    Cycle c;
    ASSERT_TRUE(cycle_from_variant(good, 123, c));
    EXPECT_EQ(c.timestamp_ms, 123u);
    ASSERT_EQ(c.devices.size(), 2u);
    EXPECT_EQ(c.devices[0].dev_id, 7u);
    EXPECT_EQ(c.devices[0].dev_type, 103u);
    ASSERT_EQ(c.devices[0].nodes.size(), 2u);
    EXPECT_EQ(c.devices[0].nodes[1].name, "label");
    EXPECT_EQ(c.devices[0].nodes[1].addr, "D200");
    EXPECT_EQ(c.devices[0].nodes[1].data_type, 15u);
    EXPECT_EQ(c.devices[0].nodes[1].value, "A7");
    EXPECT_TRUE(c.devices[1].nodes.empty());
    g_variant_unref(good);

    g_variant_builder_init(&devs, G_VARIANT_TYPE("a(usuuv)"));
    g_variant_builder_add(&devs, "(usuuv)", 7u, "press", 1u, 103u, g_variant_new_string("x"));
    GVariant *bad = g_variant_ref_sink(g_variant_builder_end(&devs));
    EXPECT_FALSE(cycle_from_variant(bad, 1, c));
    EXPECT_TRUE(c.devices.empty());
    g_variant_unref(bad);
    GVariant *other = g_variant_ref_sink(g_variant_new_string("a(usuuv)"));
    EXPECT_FALSE(cycle_from_variant(other, 1, c));
    g_variant_unref(other);
}
