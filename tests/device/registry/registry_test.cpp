// Records, the node table list and the driver registry, in process.
#include <gtest/gtest.h>

#include <memory>

#include "device/registry/driver.h"
#include "device/driver/driver_modules.h"
#include "device/plc/plc_ethernet.h"
#include "device/plc/plc_node.h"
#include "device/plc/plc_serial.h"
#include "support/test_util.h"

using dstest::capture_output;

namespace {

node *make_node(uint32_t node_id, uint32_t dev_id = 1)
{
    return node_create("dev", dev_id, node_id, "n", "D100", 4, "", 0, 0, 0, 0, 0, -5, 0, 0, 0, "",
                       "");
}

} // namespace

TEST(Records, CopiesCarryNeitherDriverNorValueAndShowFormats)
{
    init_driver();
    std::unique_ptr<serial_device> s(serial_device_create(7, "line", 0, 1, 102, 1, 2, 3, 9600, 8, 1, 0));
    s->driver = device_driver_match(s.get());
    ASSERT_NE(s->driver, nullptr);
    std::unique_ptr<serial_device> sc(serial_device_copy(s.get()));
    EXPECT_EQ(sc->driver, nullptr);
    EXPECT_EQ(sc->dev_name, "line");
    EXPECT_EQ(sc->parity_bit, 0u);
    EXPECT_EQ(sc->baudrate, 9600u);

    std::unique_ptr<ethernet_device> e(ethernet_device_create(8, "cell", 1, 2, 3, "127.0.0.1", 102, 0, 1));
    e->driver = device_driver_match(e.get());
    std::unique_ptr<ethernet_device> ec(ethernet_device_copy(e.get()));
    EXPECT_EQ(ec->driver, nullptr);
    EXPECT_EQ(ec->ip_addr, "127.0.0.1");

    std::unique_ptr<node> n(make_node(1));
    n->rare = node_rare_texts("rpm", "", "shaft");
    std::unique_ptr<node> nc(node_copy(n.get()));
    EXPECT_STREQ(nc->rare.unit(), "rpm");
    EXPECT_STREQ(nc->rare.alarm_content(), "");
    EXPECT_STREQ(nc->rare.description(), "shaft");
    EXPECT_EQ(nc->node_alarm_value_major, -5);
    EXPECT_EQ(nc->node_addr, "D100");

    // What the records print.
    auto c = capture_output([&] { node_show(n.get()); });
    EXPECT_EQ(c.out.rfind("\t " + std::string(80, '=') + "\n", 0), 0u);
    EXPECT_NE(c.out.find("\t node_ame: n\n"), std::string::npos);
    EXPECT_NE(c.out.find("\t node_alarm_value_major: -5\n"), std::string::npos);
    EXPECT_EQ(capture_output([&] { ethernet_device_show(e.get()); }).out,
              "\t dev_id: 8\n\t dev_name: cell\n\t dev_comm_type: 1\n\t dev_mfg: 2\n\t dev_type: "
              "3\n\t ip_addr: 127.0.0.1\n\t port: 102\n\t rack: 0\n\t slot: 1\n");
    EXPECT_EQ(capture_output([] { serial_device_show(nullptr); }).out, "");

    serial_device_free(nullptr);
    node_free(nullptr);
    const auto text = [](void (*convert)(uint32_t, char *, size_t), uint32_t code) {
        char t[16];
        convert(code, t, sizeof t);
        return std::string(t);
    };
    EXPECT_EQ(text(convert_dev_type, 105) + "," + text(convert_dev_type, 2) + "," +
                  text(convert_dev_mfg, 3) + "," + text(convert_node_data_type, 15) + "," +
                  text(convert_node_data_type, 0),
              "Unknown,S7-200 Smart,Delta,String,Unknown");
}

TEST(NodeTable, DuplicateIdIsRefusedAndOrderKept)
{
    ASSERT_EQ(node_table_add_one(make_node(5, 1)), 0);
    ASSERT_EQ(node_table_add_one(make_node(2, 1)), 0);
    node *dup = make_node(5, 9);
    int r = 0;
    auto c = capture_output([&] { r = node_table_add_one(dup); });
    EXPECT_EQ(r, -1);
    EXPECT_NE(c.out.find("Msg: same node id.\n\n"), std::string::npos) << c.out;
    EXPECT_NE(c.out.find("File: device/plc/plc_node\n"), std::string::npos);
    node_free(dup);
    ASSERT_EQ(node_table_add_one(make_node(9, 2)), 0);

    const auto ids = [] {
        std::vector<uint32_t> v;
        for (GList *l = get_node_table_list(); l != nullptr; l = l->next)
            v.push_back(static_cast<node *>(l->data)->node_id);
        return v;
    };
    EXPECT_EQ(ids(), (std::vector<uint32_t>{5, 2, 9}));

    c = capture_output([&] { r = node_table_del_one(2); });
    EXPECT_EQ(r, 0);
    EXPECT_EQ(c.out, "===> node del: dev_name:dev, dev_id:1, node_id:2\n");
    c = capture_output([&] { r = node_table_del_one(2); });
    EXPECT_EQ(r, -1);
    EXPECT_NE(c.out.find("Msg: node not exist."), std::string::npos);

    // The tail is still right after removing from the middle.
    ASSERT_EQ(node_table_add_one(make_node(11, 2)), 0);
    EXPECT_EQ(ids(), (std::vector<uint32_t>{5, 9, 11}));

    c = capture_output([] { node_table_del_all(); });
    EXPECT_EQ(dstest::count_of(c.out, "===> node del:"), 3u);
    EXPECT_EQ(get_node_table_list(), nullptr);
    EXPECT_EQ(capture_output([] { node_table_del_all(); }).out, "");
}

TEST(Registry, InitRegistersTwelveDriversInTableOrderMatchedByMakerAndModel)
{
    auto c = capture_output([] {
        deinit_driver(); // whatever an earlier test in this process registered
        init_driver();
    });
    const char *order[] = {"mitsubishi_fx1n", "mitsubishi_fx3u",    "mitsubishi_fx5u",
                           "mitsubishi_QnA_3E", "mitusbishi_Qserial", "siemens_s7_200",
                           "siemens_s7_200smart", "siemens_s7_1200", "siemens_s7_1500",
                           "siemens_s7_300",  "siemens_s7_400",     "delta_dvp32ec"};
    size_t pos = 0;
    for (const char *name : order) {
        const std::string line = std::string("<") + name + "_init> called\n";
        size_t at = c.out.find(line, pos);
        ASSERT_NE(at, std::string::npos) << line;
        pos = at;
    }
    EXPECT_NE(c.out.find("<init_driver_modules>: succeed to init driver modules\n", pos),
              std::string::npos);
    std::vector<std::string> names;
    for (GSList *l = get_activated_driver(); l != nullptr; l = l->next)
        names.push_back(static_cast<driver *>(l->data)->name);
    EXPECT_EQ(names, std::vector<std::string>(std::begin(order), std::end(order)));

    // Matching compares maker and model only.
    plc_device q;
    q.dev_mfg = 1;
    q.dev_type = 105;
    q.dev_comm_type = 1; // says Ethernet, binds the serial Q driver all the same
    driver *d = device_driver_match(&q);
    ASSERT_NE(d, nullptr);
    EXPECT_STREQ(d->name, "mitusbishi_Qserial");

    plc_device none;
    none.dev_mfg = 2;
    none.dev_type = 101;
    c = capture_output([&] { d = device_driver_match(&none); });
    EXPECT_EQ(d, nullptr);
    EXPECT_NE(c.out.find("<device_driver_match> called, try to match dev(2/101), drv(1/102)\n"),
              std::string::npos);
    EXPECT_TRUE(c.out.ends_with("<device_driver_match> called, failed to match\n"));

    // A driver initialised twice is registered twice; its data is kept.
    c = capture_output([] { siemens_s7_300_init(); });
    EXPECT_NE(c.out.find("s7_300_drvdata.drv.priv != NULL\n"), std::string::npos);
    int count = 0;
    driver *first = nullptr;
    for (GSList *l = get_activated_driver(); l != nullptr; l = l->next) {
        auto *each = static_cast<driver *>(l->data);
        if (each->type == 5 && each->mfg == 2) {
            ++count;
            first = first != nullptr ? first : each;
        }
    }
    EXPECT_EQ(count, 2);
    none.dev_type = 5;
    EXPECT_EQ(device_driver_match(&none), first);
    c = capture_output([] { deinit_driver(); });
    EXPECT_NE(c.out.find("<deinit_driver_modules>: succeed to deinit driver modules\n"),
              std::string::npos);
}

TEST(Registry, DeviceListRegistersAndUnregisters)
{
    int r = 0;
    auto c = capture_output([&] { r = device_register(nullptr); });
    EXPECT_EQ(r, -1);
    EXPECT_EQ(c.out, "<device_register>: Failed to registe device(dev == NULL)\n");
    c = capture_output([&] { r = device_unregister(nullptr); });
    EXPECT_EQ(c.out, "<device_unregister>: Failed to unregiste device(dev == NULL)\n");

    auto *a = serial_device_create(1, "a", 0, 1, 102, 0, 1, 1, 9600, 8, 1, 0);
    auto *b = ethernet_device_create(2, "b", 1, 2, 3, "127.0.0.1", 102, 0, 1);
    auto *c3 = serial_device_create(3, "c", 0, 1, 101, 0, 1, 1, 9600, 8, 1, 0);
    device_register(a);
    device_register(b);
    device_register(c3);
    EXPECT_EQ(device_find(2), b);
    device_unregister(c3); // the tail
    device_unregister(a);  // the head
    auto *d = serial_device_create(4, "d", 0, 1, 101, 0, 1, 1, 9600, 8, 1, 0);
    device_register(d);
    std::vector<uint32_t> ids;
    for (GSList *l = get_activated_device(); l != nullptr; l = l->next)
        ids.push_back(static_cast<plc_device *>(l->data)->dev_id);
    EXPECT_EQ(ids, (std::vector<uint32_t>{2, 4}));
    EXPECT_EQ(device_find(1), nullptr);
    EXPECT_EQ(device_find(4), d);
    delete a;
    delete c3;
}

