// JSON mode's message for one device of a cycle.
#include <gtest/gtest.h>

#include "json_message.h"
#include "readings.h"
#include "values.h"

using namespace bridge;
using bctest::device;
using bctest::node;

TEST(JsonMessage, EveryTypeAsIntegratorsReadItAndADeviceNotOpened)
{
    const DeviceReading d = device(7, "press \"3\"", {
        node("run", "M0", NodeBit, "1"),
        node("s8", "D0", NodeS8, "200"),
        node("u16", "D1", NodeU16, "-25536"),
        node("s16", "D2", NodeS16, "-87"),
        node("u32", "D3", NodeU32, "-1"),
        node("hex", "D4", NodeHEX16, "0x1f"),
        node("temp", "D5", NodeFloat, "21.500000"),
        node("recipe", "D6", NodeString, "A7"),
        node("bad", "D7", NodeU16, "read error"),
        node("nan", "D8", NodeFloat, "nan"),
        node("level", "D9", NodeFloat, "21.100000"),
        node("run", "M1", NodeBit, "0"),
    }, 1, 101);
    uint64_t unparsable = 0;
    EXPECT_EQ(json_message(d, 1700000000123, &unparsable),
              R"({"timestamp":1700000000123,"dev_id":7,"dev_name":"press \"3\"","dev_mfg":1,)"
              R"("dev_type":101,"values":{"run":true,"s8":-56,"u16":40000,"s16":-87,)"
              R"("u32":4294967295,"hex":31,"temp":21.5,"recipe":"A7","bad":null,"nan":null,)"
              // json-glib writes 17 digits; a reader gets the double nearest 21.1.
              R"("level":21.100000000000001,)"
              R"j("run (M1)":false}})j");
    EXPECT_EQ(unparsable, 1u);
    // A device not opened: no values.
    EXPECT_EQ(json_message(device(3, "oven", {}, 2, 3), 5),
              R"({"timestamp":5,"dev_id":3,"dev_name":"oven","dev_mfg":2,"dev_type":3,"values":{}})");
}
