// The client's reading of configuration files and options, its names for
// models and data types, and the arrays it sends.
#include <gtest/gtest.h>

#include <algorithm>

#include "ctl_config.h"
#include "device/driver/driver_modules.h"
#include "device/plc/plc_device.h"
#include "support/test_util.h"

namespace {

// A minimal valid file with `serial`, `ethernet` and `nodes` spliced in.
std::string file_with(const std::string &serial, const std::string &ethernet,
                      const std::string &nodes)
{
    return R"({"serial_devices": [)" + serial + R"(], "ethernet_devices": [)" + ethernet +
           R"(], "nodes": [)" + nodes + "]}";
}

const std::string fx = R"({"dev_id": 1, "dev_name": "fx", "model": "FX-3U", "serial_number": 1})";
const std::string s7 = R"({"dev_id": 2, "dev_name": "s7", "model": "S7-1200", "ip_addr": "10.0.0.5"})";
const std::string d100 =
    R"({"node_id": 7, "dev_id": 1, "node_name": "n", "node_addr": "D100", "node_data_type": "U16"})";

std::string mistake(const std::string &text)
{
    ctl::Config cfg;
    cfg.nodes.resize(3); // what was there before stays when the file is refused
    std::string err;
    EXPECT_FALSE(ctl::parse_config("plant.json", text, cfg, err)) << text;
    EXPECT_EQ(cfg.nodes.size(), 3u) << text;
    EXPECT_EQ(err.find('\n'), std::string::npos) << "one line: " << err;
    return err;
}

} // namespace

TEST(CtlConfigFile, SyntaxErrorsGiveLineAndColumn)
{
    EXPECT_EQ(mistake("{\"nodes\": [}").rfind("plant.json:1:12: ", 0), 0u) << mistake("{\"nodes\": [}");
    const std::string text = "{\n  \"serial_devices\": [\n    {\"dev_id\": 1,,}\n  ]\n}";
    EXPECT_EQ(mistake(text).rfind("plant.json:3:", 0), 0u) << mistake(text);
    EXPECT_EQ(mistake("[1, 2]"),
              "plant.json: expected an object with serial_devices, ethernet_devices and nodes");
    EXPECT_EQ(mistake(""), "plant.json: expected an object with serial_devices, ethernet_devices and nodes");
}

TEST(CtlConfigFile, MistakesNameTheirPlace)
{
    const std::pair<std::string, std::string> cases[] = {
        {file_with(R"({"dev_id": 1, "dev_name": "a", "model": "FX-9", "serial_number": 1})", "", ""),
         "plant.json: serial_devices[0].model: unknown model 'FX-9'; known: FX-3U, FX-1N, FX-5U, "
         "QnA_3E, Q-serial, S7-200, S7-200 Smart, S7-1200, S7-1500, S7-300, S7-400, DVP-32EC"},
        {file_with(fx, s7, d100 + "," + R"({"node_id": 8, "dev_id": 1, "node_name": "n", "node_data_type": "U16"})"),
         "plant.json: nodes[1].node_addr: missing field"},
        {file_with(fx, R"({"dev_id": 2, "dev_name": "s7", "model": "S7-1200"})", ""),
         "plant.json: ethernet_devices[0].ip_addr: missing field"},
        {file_with(R"({"dev_id": 1, "dev_name": "a", "model": "S7-1200", "serial_number": 1})", "", ""),
         "plant.json: serial_devices[0].model: S7-1200 is an Ethernet model"},
        {file_with("", R"({"dev_id": 1, "dev_name": "a", "model": 105, "ip_addr": "10.0.0.5"})", ""),
         "plant.json: ethernet_devices[0].model: Q-serial is a serial model"},
        {file_with(fx, s7, R"({"node_id": 7, "dev_id": 4, "node_name": "n", "node_addr": "D0", "node_data_type": "U16"})"),
         "plant.json: nodes[0].dev_id: no device 4 in this file"},
        {file_with(fx, R"({"dev_id": 1, "dev_name": "s7", "model": "S7-1200", "ip_addr": "10.0.0.5"})", ""),
         "plant.json: ethernet_devices[0].dev_id: 1 is also the dev_id of serial_devices[0]"},
        {file_with(fx, s7, d100 + "," + d100), "plant.json: nodes[1].node_id: 7 is also the node_id of nodes[0]"},
        {file_with(R"({"dev_id": "1", "dev_name": "a", "model": "FX-3U", "serial_number": 1})", "", ""),
         "plant.json: serial_devices[0].dev_id: expected a whole number"},
        {file_with(R"({"dev_id": -1, "dev_name": "a", "model": "FX-3U", "serial_number": 1})", "", ""),
         "plant.json: serial_devices[0].dev_id: expected a whole number from 0 to 4294967295"},
        {file_with(R"({"dev_id": 1.5, "dev_name": "a", "model": "FX-3U", "serial_number": 1})", "", ""),
         "plant.json: serial_devices[0].dev_id: expected a whole number"},
        {file_with(R"({"dev_id": 1, "dev_name": "a", "model": "FX-3U", "serial_number": 3})", "", ""),
         "plant.json: serial_devices[0].serial_number: expected a whole number from 1 to 2"},
        {file_with(R"({"dev_id": 1, "dev_name": "a", "model": "FX-3U", "serial_number": 1, "baud_rate": 19200})", "", ""),
         "plant.json: serial_devices[0].baud_rate: unknown field"},
        {file_with(R"({"dev_id": 1, "dev_name": "a", "model": "FX-3U", "serial_number": 1, "parity_bit": "mark"})", "", ""),
         "plant.json: serial_devices[0].parity_bit: expected none, even or odd"},
        {file_with(R"({"dev_id": 1, "dev_name": 7, "model": "FX-3U", "serial_number": 1})", "", ""),
         "plant.json: serial_devices[0].dev_name: expected a text"},
        {file_with("", R"({"dev_id": 2, "dev_name": "s7", "model": "S7-1200", "ip_addr": "plc.local"})", ""),
         "plant.json: ethernet_devices[0].ip_addr: expected an IPv4 address such as 192.168.1.10, not 'plc.local'"},
        {file_with("", R"({"dev_id": 2, "dev_name": "q", "model": "QnA_3E", "ip_addr": "10.0.0.5"})", ""),
         "plant.json: ethernet_devices[0].port: missing field"},
        {file_with("", R"({"dev_id": 2, "dev_name": "s7", "model": "S7-1200", "ip_addr": "10.0.0.5", "port": 70000})", ""),
         "plant.json: ethernet_devices[0].port: expected a whole number from 1 to 65535"},
        {file_with(fx, "", R"({"node_id": 7, "dev_id": 1, "node_name": "n", "node_addr": "D1", "node_data_type": "U17"})"),
         "plant.json: nodes[0].node_data_type: unknown data type 'U17'; known: Bit, U8, S8, U16, S16, "
         "U32, S32, BCD16, BCD32, Float, HEX16, HEX32, BIN16, BIN32, String"},
        {file_with(fx, "", R"({"node_id": 7, "dev_id": 1, "node_name": "n", "node_addr": "D1", "node_data_type": [4]})"),
         "plant.json: nodes[0].node_data_type: expected a name or a number"},
        {file_with(fx, "", R"({"node_id": 7, "dev_id": 1, "node_name": "n", "node_addr": "M1", "node_data_type": 1, "node_report_enable": "yes"})"),
         "plant.json: nodes[0].node_report_enable: expected true or false"},
        {file_with(fx, "", R"({"node_id": 7, "dev_id": 1, "node_name": "n", "node_addr": "M1", "node_data_type": 1, "node_alarm_value_minor": 2147483648})"),
         "plant.json: nodes[0].node_alarm_value_minor: expected a whole number from -2147483648 to 2147483647"},
        {file_with(fx, "", "1"), "plant.json: nodes[0]: expected an object"},
        {R"({"serial_devices": [], "ethernet_devices": []})", "plant.json: nodes: missing field (an empty list is [])"},
        {R"({"serial_devices": {}, "ethernet_devices": [], "nodes": []})", "plant.json: serial_devices: expected a list"},
        {R"({"serial_devices": [], "ethernet_devices": [], "nodes": [], "devices": []})", "plant.json: devices: unknown field"},
    };
    for (const auto &[text, message] : cases)
        EXPECT_EQ(mistake(text), message) << text;
}

TEST(CtlConfigFile, DefaultsAndTheArraysSent)
{
    // Every field in a distinct value, so a field sent in another field's
    // place shows.
    const std::string text = file_with(
        R"({"dev_id": 1, "dev_name": "fx", "model": "FX-1N", "serial_number": 2, "station_num": 3,
            "serial_type": 4, "baudrate": 19200, "data_bit": 7, "stop_bit": 2, "parity_bit": "odd"},
           {"dev_id": 5, "dev_name": "dvp", "model": "dvp-32ec", "serial_number": 1})",
        R"({"dev_id": 9, "dev_name": "s7", "model": "S7-300", "ip_addr": "10.0.0.5", "rack": 6, "slot": 7},
           {"dev_id": 10, "dev_name": "q", "model": 104, "ip_addr": "10.0.0.6", "port": 5007})",
        R"({"node_id": 11, "dev_id": 9, "node_name": "speed", "node_addr": "DB1_DBD8", "node_data_type": "float",
            "node_unit": "rpm", "node_permission": 12, "node_report_enable": true, "node_alarm_enable": false,
            "node_alarm_bit": 13, "node_alarm_condition_major": 14, "node_alarm_value_major": -15,
            "node_alarm_operation_type": 16, "node_alarm_condition_minor": 17, "node_alarm_value_minor": 18,
            "node_alarm_content": "too fast", "node_description": "shaft"},
           {"node_id": 19, "dev_id": 5, "node_name": "m", "node_addr": "M1", "node_data_type": 1})");
    ctl::Config cfg;
    std::string err;
    ASSERT_TRUE(ctl::parse_config("plant.json", text, cfg, err)) << err;
    auto printed = [](GVariant *v) {
        g_variant_ref_sink(v);
        gchar *s = g_variant_print(v, FALSE);
        std::string out = s;
        g_free(s);
        g_variant_unref(v);
        return out;
    };
    EXPECT_EQ(printed(ctl::serial_array(cfg.serial)),
              "[(1, 0, 1, 102, 'fx', 3, 4, 2, 19200, 7, 2, 2), "
              "(5, 0, 3, 201, 'dvp', 0, 0, 1, 9600, 8, 1, 0)]");
    EXPECT_EQ(printed(ctl::ethernet_array(cfg.ethernet)),
              "[(9, 1, 2, 5, 's7', '10.0.0.5', 102, 6, 7), (10, 1, 1, 104, 'q', '10.0.0.6', 5007, 0, 1)]");
    EXPECT_EQ(printed(ctl::node_array(cfg.nodes)),
              "[('s7', 9, 11, 'speed', 'DB1_DBD8', 10, 'rpm', 12, true, false, 13, 14, -15, 16, 17, 18, "
              "'too fast', 'shaft'), "
              "('dvp', 5, 19, 'm', 'M1', 1, '', 0, false, false, 0, 0, 0, 0, 0, 0, '', '')]");

    // Empty lists are a valid configuration: they clear that part.
    ctl::Config empty;
    ASSERT_TRUE(ctl::parse_config("e.json", file_with("", "", ""), empty, err)) << err;
    GVariant *none = g_variant_ref_sink(ctl::node_array(empty.nodes));
    EXPECT_STREQ(g_variant_get_type_string(none), "a(suussusubbuuiuuiss)");
    EXPECT_EQ(g_variant_n_children(none), 0u);
    g_variant_unref(none);
}

TEST(CtlConfigFile, TheShippedExampleHasEveryModel)
{
    ctl::Config cfg;
    std::string err;
    ASSERT_TRUE(ctl::parse_config("plant.json", dstest::read_file(DS_SOURCE_DIR "/examples/plant.json"),
                                  cfg, err))
        << err;
    std::map<uint32_t, int> per_model, nodes_per_device;
    std::map<uint32_t, uint32_t> model_of;
    const auto count = [&](const auto &d) {
        ++per_model[d.dev_type];
        model_of[d.dev_id] = d.dev_type;
    };
    std::for_each(cfg.serial.begin(), cfg.serial.end(), count);
    std::for_each(cfg.ethernet.begin(), cfg.ethernet.end(), count);
    for (const auto &m : ctl::models())
        EXPECT_EQ(per_model[m.type], 1) << m.name;
    EXPECT_EQ(per_model.size(), 12u);
    for (const auto &n : cfg.nodes) {
        ++nodes_per_device[n.dev_id];
        // The Q-series drivers read only bits and signed words.
        if (model_of[n.dev_id] == 104 || model_of[n.dev_id] == 105) {
            EXPECT_TRUE(n.node_data_type == 1 || n.node_data_type == 5) << n.node_id;
        }
    }
    for (const auto &[dev, type] : model_of)
        EXPECT_GE(nodes_per_device[dev], 3) << ctl::model_name(type);
}

TEST(CtlNames, ModelsMatchTheDaemonsDrivers)
{
    init_driver();
    std::vector<const driver *> drivers;
    for (GSList *l = get_activated_driver(); l != nullptr; l = l->next)
        drivers.push_back(static_cast<const driver *>(l->data));
    for (const auto &m : ctl::models()) {
        int matching = 0;
        for (const driver *d : drivers) {
            if (d->mfg == m.mfg && d->type == m.type) {
                ++matching;
                EXPECT_EQ(d->comm, m.comm) << m.name << " binds " << d->name;
            }
        }
        EXPECT_EQ(matching, 1) << m.name;
        // The daemon's own display text, except where it has none.
        if (m.type != 105) {
            EXPECT_STREQ(dev_type_text(m.type), m.name);
        }
        ASSERT_TRUE(ctl::find_model(m.name));
        EXPECT_EQ(ctl::find_model(m.name)->type, m.type);
        EXPECT_EQ(ctl::find_model(std::to_string(m.type))->type, m.type);
        EXPECT_STREQ(ctl::model_name(m.type), m.name);
    }
    EXPECT_EQ(drivers.size(), ctl::models().size());
    deinit_driver();

    EXPECT_STREQ(ctl::model_name(105), "Q-serial");
    EXPECT_STREQ(dev_type_text(105), "Unknown");
    EXPECT_EQ(ctl::find_model("s7-200 SMART")->type, 2u);
    for (const char *no : {"7", "", "FX", "S7-1200 ", "-3"})
        EXPECT_FALSE(ctl::find_model(no)) << no;
}

TEST(CtlNames, DataTypesMatchTheDaemonsTexts)
{
    for (uint32_t t = 1; t <= 15; ++t) {
        EXPECT_STREQ(ctl::data_type_name(t), node_data_type_text(t));
        EXPECT_EQ(ctl::find_data_type(node_data_type_text(t)), t);
        EXPECT_EQ(ctl::find_data_type(std::to_string(t)), t);
    }
    EXPECT_EQ(ctl::find_data_type("float"), 10u);
    for (const char *no : {"0", "16", "U17", "+4", " 4", "4.0"})
        EXPECT_FALSE(ctl::find_data_type(no)) << no;
}

TEST(CtlNames, NumbersAndResultWords)
{
    EXPECT_EQ(ctl::parse_u32("4294967295"), 4294967295u);
    EXPECT_EQ(ctl::parse_i32("-2147483648"), INT32_MIN);
    for (const char *no : {"4294967296", "-1", "", "1 ", "0x10", "+1", "99999999999"})
        EXPECT_FALSE(ctl::parse_u32(no)) << no;
    EXPECT_FALSE(ctl::parse_i32("2147483648"));
    EXPECT_EQ(ctl::result_text("EthernetDeviceAdd", 1), "a device with this dev_id already exists");
    EXPECT_EQ(ctl::result_text("nodeTableAddMulti", 2), "not every node was added");
    EXPECT_EQ(ctl::result_text("SerialDeviceMdf", 2),
              "the device could not be created, or no driver matches its model");
    EXPECT_EQ(ctl::result_text("nodeTableSyncMulti", 3),
              "not every entry was applied, or the database step failed");
    EXPECT_EQ(ctl::result_text("nodeTableDelMulti", -1), "the database step failed");
    EXPECT_EQ(ctl::result_text("nodeTableDelMulti", 4), "unexpected result code");
}

TEST(CtlOptions, RecordsFromOptions)
{
    std::string err;
    ctl::SerialDevice s;
    ASSERT_TRUE(ctl::serial_from_options({{"dev-id", "3"}, {"dev-name", "mixer"}, {"model", "fx-3u"},
                                          {"serial-number", "2"}, {"parity-bit", "Even"},
                                          {"data-bit", "7"}},
                                         s, err))
        << err;
    EXPECT_EQ(s.dev_type, 101u);
    EXPECT_EQ(s.parity_bit, 1u);
    EXPECT_EQ(s.data_bit, 7u);
    EXPECT_EQ(s.baudrate, 9600u);

    EXPECT_FALSE(ctl::serial_from_options({{"dev-id", "-3"}}, s, err));
    EXPECT_EQ(err, "--dev-id: expected a whole number from 0 to 4294967295");

    ctl::EthernetDevice e;
    ASSERT_TRUE(ctl::ethernet_from_options(
        {{"dev-id", "4"}, {"dev-name", "press"}, {"model", "FX-5U"}, {"ip-addr", "127.0.0.1"}}, e, err))
        << err;
    EXPECT_EQ(e.port, 502u) << "Modbus TCP's port unless told otherwise";
    EXPECT_FALSE(ctl::ethernet_from_options(
        {{"dev-id", "4"}, {"dev-name", "press"}, {"model", "FX-5U"}, {"ip-addr", "127.0.0.1"}, {"port", "0"}},
        e, err));
    EXPECT_EQ(err, "--port: expected a whole number from 1 to 65535");

    ctl::Node n;
    const ctl::Options node = {{"dev-id", "4"}, {"node-id", "9"}, {"node-name", "t"}, {"node-addr", "D1"},
                               {"node-data-type", "S16"}, {"node-report-enable", "yes"},
                               {"node-alarm-value-major", "-5"}};
    EXPECT_FALSE(ctl::node_from_options(node, n, err));
    EXPECT_EQ(err, "--dev-name: missing field");
    ctl::Options named = node;
    named["dev-name"] = "press";
    ASSERT_TRUE(ctl::node_from_options(named, n, err)) << err;
    EXPECT_EQ(n.node_data_type, 5u);
    EXPECT_TRUE(n.node_report_enable);
    EXPECT_EQ(n.node_alarm_value_major, -5);
    named["node-alarm-enable"] = "maybe";
    EXPECT_FALSE(ctl::node_from_options(named, n, err));
    EXPECT_EQ(err, "--node-alarm-enable: expected true or false");
}
