// Sparkplug device ids from the devices of a cycle.
#include <gtest/gtest.h>

#include "device_ids.h"

using namespace bridge;

namespace {

std::vector<DeviceReading> devices(std::initializer_list<std::pair<uint32_t, const char *>> list)
{
    std::vector<DeviceReading> out;
    for (const auto &[id, name] : list) {
        DeviceReading d;
        d.dev_id = id;
        d.dev_name = name;
        out.push_back(d);
    }
    return out;
}

using Ids = std::vector<std::string>;

} // namespace

TEST(DeviceIds, ByNameOrById)
{
    struct Case {
        std::vector<DeviceReading> in;
        Ids out;
    };
    const Case cases[] = {
        {devices({{1, "press"}, {2, "oven"}}), {"press", "oven"}},
        // Characters that are topic syntax.
        {devices({{1, "line/1+#"}}), {"line_1__"}},
        // Shared names: every holder gets its dev_id.
        {devices({{1, "press"}, {2, "oven"}, {3, "press"}}), {"press-1", "oven", "press-3"}},
        // Shared once sanitized, or only by case.
        {devices({{4, "a/b"}, {5, "a+b"}, {6, "A_B"}}), {"a_b-4", "a_b-5", "A_B-6"}},
        // An empty name is the dev_id.
        {devices({{9, ""}, {2, "x"}}), {"9", "x"}},
        {devices({{9, ""}, {2, "9"}}), {"9-9", "9-2"}},
        // A suffixed id meeting another device's name.
        {devices({{1, "a"}, {2, "a"}, {3, "a-1"}}), {"a-1", "a-2", "a-1-3"}},
    };
    for (size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(device_ids(cases[i].in, DeviceIdMode::Name), cases[i].out) << "case " << i;
    EXPECT_EQ(device_ids(devices({{7, "press"}, {12, "press"}, {3, ""}}), DeviceIdMode::Id),
              (Ids{"7", "12", "3"}));
}
