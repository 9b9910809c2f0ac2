// The configuration database, restore at start-up and the blob store, in
// process, in a scratch working directory.
#include <gtest/gtest.h>
#include <malloc.h>

#include <filesystem>
#include <future>

#include "database/blob_store.h"
#include "database/device_db.pb-c.h"
#include "database/plc_database.h"
#include "database/restore.h"
#include "device/driver/driver_modules.h"
#include "base/runtime.h"
#include "support/sqlite_rows.h"
#include "support/test_util.h"

using namespace dstest;

class Database : public ::testing::Test {
protected:
    Database() { std::filesystem::current_path(dir_.path()); }
    ~Database() override
    {
        node_table_del_all();
        while (GSList *l = get_activated_device()) {
            auto *dev = static_cast<plc_device *>(l->data);
            device_unregister(dev);
            delete dev;
        }
        std::filesystem::current_path(old_cwd_);
    }
    std::vector<uint32_t> device_ids()
    {
        std::vector<uint32_t> ids;
        for (GSList *l = get_activated_device(); l != nullptr; l = l->next)
            ids.push_back(static_cast<plc_device *>(l->data)->dev_id);
        return ids;
    }
    std::vector<uint32_t> node_ids()
    {
        std::vector<uint32_t> ids;
        for (GList *l = get_node_table_list(); l != nullptr; l = l->next)
            ids.push_back(static_cast<node *>(l->data)->node_id);
        return ids;
    }
    const std::filesystem::path old_cwd_ = std::filesystem::current_path();
    TempDir dir_;
};

TEST_F(Database, OneStatementPerExecutionAndBufferThatOnlyGrows)
{
    ASSERT_EQ(open_database(), 0);
    ASSERT_EQ(create_node_table_in_database(), 0);
    EXPECT_EQ(create_node_table_in_database(), -1) << "second create fails: table exists";
    node *n = node_create("d", 1, 7, "n", "D1", 4, "", 0, 0, 0, 0, 0, -5, 0, 0, -1, "", "");
    ASSERT_EQ(add_node_to_node_table(n), 0);
    EXPECT_EQ(add_node_to_node_table(n), -1) << "duplicate key";
    EXPECT_EQ(delete_node_from_node_table(999), 0) << "deleting a missing key is no failure";

    // A value may break its own statement, never run a second one.
    auto c = capture_output([] { EXPECT_EQ(exec_sql("delete from NodeTable; select 1;"), -1); });
    EXPECT_NE(c.out.find("sqlite3_exec err: "), std::string::npos);
    EXPECT_EQ(exec_sql("select 1; -- trailing comment"), 0);

    auto capacity = [] { return malloc_usable_size(new_delete_node_sql(7)); };
    EXPECT_LT(capacity(), 2048u);
    n->rare = node_rare_texts("", "", std::string(5000, 'x').c_str());
    ASSERT_EQ(update_node_for_node_table(n), 0);
    EXPECT_GT(capacity(), 5000u) << "the buffer never shrinks";
    EXPECT_EQ(new_add_node_sql(nullptr), nullptr);
    close_database();
    EXPECT_GT(capacity(), 5000u) << "nor forgets its size when the database closes";
    node_free(n);

    const auto rows = sqlite_rows("my.db", "select node_alarm_value_major, node_alarm_value_minor, "
                                           "length(node_description) from NodeTable");
    EXPECT_EQ(rows, (std::vector<std::string>{"4294967291|4294967295|5000"}));

    c = capture_output([] { EXPECT_EQ(exec_sql("select 1;"), -1); });
    EXPECT_EQ(c.out, "err : db = NULL\n");
}

TEST_F(Database, RestoreOrderSkipsAndSignedAlarms)
{
    init_driver();
    // A fresh directory starts empty with every table made.
    capture_output([] { init_database(); });
    EXPECT_TRUE(device_ids().empty());
    EXPECT_EQ(sqlite_rows("my.db", "select name from sqlite_master order by name"),
              (std::vector<std::string>{"EthernetDevTable", "NodeTable", "SerialDevTable"}));
    ASSERT_TRUE(sqlite_exec("my.db", R"(
insert into SerialDevTable values (9,'s9',0,1,102,0,1,1,9600,8,1,0);
insert into SerialDevTable values (3,'s3',0,3,201,0,2,1,9600,7,1,1);
insert into SerialDevTable values (5,'nodriver',0,2,101,0,1,1,9600,8,1,0);
insert into EthernetDevTable values (3,'clash',1,2,3,'127.0.0.1',102,0,1);
insert into EthernetDevTable values (1,'e1',1,2,3,'127.0.0.1',102,0,1);
)"));
    ASSERT_EQ(open_database(), 0);
    for (uint32_t id : {30u, 10u, 20u, 40u}) {
        const uint32_t dev = id == 40 ? 77 : 9; // 77 has no device
        node *n = node_create("s9", dev, id, "n", "D1", 4, "", 0, 1, 0, 0, 0, -5, 0, 0, 3, "", "");
        ASSERT_EQ(add_node_to_node_table(n), 0);
        node_free(n);
    }
    close_database();

    auto c = capture_output([] { init_database(); });
    EXPECT_EQ(device_ids(), (std::vector<uint32_t>{3, 9, 1}))
        << "serial by ascending id, then Ethernet";
    EXPECT_EQ(node_ids(), (std::vector<uint32_t>{10, 20, 30}));
    EXPECT_NE(c.out.find("<read_ethernet_dev_callback> same dev_id, can not add.\n"),
              std::string::npos);
    EXPECT_NE(c.out.find("sqlite3_exec err: table SerialDevTable already exists"),
              std::string::npos);
    EXPECT_NE(c.out.find("===> dev add: dev_name:nodriver, dev_id:5\n"), std::string::npos);
    EXPECT_EQ(device_find(5), nullptr);
    EXPECT_EQ(node_table_find(10)->node_alarm_value_major, -5);
    EXPECT_EQ(node_table_find(10)->node_report_enable, 1);
    EXPECT_NE(device_find(9)->driver, nullptr);
    // Skipped rows stay where they were.
    EXPECT_EQ(sqlite_rows("my.db", "select count(*) from NodeTable"), (std::vector<std::string>{"4"}));
    EXPECT_EQ(sqlite_rows("my.db", "select dev_id from SerialDevTable where dev_id = 5").size(), 1u);
    // The blob store's tables were made alongside.
    EXPECT_EQ(sqlite_rows("plc_service.db",
                          "select name from sqlite_master where type='table' order by name"),
              (std::vector<std::string>{"PlcDevEthernet", "PlcDevSerial", "PlcNode"}));
}

TEST_F(Database, BlobRestoreCallbacksRebuildRecordsByFieldName)
{
    init_driver();
    MsgPlcDevSerial s = MSG_PLC_DEV_SERIAL__INIT;
    s.dev_id = 4;
    s.dev_name = const_cast<char *>("line");
    s.dev_mfg = 1;
    s.dev_type = 101;
    s.dev_serial_number = 2;
    s.dev_serial_baudrate = 19200;
    std::vector<uint8_t> buf(msg_plc_dev_serial__get_packed_size(&s));
    msg_plc_dev_serial__pack(&s, buf.data());
    // A restored record is a configuration change: it waits for the lists'
    // lock and leaves the change flag at 2 for the reading thread.
    List_Change_Flag.store(0);
    capture_output([&] {
        std::future<int> done;
        {
            std::lock_guard<std::mutex> hold(node_table_slist_mutex);
            done = std::async(std::launch::async, [&] {
                return on_restore_serial_device_callback(buf.data(), buf.size());
            });
            EXPECT_EQ(done.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout)
                << "registered without the lock";
        }
        EXPECT_EQ(done.get(), 0);
    });
    EXPECT_EQ(List_Change_Flag.load(), 2);
    auto *dev = static_cast<serial_device *>(device_find(4));
    ASSERT_NE(dev, nullptr);
    EXPECT_EQ(dev->serial_number, 2u);
    EXPECT_EQ(dev->baudrate, 19200u);
    auto c = capture_output([&] { on_restore_serial_device_callback(buf.data(), buf.size()); });
    EXPECT_NE(c.out.find("same dev_id, can not add."), std::string::npos);

    MsgPlcNode n = MSG_PLC_NODE__INIT;
    n.node_id = 8;
    n.dev_id = 4;
    n.node_addr = const_cast<char *>("D8");
    n.node_alarm_value_minor = -9;
    n.node_alarm_enable = true;
    const auto restore_node = [&] {
        buf.assign(msg_plc_node__get_packed_size(&n), 0);
        msg_plc_node__pack(&n, buf.data());
        return on_restore_node_table_callback(buf.data(), buf.size());
    };
    List_Change_Flag.store(0);
    EXPECT_EQ(restore_node(), 0);
    EXPECT_EQ(List_Change_Flag.load(), 2);
    ASSERT_NE(node_table_find(8), nullptr);
    EXPECT_EQ(node_table_find(8)->node_alarm_value_minor, -9);
    EXPECT_EQ(node_table_find(8)->node_alarm_enable, 1);
    n.dev_id = 5;
    n.node_id = 9;
    restore_node();
    EXPECT_EQ(node_table_find(9), nullptr) << "no device 5";
    // Garbage is not a message: ignored.
    const uint8_t junk[] = {0xff, 0xff, 0xff};
    EXPECT_EQ(on_restore_ethernet_device_callback(junk, sizeof junk), 0);

    // The blob store saves, replaces, deletes and restores.
    ASSERT_EQ(database_create_table("plc_service.db", "PlcNode"), 0);
    ASSERT_EQ(database_create_table("plc_service.db", "PlcNode"), 0);
    const std::string first = "first", second = "second", third = "third";
    auto bytes = [](const std::string &text) { return reinterpret_cast<const uint8_t *>(text.data()); };
    capture_output([&] {
        database_save_message("plc_service.db", "PlcNode", 2, "two", bytes(first), first.size());
        database_save_message("plc_service.db", "PlcNode", 1, "one", bytes(second), second.size());
        database_save_message("plc_service.db", "PlcNode", 2, "renamed", bytes(third), third.size());
    });
    EXPECT_EQ(sqlite_rows("plc_service.db", "select ID, NAME from PlcNode order by ID"),
              (std::vector<std::string>{"1|one", "2|two"}));
    static std::vector<std::string> restored;
    const auto remember = [](const uint8_t *payload, size_t length) {
        restored.emplace_back(reinterpret_cast<const char *>(payload), length);
        return 1; // a callback's result does not stop the walk
    };
    capture_output([&] { database_restore_message("plc_service.db", "PlcNode", remember); });
    EXPECT_EQ(restored.size(), 2u);
    EXPECT_NE(std::find(restored.begin(), restored.end(), "third"), restored.end());
    capture_output([] { database_delete_message("plc_service.db", "PlcNode", 2); });
    EXPECT_EQ(sqlite_rows("plc_service.db", "select ID from PlcNode"),
              (std::vector<std::string>{"1"}));

    // A length past what SQLite holds is refused as too big, which ends the
    // process, where a length cut to int stored the first few bytes.
    const size_t huge = (size_t{1} << 32) + 5;
    EXPECT_DEATH(database_save_message("plc_service.db", "PlcNode", 3, "big", bytes(first), huge),
                 "Failed to bind blob\\(insert\\)");
    EXPECT_DEATH(database_save_message("plc_service.db", "PlcNode", 1, "one", bytes(first), huge),
                 "Failed to bind blob\\(update\\)");
}
