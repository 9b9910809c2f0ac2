// The edge node's model: what each cycle, command or session calls for.
// Messages are checked as a person watching the broker would read them.
#include <gtest/gtest.h>

#include <algorithm>

#include "edge_node.h"
#include "readings.h"
#include "values.h"

using namespace bridge;
using bctest::command;
using bctest::cycle;
using bctest::device;
using bctest::node;

namespace {

using Lines = std::vector<std::string>;

EdgeNodeConfig config()
{
    return EdgeNodeConfig{"g", "e", DeviceIdMode::Name};
}

Lines lines(const std::vector<Message> &messages)
{
    Lines out;
    for (const Message &m : messages) {
        EXPECT_FALSE(m.payload.seq.has_value()) << "seq is the session's";
        const std::string t = sp::topic("g", m.type, "e", m.device);
        out.push_back(sp::describe(t, sp::encode(m.payload)));
    }
    return out;
}

// A press with two words and a bit, with the given values (nullptr: not read).
DeviceReading press(const char *count, const char *temp, const char *run)
{
    std::vector<NodeReading> nodes;
    if (count != nullptr)
        nodes.push_back(node("count", "D0", NodeU16, count));
    if (temp != nullptr)
        nodes.push_back(node("temp", "D2", NodeFloat, temp));
    if (run != nullptr)
        nodes.push_back(node("run", "M0", NodeBit, run));
    return device(1, "press", nodes);
}

DeviceReading oven(const char *t) { return device(2, "oven", {node("t", "VW0", NodeS16, t)}); }

const char *kPressBirth = "DBIRTH g/e/press no seq: count=5 (UInt16) @D0, temp=20.5 (Float) @D2, "
                          "run=true (Boolean) @M0";

} // namespace

TEST(EdgeNode, BirthsThenDataByException)
{
    EdgeNode en(config());
    EXPECT_EQ(lines(en.births(3, 500)),
              (Lines{"NBIRTH g/e no seq: bdSeq=3 (Int64), Node Control/Rebirth=false (Boolean)"}));

    const std::vector<Message> first = en.on_cycle(cycle(1000, {press("5", "20.500000", "1"), oven("-87")}));
    EXPECT_EQ(lines(first), (Lines{kPressBirth, "DBIRTH g/e/oven no seq: t=-87 (Int16) @VW0"}));
    // Births carry the time of the cycle on the payload and on every metric.
    ASSERT_EQ(first.size(), 2u);
    EXPECT_EQ(first[0].payload.timestamp, 1000u);
    for (const sp::Metric &m : first[0].payload.metrics)
        EXPECT_EQ(m.timestamp, 1000u) << m.name;

    EXPECT_TRUE(en.on_cycle(cycle(2000, {press("5", "20.500000", "1"), oven("-87")})).empty());

    const std::vector<Message> data =
        en.on_cycle(cycle(3000, {press("6", "20.500000", "0"), oven("-87")}));
    EXPECT_EQ(lines(data), (Lines{"DDATA g/e/press no seq: count=6, run=false"}));
    ASSERT_EQ(data.size(), 1u);
    EXPECT_EQ(data[0].payload.timestamp, 3000u);
    EXPECT_EQ(data[0].payload.metrics.at(0).timestamp, 3000u);

    // A new session's births hold the current values, each with its own time.
    const std::vector<Message> again = en.births(4, 3500);
    EXPECT_EQ(lines(again),
              (Lines{"NBIRTH g/e no seq: bdSeq=4 (Int64), Node Control/Rebirth=false (Boolean)",
                     "DBIRTH g/e/press no seq: count=6 (UInt16) @D0, temp=20.5 (Float) @D2, "
                     "run=false (Boolean) @M0",
                     "DBIRTH g/e/oven no seq: t=-87 (Int16) @VW0"}));
    EXPECT_EQ(again[1].payload.timestamp, 3500u);
    EXPECT_EQ(again[1].payload.metrics[0].timestamp, 3000u);
    EXPECT_EQ(again[1].payload.metrics[1].timestamp, 1000u);
    EXPECT_EQ(en.alive_devices(), (Lines{"press", "oven"}));
}

TEST(EdgeNode, FailedReadOrUnreadableTextIsNullOnceThenBack)
{
    EdgeNode en(config());
    en.on_cycle(cycle(1000, {press("5", "20.500000", "1")}));
    EXPECT_EQ(lines(en.on_cycle(cycle(2000, {press("5", nullptr, "1")}))),
              (Lines{"DDATA g/e/press no seq: temp=null"}));
    EXPECT_TRUE(en.on_cycle(cycle(3000, {press("5", nullptr, "1")})).empty());
    EXPECT_EQ(lines(en.on_cycle(cycle(4000, {press("5", "20.500000", "1")}))),
              (Lines{"DDATA g/e/press no seq: temp=20.5"}));
    EXPECT_TRUE(en.born("press", "temp", sp::Float));
    EXPECT_EQ(en.unparsable_values(), 0u);

    // A text that does not read for its type is null too, and counted.
    EXPECT_EQ(lines(en.on_cycle(cycle(5000, {press("read error", "20.500000", "1")}))),
              (Lines{"DDATA g/e/press no seq: count=null"}));
    EXPECT_TRUE(en.on_cycle(cycle(6000, {press("read error", "20.500000", "1")})).empty());
    EXPECT_EQ(en.unparsable_values(), 2u);
    EXPECT_EQ(lines(en.on_cycle(cycle(7000, {press("7", "20.500000", "1")}))),
              (Lines{"DDATA g/e/press no seq: count=7"}));
    EdgeNode fresh(config());
    EXPECT_EQ(lines(fresh.on_cycle(cycle(1000, {press("read error", "20.500000", "1")}))),
              (Lines{"DBIRTH g/e/press no seq: count=null (UInt16) @D0, temp=20.5 (Float) @D2, "
                     "run=true (Boolean) @M0"}));
}

TEST(EdgeNode, PlcThatStopsAnsweringOrADaemonGoneDiesAndIsBornAgain)
{
    EdgeNode en(config());
    en.on_cycle(cycle(1000, {press("5", "20.500000", "1"), oven("1")}));
    // Opened but nothing read is a failed read of every node, not a death.
    EXPECT_EQ(lines(en.on_cycle(cycle(2000, {device(1, "press", {}), oven("1")}))),
              (Lines{"DDEATH g/e/press no seq: no metrics"}));
    EXPECT_EQ(en.alive_devices(), (Lines{"oven"}));
    EXPECT_FALSE(en.born("press", "count", sp::UInt16));
    EXPECT_TRUE(en.on_cycle(cycle(3000, {device(1, "press", {}), oven("1")})).empty());
    // Back with values: a birth, with every value as it is now.
    EXPECT_EQ(lines(en.on_cycle(cycle(4000, {press("5", "20.500000", "1"), oven("1")}))),
              (Lines{kPressBirth}));
    EXPECT_EQ(en.births(0, 5000).size(), 3u);

    // A device that never answered is never born, nor dies; the daemon
    // gone, the live devices die, once.
    en.on_cycle(cycle(6000, {press("5", "20.500000", "1"), device(3, "silent", {}), oven("1")}));
    EXPECT_EQ(lines(en.on_daemon_gone(9000)),
              (Lines{"DDEATH g/e/press no seq: no metrics", "DDEATH g/e/oven no seq: no metrics"}));
    EXPECT_TRUE(en.alive_devices().empty());
    EXPECT_TRUE(en.on_daemon_gone(9500).empty());
    EXPECT_EQ(lines(en.on_cycle(cycle(10000, {press("5", "20.500000", "1")}))), (Lines{kPressBirth}));
}

TEST(EdgeNode, DeletedDeviceDiesAndOrderWithinACycle)
{
    EdgeNode en(config());
    en.on_cycle(cycle(1000, {press("5", "20.500000", "1"), oven("1"), device(3, "mixer", {node("a", "D9", NodeU8, "1")})}));
    // One cycle: the oven deleted, the mixer silent, a new device, the press changed.
    EXPECT_EQ(lines(en.on_cycle(cycle(2000, {press("6", "20.500000", "1"), device(3, "mixer", {}),
                                             device(4, "pump", {node("p", "D1", NodeS32, "-1")})}))),
              (Lines{"DDEATH g/e/mixer no seq: no metrics", "DDEATH g/e/oven no seq: no metrics",
                     "DBIRTH g/e/pump no seq: p=-1 (Int32) @D1",
                     "DDATA g/e/press no seq: count=6"}));
    EXPECT_EQ(en.alive_devices(), (Lines{"press", "pump"}));
    EXPECT_EQ(lines(en.on_cycle(cycle(3000, {press("6", "20.500000", "1"), oven("2")}))),
              (Lines{"DDEATH g/e/pump no seq: no metrics", "DBIRTH g/e/oven no seq: t=2 (Int16) @VW0"}));
    // Another device under the same name and nodes is still another device.
    DeviceReading other = oven("2");
    other.dev_id = 9;
    EXPECT_EQ(lines(en.on_cycle(cycle(4000, {press("6", "20.500000", "1"), other}))),
              (Lines{"DBIRTH g/e/oven no seq: t=2 (Int16) @VW0"}));
}

TEST(EdgeNode, ChangedMetricSetIsANewBirthButNotAnotherOrder)
{
    EdgeNode en(config());
    en.on_cycle(cycle(1000, {press("5", "20.500000", "1")}));
    // Nodes in another order: data in the birth's order, no birth.
    DeviceReading reversed = press("6", "20.500000", "1");
    std::reverse(reversed.nodes.begin(), reversed.nodes.end());
    EXPECT_EQ(lines(en.on_cycle(cycle(1500, {reversed}))), (Lines{"DDATA g/e/press no seq: count=6"}));
    en.on_cycle(cycle(1600, {press("5", "20.500000", "1")}));

    DeviceReading added = press("5", "20.500000", "1");
    added.nodes.push_back(node("level", "D4", NodeU32, "-1"));
    EXPECT_EQ(lines(en.on_cycle(cycle(2000, {added}))),
              (Lines{std::string(kPressBirth) + ", level=4294967295 (UInt32) @D4"}));

    // Renamed: the old name leaves with this birth.
    DeviceReading renamed = device(1, "press", {node("count", "D0", NodeU16, "5"), node("heat", "D2", NodeFloat, "20.5")});
    EXPECT_EQ(lines(en.on_cycle(cycle(3000, {renamed}))),
              (Lines{"DBIRTH g/e/press no seq: count=5 (UInt16) @D0, heat=20.5 (Float) @D2"}));
    EXPECT_FALSE(en.born("press", "temp", sp::Float));
    EXPECT_FALSE(en.born("press", "level", sp::UInt32));

    DeviceReading retyped = renamed;
    retyped.nodes[0].data_type = NodeS16;
    EXPECT_EQ(lines(en.on_cycle(cycle(4000, {retyped}))),
              (Lines{"DBIRTH g/e/press no seq: count=5 (Int16) @D0, heat=20.5 (Float) @D2"}));
    EXPECT_TRUE(en.born("press", "count", sp::Int16));
    EXPECT_FALSE(en.born("press", "count", sp::UInt16));

    DeviceReading readdressed = retyped;
    readdressed.nodes[0].addr = "D10";
    EXPECT_EQ(lines(en.on_cycle(cycle(5000, {readdressed}))),
              (Lines{"DBIRTH g/e/press no seq: count=5 (Int16) @D10, heat=20.5 (Float) @D2"}));
    // A node left out is a failed read, not a smaller set.
    readdressed.nodes.pop_back();
    EXPECT_EQ(lines(en.on_cycle(cycle(6000, {readdressed}))),
              (Lines{"DDATA g/e/press no seq: heat=null"}));
}

TEST(EdgeNode, NodeNamesMadeDistinctWithinADevice)
{
    EdgeNode en(config());
    const DeviceReading d = device(1, "press", {node("x", "D0", NodeU8, "1"), node("X", "D1", NodeU8, "2"),
                                                node("", "D2", NodeU8, "3")});
    EXPECT_EQ(lines(en.on_cycle(cycle(1000, {d}))),
              (Lines{"DBIRTH g/e/press no seq: x=1 (UInt8) @D0, X (D1)=2 (UInt8) @D1, D2=3 (UInt8) @D2"}));
    EXPECT_TRUE(en.on_cycle(cycle(2000, {d})).empty());
    // Values of renamed metrics go on under the names of the birth.
    DeviceReading changed = d;
    changed.nodes[1].value = "5";
    changed.nodes[2].value = "6";
    EXPECT_EQ(lines(en.on_cycle(cycle(3000, {changed}))),
              (Lines{"DDATA g/e/press no seq: X (D1)=5, D2=6"}));
    // Two names swapped between addresses: the set differs, born again.
    DeviceReading swapped = changed;
    std::swap(swapped.nodes[0].name, swapped.nodes[1].name);
    EXPECT_EQ(lines(en.on_cycle(cycle(4000, {swapped}))),
              (Lines{"DBIRTH g/e/press no seq: X=1 (UInt8) @D0, x (D1)=5 (UInt8) @D1, D2=6 (UInt8) @D2"}));
}

TEST(EdgeNode, DeviceIdsFollowTheMode)
{
    EdgeNode by_name(config());
    by_name.on_cycle(cycle(1000, {device(1, "line/1", {node("a", "D0", NodeU8, "1")}),
                                  device(2, "Line_1", {node("a", "D0", NodeU8, "1")})}));
    EXPECT_EQ(by_name.alive_devices(), (Lines{"line_1-1", "Line_1-2"}));
    // The other one deleted: the survivor's id is its name again.
    EXPECT_EQ(lines(by_name.on_cycle(cycle(2000, {device(2, "Line_1", {node("a", "D0", NodeU8, "1")})}))),
              (Lines{"DDEATH g/e/Line_1-2 no seq: no metrics", "DDEATH g/e/line_1-1 no seq: no metrics",
                     "DBIRTH g/e/Line_1 no seq: a=1 (UInt8) @D0"}));
}

TEST(EdgeNode, WillAndNodeMetrics)
{
    EdgeNode en(config());
    const Message will = en.death(17);
    EXPECT_EQ(lines({will}), (Lines{"NDEATH g/e no seq: bdSeq=17 (Int64)"}));
    EXPECT_TRUE(std::holds_alternative<uint64_t>(will.payload.metrics.at(0).value));

    // New: with its datatype, so that a host not knowing it asks for a rebirth.
    EXPECT_EQ(lines(en.set_node_metric("Store/Dropped", 0, 100)),
              (Lines{"NDATA g/e no seq: Store/Dropped=0 (UInt64)"}));
    EXPECT_TRUE(en.set_node_metric("Store/Dropped", 0, 200).empty());
    EXPECT_EQ(lines(en.set_node_metric("Store/Dropped", 12, 300)),
              (Lines{"NDATA g/e no seq: Store/Dropped=12"}));
    EXPECT_EQ(lines(en.births(1, 400)),
              (Lines{"NBIRTH g/e no seq: bdSeq=1 (Int64), Node Control/Rebirth=false (Boolean), "
                     "Store/Dropped=12 (UInt64)"}));
}

TEST(EdgeNode, CommandsAskForARebirthOrAreRefused)
{
    EdgeNode en(config());
    auto expect = [&](const std::string &topic, const std::string &payload, bool rebirth, const std::string &line) {
        const CommandResult r = en.on_command(topic, payload);
        EXPECT_EQ(r.rebirth, rebirth) << topic << " " << line;
        EXPECT_EQ(r.log_line, line) << topic;
    };
    const std::string ncmd = "spBv1.0/g/NCMD/e";
    const std::string rebirth = command({{"Node Control/Rebirth", sp::Boolean, true}});
    expect(ncmd, rebirth, true, "");
    expect(ncmd, command({{"Node Control/Rebirth", sp::Boolean, false}}), false, "");
    expect(ncmd, command({{"Node Control/Reboot", sp::Boolean, true}, {"Node Control/Rebirth", sp::Boolean, true}}),
           true, "NCMD Node Control/Reboot refused: the gateway only reads");
    expect("spBv1.0/g/DCMD/e/press", command({{"run", sp::Boolean, false}, {"count", sp::UInt32, 3u}}), false,
           "DCMD for press (run, count) refused: the gateway only reads");
    expect(ncmd, "\xff\xff\xff", false, "NCMD on spBv1.0/g/NCMD/e is not a Sparkplug payload (3 bytes): ignored");
    for (const char *elsewhere : {"spBv1.0/g/NCMD/other", "spBv1.0/h/NCMD/e", "spBv1.0/g/NDATA/e", "x/y"})
        expect(elsewhere, rebirth, false,
               std::string("message on ") + elsewhere + " is no command for this edge node: ignored");
}
