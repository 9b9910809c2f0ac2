// The configuration methods end to end: result codes, the rows they leave
// in my.db, and what a restart brings back.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include "config/device_handlers.h"
#include "support/daemon_fixture.h"
#include "support/log_records.h"

using namespace dstest;

using rows_t = std::vector<std::string>;

class Config : public DaemonTest {
protected:
    // A device with this id is in memory exactly when adding it again says 1.
    bool in_memory(uint32_t dev_id)
    {
        auto r = call("SerialDeviceAdd", serial_args(dev_id, 2, 101, "probe"));
        return r.ok && r.response == 1;
    }
    // A node is in memory exactly when modifying it under a live device says 0
    // (the modify writes the row either way).
    bool node_in_memory(uint32_t live_dev, uint32_t node_id)
    {
        return code("nodeTableMdfOne", node_tuple({live_dev, node_id, "D1"})) == 0;
    }
};

TEST_F(Config, SerialAddModifyDeleteCodesAndRows)
{
    start_daemon();
    EXPECT_EQ(code("SerialDeviceAdd", serial_args(1, 1, 102, "fx", 3, 1, 19200, 7, 2, 1)), 0);
    EXPECT_EQ(rows("select * from SerialDevTable"), (rows_t{"1|fx|0|1|102|0|1|3|19200|7|2|1"}));
    EXPECT_EQ(code("SerialDeviceAdd", serial_args(1, 1, 102, "again")), 1);
    EXPECT_EQ(code("EthernetDeviceAdd", ethernet_args(5, 2, 3, "s7")), 0);
    EXPECT_EQ(code("SerialDeviceAdd", serial_args(5, 1, 102, "clash")), 1)
        << "ids are unique over both kinds";
    EXPECT_EQ(code("EthernetDeviceAdd", ethernet_args(1, 2, 3, "clash")), 1);
    EXPECT_EQ(code("SerialDeviceAdd", serial_args(2, 2, 101, "nodriver")), 2);
    EXPECT_TRUE(rows("select * from SerialDevTable where dev_id = 2").empty());

    EXPECT_EQ(code("SerialDeviceMdf", serial_args(9, 1, 102, "x")), 6);
    EXPECT_EQ(code("SerialDeviceMdf", serial_args(5, 2, 3, "x")), 6) << "5 is an Ethernet device";
    EXPECT_EQ(code("EthernetDeviceMdf", ethernet_args(1, 1, 102, "x")), 6);
    EXPECT_EQ(code("SerialDeviceDel", g_variant_new("(uuuus)", 9u, 0u, 0u, 0u, "")), 6);

    // Name-only change: the device row follows, the node rows keep the old name.
    EXPECT_EQ(code("nodeTableAddMulti", node_array({{1, 10, "D10", 4, "", "fx"}})), 0);
    EXPECT_EQ(code("SerialDeviceMdf", serial_args(1, 1, 102, "renamed", 4, 2, 9600, 8, 1, 0)), 0);
    EXPECT_EQ(rows("select dev_name, station_num, serial_number from SerialDevTable"),
              (rows_t{"renamed|4|2"}));
    EXPECT_EQ(rows("select dev_name from NodeTable"), (rows_t{"fx"}));

    // A model change rebuilds the device without its nodes.
    EXPECT_EQ(code("SerialDeviceMdf", serial_args(1, 3, 201, "dvp")), 0);
    EXPECT_EQ(rows("select dev_mfg, dev_type, dev_name from SerialDevTable"), (rows_t{"3|201|dvp"}));
    EXPECT_TRUE(rows("select * from NodeTable").empty());
    EXPECT_NE(daemon_->out().find("===> dev del: dev_name:renamed, dev_id:1\n"), std::string::npos);

    // A model without a driver: the device and its nodes are gone for good.
    EXPECT_EQ(code("nodeTableAddMulti", node_array({{1, 11, "D11"}})), 0);
    EXPECT_EQ(code("SerialDeviceMdf", serial_args(1, 2, 101, "gone")), 2);
    EXPECT_TRUE(rows("select * from SerialDevTable").empty());
    EXPECT_TRUE(rows("select * from NodeTable").empty());
    restart_daemon();
    EXPECT_FALSE(in_memory(1));
    EXPECT_TRUE(in_memory(5));
}

TEST_F(Config, DeletingAndSynchronisingDevices)
{
    start_daemon();
    EXPECT_EQ(code("SerialDeviceAdd", serial_args(1, 1, 102, "fx")), 0);
    EXPECT_EQ(code("EthernetDeviceAdd", ethernet_args(2, 2, 3, "s7")), 0);
    EXPECT_EQ(code("SerialDeviceDel", g_variant_new("(uuuus)", 1u, 0u, 0u, 0u, "")), 0);
    EXPECT_FALSE(in_memory(1));
    EXPECT_EQ(rows("select dev_id from SerialDevTable"), (rows_t{"1"}))
        << "no node, no commit: the row stays";
    EXPECT_EQ(code("EthernetDeviceDel", g_variant_new("(uuuus)", 2u, 1u, 0u, 0u, "")), 0);
    EXPECT_TRUE(rows("select * from EthernetDevTable").empty());
    restart_daemon();
    EXPECT_TRUE(in_memory(1)) << "the serial row brings the device back";
    EXPECT_FALSE(in_memory(2));

    // With nodes present, the serial delete commits and takes its nodes along.
    EXPECT_EQ(code("SerialDeviceAdd", serial_args(3, 1, 101, "fx3")), 0);
    EXPECT_EQ(code("nodeTableAddMulti", node_array({{3, 30, "D0"}, {1, 31, "D1"}})), 0);
    EXPECT_EQ(code("SerialDeviceDel", g_variant_new("(uuuus)", 3u, 0u, 0u, 0u, "")), 0);
    EXPECT_EQ(rows("select dev_id from SerialDevTable"), (rows_t{"1"}));
    EXPECT_EQ(rows("select node_id from NodeTable"), (rows_t{"31"}));

    // Synchronising serial devices: serial device 1 is there.
    EXPECT_EQ(code("EthernetDeviceAdd", ethernet_args(7, 2, 3, "s7")), 0);
    EXPECT_EQ(code("nodeTableAddMulti", node_array({{7, 70, "DB1.DBW0"}, {1, 10, "D0"}})), 0);
    EXPECT_EQ(code("SerialDeviceSyncMulti",
                   g_variant_new_parsed("([(uint32 2, uint32 0, uint32 1, uint32 101, 'fx3', uint32 1, "
                                        "uint32 0, uint32 1, uint32 9600, uint32 8, uint32 1, uint32 0),"
                                        "(3, 0, 2, 101, 'nodriver', 1, 0, 1, 9600, 8, 1, 0),"
                                        "(7, 0, 1, 102, 'clash', 1, 0, 1, 9600, 8, 1, 0)],)")),
              3);
    // Every element is written; memory has only what could be bound.
    EXPECT_EQ(rows("select dev_id from SerialDevTable order by dev_id"), (rows_t{"2", "3", "7"}));
    EXPECT_TRUE(in_memory(2));
    EXPECT_FALSE(in_memory(1));
    EXPECT_TRUE(node_in_memory(7, 70)) << "Ethernet devices and their nodes are untouched";
    EXPECT_EQ(rows("select node_id from NodeTable order by node_id"), (rows_t{"10", "31", "70"}))
        << "node rows of removed serial devices stay";

    EXPECT_EQ(code("SerialDeviceSyncMulti", g_variant_new_parsed("(@a(uuuusuuuuuuu) [],)")), 0);
    EXPECT_TRUE(rows("select * from SerialDevTable").empty());
    EXPECT_FALSE(in_memory(2));

    // Two elements with one id: the insert fails, nothing changes anywhere.
    EXPECT_EQ(code("EthernetDeviceSyncMulti",
                   g_variant_new_parsed("([(uint32 8, uint32 1, uint32 2, uint32 3, 'a', '1.2.3.4', "
                                        "uint32 102, uint32 0, uint32 1), (8, 1, 2, 4, 'b', "
                                        "'1.2.3.4', 102, 0, 1)],)")),
              3);
    EXPECT_EQ(rows("select dev_id from EthernetDevTable"), (rows_t{"7"}));
    EXPECT_TRUE(in_memory(7));
}

TEST_F(Config, NodeMethods)
{
    start_daemon();
    EXPECT_EQ(code("SerialDeviceAdd", serial_args(1, 1, 102, "a")), 0);
    EXPECT_EQ(code("SerialDeviceAdd", serial_args(2, 1, 101, "b")), 0);

    // Unknown device: the rows are committed, memory keeps none of the request.
    EXPECT_EQ(code("nodeTableAddMulti", node_array({{1, 10, "D0"}, {99, 11, "D1"}})), 2);
    EXPECT_EQ(rows("select node_id from NodeTable order by node_id"), (rows_t{"10", "11"}));
    EXPECT_FALSE(node_in_memory(1, 10));
    EXPECT_NE(daemon_->out().find("Msg: not all node added success."), std::string::npos);

    // Two elements with one id: nothing written.
    EXPECT_EQ(code("nodeTableAddMulti", node_array({{1, 20, "D0"}, {1, 20, "D1"}})), 2);
    EXPECT_TRUE(rows("select * from NodeTable where node_id = 20").empty());

    EXPECT_EQ(code("nodeTableSyncMulti", node_array({{1, 30, "D30"}, {1, 31, "D31"}})), 0);
    EXPECT_EQ(rows("select node_id from NodeTable order by node_id"), (rows_t{"30", "31"}));
    // Modify moves a node to the device given; an unknown device answers 6
    // but the row is written all the same.
    EXPECT_EQ(code("nodeTableMdfOne", node_tuple({2, 31, "M5", 1, "moved", "b"})), 0);
    EXPECT_EQ(rows("select dev_id, node_addr from NodeTable where node_id = 31"), (rows_t{"2|M5"}));
    EXPECT_EQ(code("nodeTableMdfOne", node_tuple({77, 30, "X0"})), 6);
    EXPECT_EQ(rows("select dev_id from NodeTable where node_id = 30"), (rows_t{"77"}));
    EXPECT_EQ(code("nodeTableMdfOne", node_tuple({1, 555, "X0"})), 6);
    EXPECT_EQ(rows("select node_id from NodeTable where node_id = 555"), (rows_t{"555"}));

    EXPECT_EQ(code("nodeTableDelMulti", node_id_array({31, 12345})), 0);
    EXPECT_TRUE(rows("select * from NodeTable where node_id = 31").empty());
    EXPECT_NE(daemon_->out().find("Msg: node not exist."), std::string::npos);

    EXPECT_EQ(code("nodeTableSyncMulti", node_array({})), 0);
    EXPECT_TRUE(rows("select * from NodeTable").empty());
    EXPECT_EQ(code("nodeTableSyncMulti", node_array({{1, 40, "D0"}, {98, 41, "D1"}})), 3);
    EXPECT_EQ(rows("select node_id from NodeTable order by node_id"), (rows_t{"40", "41"}));

    // Alarm values are stored unsigned and come back signed.
    GVariant *n = g_variant_new("(suussusubbuuiuuiss)", "t", 1u, 5u, "n5", "val:1", 4u, "bar",
                                2u, TRUE, FALSE, 3u, 4u, -5, 6u, 7u, -1, "hot", "desc");
    EXPECT_EQ(code("nodeTableAddMulti", g_variant_new("(@a(suussusubbuuiuuiss))",
                                                      g_variant_new_array(nullptr, &n, 1))),
              0);
    EXPECT_EQ(rows("select * from NodeTable where node_id = 5"),
              (rows_t{"t|1|5|n5|val:1|4|bar|2|1|0|3|4|4294967291|6|7|4294967295|hot|desc"}));
    restart_daemon(); // and the node is back
    EXPECT_TRUE(node_in_memory(1, 5));
}

TEST_F(Config, DatabaseThatCannotBeOpenedChangesNothingInMemory)
{
    start_daemon();
    EXPECT_EQ(code("SerialDeviceAdd", serial_args(1, 1, 102, "fx")), 0);
    EXPECT_EQ(code("EthernetDeviceAdd", ethernet_args(2, 2, 3, "s7")), 0);
    EXPECT_EQ(code("nodeTableAddMulti", node_array({{1, 10, "D0"}})), 0);
    // A directory where the database file was: every open now fails.
    ASSERT_EQ(rename(db_path().c_str(), (db_path() + ".away").c_str()), 0);
    ASSERT_EQ(mkdir(db_path().c_str(), 0755), 0);
    EXPECT_EQ(code("SerialDeviceDel", g_variant_new("(uuuus)", 1u, 0u, 0u, 0u, "")), -1);
    EXPECT_EQ(code("EthernetDeviceDel", g_variant_new("(uuuus)", 2u, 1u, 0u, 0u, "")), -1);
    EXPECT_EQ(code("nodeTableMdfOne", node_tuple({1, 10, "D9"})), -1);
    EXPECT_EQ(code("nodeTableDelMulti", node_id_array({10})), -1);
    EXPECT_EQ(code("nodeTableAddMulti", node_array({{1, 11, "D1"}})), 2);
    EXPECT_EQ(code("nodeTableSyncMulti", node_array({})), 3);
    EXPECT_EQ(code("SerialDeviceSyncMulti", g_variant_new_parsed("(@a(uuuusuuuuuuu) [],)")),
              3);
    // Add and modify keep memory as the truth even without the database.
    EXPECT_EQ(code("SerialDeviceAdd", serial_args(3, 1, 101, "fx3")), 0);
    for (uint32_t id : {1u, 2u, 3u})
        EXPECT_TRUE(in_memory(id)) << id;
    EXPECT_FALSE(node_in_memory(1, 10)) << "modify needs the database first";
    ASSERT_EQ(rmdir(db_path().c_str()), 0);
    ASSERT_EQ(rename((db_path() + ".away").c_str(), db_path().c_str()), 0);
    EXPECT_TRUE(node_in_memory(1, 10));
}

// Memory running out in a handler (a bulk call's records) must not unwind into
// the bus library: the call is answered with the method's failure code, the
// change is over and the lists are free for the reading thread again.
TEST(BusBoundary, ThrowingHandlerAnswersWithFailureCode)
{
    LogRecords logs;
    int answered = 0;
    capture_output([&] {
        plc_handlers::serve(
            "on_handle_node_table_sync_multi_1", 3, []() -> int { throw std::bad_alloc(); },
            [&](int r) { answered = r; });
    });
    EXPECT_EQ(answered, 3);
    EXPECT_TRUE(logs.contains("<on_handle_node_table_sync_multi_1> failed: std::bad_alloc"))
        << logs.text();
    EXPECT_EQ(List_Change_Flag.load(), 2);
    ASSERT_TRUE(node_table_slist_mutex.try_lock());
    node_table_slist_mutex.unlock();
}
