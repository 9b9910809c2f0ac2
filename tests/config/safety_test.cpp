// What users expect from the configuration store whatever they send:
// nothing lost on bad input, any text size, restarts and kills.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "support/daemon_fixture.h"
#include "support/test_driver.h"

using namespace dstest;

namespace {
using rows_t = std::vector<std::string>;
const std::string evil = "x'); delete from NodeTable; delete from SerialDevTable; "
                         "delete from EthernetDevTable; --";
} // namespace

class Safety : public DaemonTest {
protected:
    rows_t counts()
    {
        return rows("select (select count(*) from SerialDevTable), (select count(*) from EthernetDevTable), "
                    "(select count(*) from NodeTable)");
    }
};

TEST_F(Safety, QuotesInAnyTextNeverRunASecondStatement)
{
    start_daemon();
    ASSERT_EQ(code("SerialDeviceAdd", serial_args(1, 1, 102, "keep-s")), 0);
    ASSERT_EQ(code("EthernetDeviceAdd", ethernet_args(2, 2, 3, "keep-e")), 0);
    ASSERT_EQ(code("nodeTableAddMulti", node_array({{1, 10, "D0"}})), 0);
    const rows_t before = counts();

    // Device name and address through every device path.
    code("SerialDeviceAdd", serial_args(3, 1, 102, evil));
    // Here the first statement alone would be a valid insert.
    code("SerialDeviceAdd",
         serial_args(6, 1, 102, "a',0,1,102,0,1,1,9600,8,1,0); delete from NodeTable; --"));
    code("EthernetDeviceAdd", ethernet_args(4, 2, 3, evil));
    code("EthernetDeviceAdd", ethernet_args(5, 2, 3, "ok", evil));
    code("SerialDeviceMdf", serial_args(1, 1, 102, evil));
    code("EthernetDeviceMdf", ethernet_args(2, 2, 3, "keep-e", evil));
    // Every text field of a node, through add, sync and modify.
    for (int field = 0; field < 6; ++field) {
        GVariant *n = g_variant_new(
            "(suussusubbuuiuuiss)", field == 0 ? evil.c_str() : "d", 1u, 100u + field,
            field == 1 ? evil.c_str() : "n", field == 2 ? evil.c_str() : "D1", 4u,
            field == 3 ? evil.c_str() : "u", 0u, FALSE, FALSE, 0u, 0u, 0, 0u, 0u, 0,
            field == 4 ? evil.c_str() : "c", field == 5 ? evil.c_str() : "x");
        g_variant_ref_sink(n);
        const auto one = [&] {
            return g_variant_new("(@a(suussusubbuuiuuiss))",
                                 g_variant_new_array(G_VARIANT_TYPE("(suussusubbuuiuuiss)"), &n, 1));
        };
        EXPECT_EQ(code("nodeTableAddMulti", one()), 2);
        EXPECT_EQ(code("nodeTableSyncMulti", one()), 3);
        EXPECT_EQ(code("nodeTableMdfOne", n), -1);
        g_variant_unref(n);
    }
    EXPECT_EQ(counts(), before);
    EXPECT_EQ(rows("select dev_name from SerialDevTable"), (rows_t{"keep-s"}))
        << "a failed update leaves no half-written row either";
    EXPECT_TRUE(daemon_->running());
}

TEST_F(Safety, AnyTextSizeAndLargeArraysSurviveARestart)
{
    start_daemon(true);
    const std::string big(64 * 1024, 'b');
    const std::string utf8 = "Ofen Nr. 3 – Temperatur °C – 温度 – печь";
    ASSERT_EQ(code("EthernetDeviceAdd",
                   ethernet_args(1, TEST_DRIVER_MFG, TEST_DRIVER_TYPE, utf8)), 0);
    ASSERT_EQ(code("EthernetDeviceAdd", ethernet_args(2, TEST_DRIVER_MFG, TEST_DRIVER_TYPE, "")), 0);
    std::vector<NodeSpec> nodes;
    for (uint32_t i = 1; i <= 50000; ++i)
        nodes.push_back({1 + i % 2, i, "val:" + std::to_string(i % 97)});
    nodes[0].name = big;
    nodes[1].name = utf8;
    nodes[2].addr = "val:";
    ASSERT_EQ(code("nodeTableSyncMulti", node_array(nodes)), 0);
    EXPECT_EQ(rows("select count(*) from NodeTable"), (rows_t{"50000"}));

    restart_daemon();
    EXPECT_EQ(rows("select length(node_name) from NodeTable where node_id = 1"), (rows_t{"65536"}));
    NodesRecorder rec(conn());
    start_system_service(1);
    ASSERT_TRUE(rec.wait_for_count(1, 60s));
    const auto values = cycle_values(rec.last());
    EXPECT_EQ(values.size(), 50000u);
    EXPECT_EQ(cycle_devices(rec.last()),
              (std::vector<std::string>{"1:" + utf8 + ":25000", "2::25000"}));
    EXPECT_NE(std::find(values.begin(), values.end(), "1/" + utf8 + "=2"), values.end());
    EXPECT_NE(std::find(values.begin(), values.end(), "2/" + big + "=1"), values.end());
    EXPECT_NE(std::find(values.begin(), values.end(), "2/n3="), values.end());
}

TEST_F(Safety, KilledDuringABulkSyncLeavesOldOrNewNeverBetween)
{
    start_daemon();
    ASSERT_EQ(code("SerialDeviceAdd", serial_args(1, 1, 102, "fx")), 0);
    std::vector<NodeSpec> old_set, new_set;
    for (uint32_t i = 0; i < 5000; ++i)
        old_set.push_back({1, 1 + i, "D" + std::to_string(i)});
    for (uint32_t i = 0; i < 40000; ++i)
        new_set.push_back({1, 100000 + i, "D" + std::to_string(i)});
    ASSERT_EQ(code("nodeTableSyncMulti", node_array(old_set)), 0);

    // Kill at several points of the next sync; each time the table holds one
    // whole set.
    for (int delay_ms : {0, 30, 120}) {
        GDBusConnection *c = conn();
        g_dbus_connection_call(c, "com.fernwick.DeviceService", "/com/fernwick/DeviceService",
                               "com.fernwick.DeviceService", "nodeTableSyncMulti",
                               node_array(new_set), nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
                               nullptr, nullptr);
        g_dbus_connection_flush_sync(c, nullptr, nullptr);
        ASSERT_TRUE(daemon_->wait_output("<on_handle_node_table_sync_multi_1> called", 20s,
                                         delay_ms == 0 ? 2 : 1));
        std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms));
        daemon_->kill_now();
        const auto n = rows("select count(*) from NodeTable").at(0);
        const auto low = rows("select count(*) from NodeTable where node_id < 100000").at(0);
        EXPECT_TRUE((n == "5000" && low == "5000") || (n == "40000" && low == "0"))
            << "rows " << n << ", old rows " << low << " after a kill at " << delay_ms << " ms";
        restart_daemon();
        if (n == "40000") {
            ASSERT_EQ(code("nodeTableSyncMulti", node_array(old_set)), 0);
        }
    }
}

TEST_F(Safety, GatewayDestroyEmptiesEverything)
{
    start_system_service(1);
    start_daemon();
    ASSERT_EQ(code("SerialDeviceAdd", serial_args(1, 1, 102, "fx")), 0);
    ASSERT_EQ(code("SerialDeviceAdd", serial_args(2, 3, 201, "dvp")), 0);
    ASSERT_EQ(code("EthernetDeviceAdd", ethernet_args(3, 2, 3, "s7")), 0);
    ASSERT_EQ(code("nodeTableAddMulti", node_array({{1, 10, "D0"}, {3, 30, "DB1.DBW0"}})), 0);
    system_.emit_notify("gateway", "anything");
    ASSERT_TRUE(daemon_->wait_output("<on_handle_gateway_destroy> called\n"));
    ASSERT_TRUE(wait_until([&] { return rows("select count(*) from NodeTable").at(0) == "0"; }, 5s));
    EXPECT_EQ(rows("select count(*) from SerialDevTable"), (rows_t{"0"}));
    EXPECT_EQ(rows("select count(*) from EthernetDevTable"), (rows_t{"0"}));
    ASSERT_TRUE(daemon_->wait_output("===> dev del: dev_name:s7, dev_id:3\n"));
    const std::string out = daemon_->out();
    EXPECT_NE(out.find("gateway destroy\n<on_handle_gateway_destroy> called\n"), std::string::npos);
    EXPECT_NE(out.find("===> node del: dev_name:dev, dev_id:1, node_id:10\n"), std::string::npos);
    restart_daemon();
    EXPECT_EQ(code("SerialDeviceAdd", serial_args(1, 1, 102, "fx")), 0) << "nothing came back";
}

// A device is stored with the dev_comm it was sent with, so a serial record
// can claim to be Ethernet and the reverse. Such devices are kept, shown and
// restored, their drivers refuse them, and nothing ever reads one record in
// the other's layout (under AddressSanitizer this test would catch it).
TEST_F(Safety, DevCommOfTheOtherKindIsStoredAsSentAndNeverReadInTheWrongLayout)
{
    start_daemon();
    // Serial records saying Ethernet (an FX-5U and a 1200 model, Ethernet
    // drivers) and an Ethernet record saying serial (an FX-3U, a serial driver).
    ASSERT_EQ(code("SerialDeviceAdd", serial_args(1, 1, 103, "s-as-e", 1, 1, 9600, 8, 1, 0, 1)), 0);
    ASSERT_EQ(code("SerialDeviceAdd", serial_args(2, 2, 3, "s-as-e2", 1, 1, 9600, 8, 1, 0, 1)), 0);
    ASSERT_EQ(code("EthernetDeviceAdd", ethernet_args(3, 1, 101, "e-as-s", "127.0.0.1", 1, 0, 1, 0)),
              0);
    // A kind that is neither: kept in memory and freed on delete.
    ASSERT_EQ(code("SerialDeviceAdd", serial_args(4, 1, 102, "odd", 1, 1, 9600, 8, 1, 0, 7)), 0);
    ASSERT_EQ(code("nodeTableAddMulti",
                   node_array({{1, 10, "D0"}, {2, 20, "DB1.DBW0"}, {3, 30, "D0"}, {4, 40, "D0"}})),
              0);
    ASSERT_EQ(code("SerialDeviceDel", g_variant_new("(uuuus)", 4u, 7u, 1u, 102u, "odd")), 0);
    EXPECT_EQ(rows("select dev_id, dev_comm_type from SerialDevTable order by dev_id"),
              (rows_t{"1|1", "2|1"}));
    EXPECT_EQ(rows("select dev_comm_type from EthernetDevTable"), (rows_t{"0"}));

    // Each is visited and published without values: its driver cannot open it.
    NodesRecorder rec(conn());
    start_system_service(1);
    const auto next_devices = [&](size_t n) {
        EXPECT_TRUE(rec.wait_for_count(n, 15s));
        auto devices = cycle_devices(rec.last());
        std::sort(devices.begin(), devices.end());
        return devices;
    };
    EXPECT_EQ(next_devices(1), (rows_t{"1:s-as-e:0", "2:s-as-e2:0", "3:e-as-s:0"}));

    // Modify and delete go by what the record is, not by what it says.
    EXPECT_EQ(code("EthernetDeviceMdf", ethernet_args(1, 1, 103, "x")), 6);
    EXPECT_EQ(code("SerialDeviceMdf", serial_args(1, 1, 103, "renamed", 1, 1, 9600, 8, 1, 0, 1)), 0);
    EXPECT_EQ(code("SerialDeviceMdf", serial_args(3, 1, 101, "x")), 6);
    EXPECT_EQ(code("EthernetDeviceMdf", ethernet_args(3, 1, 101, "e-renamed", "::1", 1, 0, 1, 0)),
              0);

    // They come back after a restart as they were stored.
    restart_daemon();
    EXPECT_EQ(next_devices(rec.count() + 1), (rows_t{"1:renamed:0", "2:s-as-e2:0", "3:e-renamed:0"}));

    // Synchronising a kind removes the devices whose dev_comm says it.
    EXPECT_EQ(code("EthernetDeviceSyncMulti", g_variant_new_parsed("(@a(uuuussuuu) [],)")), 0);
    EXPECT_EQ(code("SerialDeviceSyncMulti", g_variant_new_parsed("(@a(uuuusuuuuuuu) [],)")), 0);
    EXPECT_TRUE(next_devices(rec.count() + 2).empty());
}
