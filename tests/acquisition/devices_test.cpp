// The reading loop over configured devices, driven by the tests' driver
// (maker 99, model 999), whose node addresses script each read.
#include <gtest/gtest.h>

#include <algorithm>

#include "support/config_calls.h"
#include "support/daemon_fixture.h"
#include "support/test_driver.h"

using namespace dstest;

class LoopDevices : public DaemonTest {
protected:
    void add_device(uint32_t id, const std::string &name)
    {
        ASSERT_EQ(code("EthernetDeviceAdd", ethernet_args(id, TEST_DRIVER_MFG, TEST_DRIVER_TYPE, name)), 0);
    }
    void add_nodes(const std::vector<NodeSpec> &nodes) { ASSERT_EQ(code("nodeTableAddMulti", node_array(nodes)), 0); }
};

TEST_F(LoopDevices, ValuesFailedReadsAndUnopenableDevices)
{
    start_daemon(true);
    add_device(1, "press");
    add_device(2, "openfail-oven");
    add_device(3, "dryer");
    add_nodes({{1, 10, "val:123"}, {1, 11, "fail"}, {2, 20, "fail"}, {3, 30, "val:-7"},
               {1, 12, "val:0x1f"}});
    NodesRecorder rec(conn());
    start_system_service(1);
    ASSERT_TRUE(rec.wait_for_count(1, 15s));
    GVariant *cycle = rec.last();
    EXPECT_EQ(cycle_devices(cycle),
              (std::vector<std::string>{"1:press:2", "2:openfail-oven:0", "3:dryer:1"}));
    EXPECT_EQ(cycle_values(cycle),
              (std::vector<std::string>{"1/n10=123", "1/n12=0x1f", "3/n30=-7"}));
    // The failed read is logged; the node of the unopenable device is never read.
    const std::string err = daemon_->err();
    EXPECT_NE(err.find(" W read_PLC_nodes_3:665 fail = NULL\n"), std::string::npos) << err;
    EXPECT_EQ(count_of(daemon_->out(), "read_PLC_nodes_3:665 fail = NULL"),
              count_of(daemon_->out(), "read nodes table"))
        << "one failing node per cycle: the other one belongs to a device that never opens";

    // Maker, model and node fields are carried in the signal.
    GVariant *press = g_variant_get_child_value(cycle, 0);
    gchar *printed = g_variant_print(press, TRUE);
    EXPECT_STREQ(printed, "(uint32 1, 'press', uint32 99, uint32 999, "
                          "<[('n10', 'val:123', uint32 4, '123'), ('n12', 'val:0x1f', 4, '0x1f')]>)");
    g_free(printed);
    g_variant_unref(press);
}

TEST_F(LoopDevices, ChangeDuringASlowReadIsAnsweredAtOnceAndAbandonsTheCycle)
{
    start_daemon(true);
    add_device(1, "slow");
    add_nodes({{1, 1, "sleep:3000:a"}, {1, 2, "val:b"}});
    NodesRecorder rec(conn());
    start_system_service(1);
    ASSERT_TRUE(rec.wait_for_count(1, 15s));
    // Wait until the next cycle is inside the slow read, then change the configuration.
    const size_t cycles = count_of(daemon_->out(), "read nodes table");
    ASSERT_TRUE(daemon_->wait_output("read nodes table", 10s, cycles + 1));
    // The loop is now inside a 3 s read; the call must be answered while it
    // still runs (its own time-out here is far below the read's length).
    const auto r = call_device(conn(), "nodeTableAddMulti", node_array({{1, 3, "val:c"}}), 2000);
    ASSERT_TRUE(r.ok && r.response == 0) << r.error << r.message;
    ASSERT_TRUE(daemon_->wait_output("-----------------Abort ", 10s));
    const size_t seen = rec.count();
    ASSERT_TRUE(rec.wait_for_count(seen + 1, 15s));
    // Nothing of the abandoned cycle was emitted: the first signal after the
    // change already has the new node.
    EXPECT_EQ(cycle_values(rec.cycle(seen)),
              (std::vector<std::string>{"1/n1=a", "1/n2=b", "1/n3=c"}));
}

TEST_F(LoopDevices, ConcurrencyHammerConfigurationDuringCycles)
{
    start_daemon(true);
    add_device(1, "a");
    add_device(2, "b");
    // Interval 0: the loop cycles back to back, so every change meets a cycle.
    NodesRecorder rec(conn());
    start_system_service(0);
    std::vector<NodeSpec> base;
    for (uint32_t i = 0; i < 40; ++i)
        base.push_back({1 + i % 2, i + 1, "val:" + std::to_string(i)});
    for (int round = 0; round < 30; ++round) {
        const std::pair<const char *, GVariant *> calls[] = {
            {"nodeTableSyncMulti", node_array(base)},
            {"nodeTableAddMulti", node_array({{2, 1000, "count"}})},
            {"nodeTableDelMulti", node_id_array({1000, 3, 4})},
            {"EthernetDeviceMdf",
             ethernet_args(2, TEST_DRIVER_MFG, TEST_DRIVER_TYPE, "b" + std::to_string(round))}};
        for (const auto &[method, args] : calls)
            ASSERT_TRUE(call(method, args).ok) << method;
        pump_main_context(std::chrono::milliseconds(round % 3));
    }
    std::vector<NodeSpec> settled;
    for (uint32_t i = 0; i < 40; ++i)
        settled.push_back({1 + i % 2, i + 1, "val:" + std::to_string(1000 + i)});
    ASSERT_EQ(code("nodeTableSyncMulti", node_array(settled)), 0);
    ASSERT_TRUE(daemon_->running()) << daemon_->err();
    // Cycles read before that call may still be on their way to us; the
    // first with the settled values, and every one after it, holds all 40.
    size_t first = 0;
    ASSERT_TRUE(wait_until(
        [&] {
            pump_main_context(std::chrono::milliseconds(10));
            for (; first < rec.count(); ++first) {
                const auto values = cycle_values(rec.cycle(first));
                if (std::find(values.begin(), values.end(), "1/n1=1000") != values.end())
                    return true;
            }
            return false;
        },
        15s));
    ASSERT_TRUE(rec.wait_for_count(first + 3, 15s));
    for (size_t i = first; i < first + 3; ++i)
        EXPECT_EQ(cycle_values(rec.cycle(i)).size(), 40u) << "cycle " << i;
    EXPECT_EQ(daemon_->err().find("ThreadSanitizer"), std::string::npos) << daemon_->err();
    EXPECT_EQ(daemon_->err().find("AddressSanitizer"), std::string::npos) << daemon_->err();
}
