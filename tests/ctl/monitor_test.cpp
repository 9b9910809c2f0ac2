// How a published cycle is shown: decoded from the signal's argument, as a
// table and as one JSON line that programs read back unchanged.
#include <gtest/gtest.h>

#include <json-glib/json-glib.h>

#include "ctl_config.h"
#include "ctl_monitor.h"

namespace {

// a(usuuv) with two devices: one with two nodes, one with none.
GVariant *sample_cycle(const char *name)
{
    GVariantBuilder nodes;
    g_variant_builder_init(&nodes, G_VARIANT_TYPE("a(ssus)"));
    g_variant_builder_add(&nodes, "(ssus)", "level \"A\"\n", "D100", 5u, "-12");
    g_variant_builder_add(&nodes, "(ssus)", "Füllstand", "DB1_DBD8", 10u, "1.500000");
    GVariantBuilder cycle;
    g_variant_builder_init(&cycle, G_VARIANT_TYPE("a(usuuv)"));
    g_variant_builder_add(&cycle, "(usuuv)", 7u, name, 1u, 105u, g_variant_builder_end(&nodes));
    g_variant_builder_add(&cycle, "(usuuv)", 8u, "s7", 2u, 3u,
                          g_variant_new_array(G_VARIANT_TYPE("(ssus)"), nullptr, 0));
    return g_variant_ref_sink(g_variant_builder_end(&cycle));
}

// The sample cycle as decode_cycle reads it.
std::vector<ctl::DeviceValues> decoded(const char *name)
{
    GVariant *cycle = sample_cycle(name);
    std::vector<ctl::DeviceValues> devs;
    EXPECT_TRUE(ctl::decode_cycle(cycle, devs));
    g_variant_unref(cycle);
    return devs;
}

struct Clock {
    GDateTime *t = g_date_time_new_local(2026, 3, 4, 5, 6, 7);
    ~Clock() { g_date_time_unref(t); }
};

} // namespace

// Decoded from the signal and written as JSON, every field reads back as sent.
TEST(CtlMonitor, JsonLineReadsBackUnchangedOtherShapesAreRefused)
{
    std::vector<ctl::DeviceValues> devs = decoded("Kessel \\ \"Süd\"\t");
    ASSERT_EQ(devs.size(), 2u);
    Clock clock;
    const std::string line = ctl::cycle_json(devs, 3, clock.t);
    EXPECT_EQ(line.find('\n'), std::string::npos) << "one cycle, one line";

    JsonNode *got = json_from_string(line.c_str(), nullptr);
    ASSERT_NE(got, nullptr) << line;
    JsonObject *root = json_node_get_object(got);
    EXPECT_EQ(std::string(json_object_get_string_member(root, "time")).rfind("2026-03-04T05:06:07", 0), 0u);
    json_object_set_string_member(root, "time", "local");
    JsonNode *want = json_from_string(R"({"cycle": 3, "time": "local", "devices": [
        {"dev_id": 7, "dev_name": "Kessel \\ \"Süd\"\t", "dev_mfg": 1, "dev_type": 105, "model": "Q-serial",
         "nodes": [{"node_name": "level \"A\"\n", "node_addr": "D100", "node_data_type": 5, "type": "S16",
                    "value": "-12"},
                   {"node_name": "Füllstand", "node_addr": "DB1_DBD8", "node_data_type": 10, "type": "Float",
                    "value": "1.500000"}]},
        {"dev_id": 8, "dev_name": "s7", "dev_mfg": 2, "dev_type": 3, "model": "S7-1200", "nodes": []}]})",
                                     nullptr);
    ASSERT_NE(want, nullptr);
    EXPECT_TRUE(json_node_equal(got, want)) << line;
    json_node_unref(got);
    json_node_unref(want);

    for (const char *shape : {"[(uint32 1, 'd', uint32 1, uint32 1, <['x']>)]", "[(uint32 1, 'd')]"}) {
        GVariant *wrong = g_variant_ref_sink(g_variant_new_parsed(shape));
        EXPECT_FALSE(ctl::decode_cycle(wrong, devs)) << shape;
        EXPECT_TRUE(devs.empty()) << shape;
        g_variant_unref(wrong);
    }
}

TEST(CtlMonitor, TableShowsEveryDeviceInAlignedColumns)
{
    std::vector<ctl::DeviceValues> devs = decoded("Bräter");
    ASSERT_EQ(devs.size(), 2u);
    devs[0].nodes[0].node_name = "level"; // one line per node
    Clock clock;
    const std::string table = ctl::cycle_table(devs, 2, clock.t);
    gchar **lines = g_strsplit(table.c_str(), "\n", -1);
    ASSERT_EQ(g_strv_length(lines), 6u) << table; // heading, header, 3 rows, end
    EXPECT_STREQ(lines[0], "cycle 2 at 2026-03-04 05:06:07: 2 devices, 2 values");
    // The VALUE column starts at the same character in every row.
    const glong value_at = g_utf8_pointer_to_offset(lines[1], strstr(lines[1], "VALUE"));
    const char *values[] = {"-12", "1.500000", "(no values)"};
    for (int i = 0; i < 3; ++i) {
        const char *row = lines[2 + i];
        ASSERT_NE(strstr(row, values[i]), nullptr) << row;
        EXPECT_EQ(g_utf8_pointer_to_offset(row, strstr(row, values[i])), value_at) << row;
    }
    EXPECT_NE(strstr(lines[2], "Bräter"), nullptr);
    EXPECT_NE(strstr(lines[2], "Q-serial"), nullptr);
    EXPECT_NE(strstr(lines[3], "Float"), nullptr);
    g_strfreev(lines);
}
