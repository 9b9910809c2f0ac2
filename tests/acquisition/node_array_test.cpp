// The reading thread writes each device's a(ssus) in serialised form by
// hand: it must be byte for byte what GLib makes of the same values, at every
// framing-offset width (1, 2 and 4 bytes) of the tuples and of the array.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "acquisition/node_array.h"

namespace {

struct Item {
    std::string name, addr;
    uint32_t type;
    std::string value;
};

std::string bytes_of(GVariant *v)
{
    g_variant_ref_sink(v);
    GVariant *normal = g_variant_get_normal_form(v);
    std::string out(static_cast<const char *>(g_variant_get_data(normal)), g_variant_get_size(normal));
    g_variant_unref(normal);
    g_variant_unref(v);
    return out;
}

void expect_same_as_glib(const std::vector<Item> &items)
{
    GVariantBuilder b;
    g_variant_builder_init(&b, G_VARIANT_TYPE("a(ssus)"));
    node_array_writer w;
    w.add("left", "over", 1, "from before"); // clear() must forget it
    w.clear();
    for (const Item &i : items) {
        g_variant_builder_add(&b, "(ssus)", i.name.c_str(), i.addr.c_str(), i.type, i.value.c_str());
        w.add(i.name.c_str(), i.addr.c_str(), i.type, i.value.c_str());
    }
    GVariant *mine = w.end();
    EXPECT_TRUE(g_variant_is_normal_form(mine));
    const std::string expected = bytes_of(g_variant_builder_end(&b));
    EXPECT_EQ(bytes_of(mine), expected) << items.size() << " elements";
}

} // namespace

TEST(NodeArray, SerialisedLikeGlibAtEveryOffsetWidth)
{
    expect_same_as_glib({});
    expect_same_as_glib({{"n1", "D100", 4, "42"}});
    expect_same_as_glib({{"", "", 0, ""}, {"a", "bc", 0xA1B2C3D4u, "def"}});
    // Tuples past 255 bytes take 2-byte offsets, past 64 KiB 4-byte ones.
    expect_same_as_glib({{std::string(300, 'n'), "X17", 1, "1"}, {"m", std::string(70000, 'a'), 5, "-3"}});
    // Arrays past 255 bytes and past 64 KiB: many ordinary nodes.
    for (size_t count : {20u, 5000u}) {
        std::vector<Item> many;
        for (size_t i = 0; i < count; ++i)
            many.push_back({"node" + std::to_string(i), "D" + std::to_string(i), 4, std::to_string(i * 7)});
        expect_same_as_glib(many);
    }
}
