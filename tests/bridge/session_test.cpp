// The session over a recording transport: what goes out in which order,
// with which QoS, retain flag, seq and bdSeq.
#include <gtest/gtest.h>

#include <string>
#include <vector>

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

Cycle cycle_with(const std::string &value)
{
    return Cycle{1700000000000, {{7, "press", 1, 103, {{"strokes", "D100", 4, value}}}}};
}

// What went out from `from` on, a line each: what, QoS, retain, and the
// topic and payload as a person watching the broker reads them.
std::string shown(const std::vector<Sent> &sent, size_t from = 0)
{
    std::string out;
    for (size_t i = from; i < sent.size(); ++i) {
        const Sent &m = sent[i];
        out += m.what + " q" + std::to_string(m.qos) + (m.retain ? " r " : " ");
        if (m.what != "sub" && m.topic.rfind("spBv1.0/", 0) == 0)
            out += sp::describe(m.topic, m.payload) + "\n";
        else
            out += m.topic + (m.topic.find("status") != std::string::npos ? " " + m.payload : "") + "\n";
    }
    return out;
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
    t.up = false;
    s.cycle(cycle_with("1")); // before the session: the model takes it, nothing goes out
    t.up = true;
    s.connected();
    // The NBIRTH repeats the Will's bdSeq; the Will carries no seq.
    EXPECT_EQ(shown(t.sent), "will q1 NDEATH plant/gw1 no seq: bdSeq=0 (Int64)\n"
                             "sub q1 spBv1.0/plant/NCMD/gw1\n"
                             "sub q1 spBv1.0/plant/DCMD/gw1/+\n"
                             "pub q0 NBIRTH plant/gw1 seq=0: bdSeq=0 (Int64), Node Control/Rebirth=false (Boolean)\n"
                             "pub q0 DBIRTH plant/gw1/press seq=1: strokes=1 (UInt16) @D100\n");

    // One DDATA per changed value: seq runs over 255 back to 0.
    const size_t first = t.sent.size();
    for (int v = 2; v < 300; ++v)
        s.cycle(cycle_with(std::to_string(v)));
    uint64_t expected = 2;
    int wraps = 0;
    for (size_t i = first; i < t.sent.size(); ++i) {
        EXPECT_EQ(t.sent[i].topic, "spBv1.0/plant/DDATA/gw1/press");
        EXPECT_EQ(payload_of(t.sent[i]).seq, expected) << i;
        wraps += expected == 0 ? 1 : 0;
        expected = (expected + 1) % 256;
    }
    EXPECT_EQ(wraps, 1);

    // A planned stop: NDEATH at QoS 1 with this session's bdSeq.
    EXPECT_GT(s.farewell(), 0);
    EXPECT_EQ(shown(t.sent, t.sent.size() - 1), "pub q1 NDEATH plant/gw1 no seq: bdSeq=0 (Int64)\n");
}

// A restart goes on from the file (the tests through the broker show it);
// here its edges: the wrap after 255 and a file that holds no number.
TEST(BridgeSession, BdSeqWrapsAndStartsAgainFromGarbage)
{
    dstest::TempDir dir;
    BdSeqFile f(dir.file("state"), "g", "e");
    uint64_t v = 99;
    std::string error;
    ASSERT_TRUE(f.next(v, error)) << error;
    EXPECT_EQ(v, 0u);
    for (const char *text : {"255\n", "garbage"}) {
        dstest::write_file(f.path(), text);
        ASSERT_TRUE(f.next(v, error));
        EXPECT_EQ(v, 0u) << text;
        EXPECT_EQ(dstest::read_file(f.path()), "0\n");
    }
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
    EXPECT_GT(s.farewell(), 0);
    EXPECT_EQ(shown(t.sent), "will q1 r site/a/status offline\npub q1 r site/a/status online\npub q0 site/a/7\n"
                             "pub q0 site/a/8\npub q1 r site/a/status offline\n");
}
