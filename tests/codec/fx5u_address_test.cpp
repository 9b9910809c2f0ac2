// FX5U addresses as Modbus objects.
#include <gtest/gtest.h>

#include "codec/fx5u_address.h"
#include "device/plc/plc_node.h"

TEST(Fx5uAddress, FixedAllocationAndRegisterValuesLowWordFirst)
{
    auto at = [](const char *t) { return fx5u_parse_address(t).modbus; };
    EXPECT_EQ(at("Y7"), 7u);
    EXPECT_EQ(at("Y10"), 8u);
    EXPECT_TRUE(fx5u_parse_address("Y8").wrong_address);
    EXPECT_FALSE(fx5u_parse_address("SW24575").wrong_address);
    EXPECT_TRUE(fx5u_parse_address("SW24576").wrong_address) << "past the last Modbus address";
    EXPECT_TRUE(fx5u_parse_address("D99999999999").wrong_address) << "and not back at the start";
    EXPECT_EQ(at("X100"), 80u) << "higher digits count together as tens";
    EXPECT_EQ(at("X177"), 143u);
    EXPECT_EQ(at("X81"), 65u);
    EXPECT_EQ(at("M0"), 8192u);
    EXPECT_EQ(at("SM400"), 20880u);
    EXPECT_EQ(at("SB0"), 40960u);
    EXPECT_EQ(fx5u_parse_address("SB0").object, fx5u_object::coils);
    EXPECT_EQ(at("SW0"), 40960u);
    EXPECT_EQ(fx5u_parse_address("SW0").object, fx5u_object::registers);
    EXPECT_EQ(at("S0"), 45056u);
    EXPECT_EQ(fx5u_parse_address("SX1").area, 0) << "s and another letter is no step relay";
    EXPECT_EQ(at("d1_0_0"), 100u);
    EXPECT_EQ(at("w2"), 30722u);
    EXPECT_EQ(fx5u_parse_address("Z1").area, 0);
    EXPECT_EQ(fx5u_parse_address("x0").object, fx5u_object::input_bits);

    const struct {
        uint32_t type;
        uint16_t r[2];
        int count;
        const char *text;
    } cases[] = {{4, {0xFFFF, 9}, 1, "65535"},      {5, {0xFFFF, 9}, 1, "-1"},   {6, {2, 1}, 2, "65538"},
                 {7, {0xFFFE, 0xFFFF}, 2, "-2"},     {10, {0, 0x3FC0}, 2, "1.500000"},
                 {1, {}, 0, ""},                     {8, {}, 0, ""},              {12, {}, 0, ""}};
    for (const auto &c : cases) {
        char text[NODE_VALUE_SIZE] = "";
        EXPECT_EQ(fx5u_register_count(c.type), c.count) << c.type;
        if (c.count != 0)
            fx5u_register_text(c.type, c.r, text, sizeof text);
        EXPECT_STREQ(text, c.text) << c.type;
    }
}

