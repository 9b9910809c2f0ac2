// S7 addresses: areas, numbers and dialects, and values decoded per area and type.
#include <gtest/gtest.h>

#include <cstring>

#include "codec/s7_address.h"
#include "device/plc/plc_node.h"

TEST(S7Address, AreasNumbersDialectsAndDecoding)
{
    auto p = [](const char *t, s7_dialect d = s7_dialect::s7_1200) { return s7_parse_address(t, d); };
    EXPECT_EQ(p("Q0.0").area, s7_area::outputs);
    EXPECT_EQ(p("q0.9").bit, 0) << "a bit digit above 7 counts as 0";
    EXPECT_EQ(p("I0.3").bit, 3);
    EXPECT_EQ(p("MW10").start, 10u);
    EXPECT_EQ(p("MD10").start, 10u) << "the width comes from the data type only";
    auto db = p("db2_dbd8");
    EXPECT_EQ(db.area, s7_area::db);
    EXPECT_EQ(db.db, 2);
    EXPECT_EQ(db.start, 8u);
    EXPECT_EQ(p("DB300_0").db, 44) << "DB numbers wrap at 256";
    db = p("DB3_DBX4.5");
    EXPECT_EQ(db.db, 3);
    EXPECT_EQ(db.start, 4u);
    EXPECT_EQ(db.bit, 5);
    db = p("DB1.DBX10.3");
    EXPECT_EQ(db.db, 0);
    EXPECT_EQ(db.start, 110u);
    EXPECT_EQ(p("V100").area, s7_area::unknown);
    EXPECT_EQ(p("V100", s7_dialect::smart_200).area, s7_area::v);
    EXPECT_EQ(p("V100", s7_dialect::smart_200).start, 100u);
    EXPECT_EQ(p("DB1_0", s7_dialect::smart_200).area, s7_area::unknown);
    EXPECT_EQ(p("C5").area, s7_area::counter);
    EXPECT_EQ(p("x").area, s7_area::unknown);
    // Only 15 characters count: the 16th digit is cut off.
    EXPECT_EQ(p("M00000000000001234").start, 1u) << "M + 14 digits";

    // Values decoded per area and type.
    char v[NODE_VALUE_SIZE];
    const uint8_t w[] = {0x12, 0x34, 0x56, 0x78};
    ASSERT_TRUE(s7_decode(s7_area::merkers, 4, 0, w, 2, v, sizeof v));
    EXPECT_STREQ(v, "4660");
    ASSERT_TRUE(s7_decode(s7_area::inputs, 4, 0, w, 2, v, sizeof v));
    EXPECT_STREQ(v, "13330") << "I and Q words are shown unswapped";
    EXPECT_FALSE(s7_decode(s7_area::inputs, 5, 0, w, 2, v, sizeof v)) << "IW as S16: wrong type";
    EXPECT_EQ(s7_read_size(s7_area::outputs, 10), 0u);
    ASSERT_TRUE(s7_decode(s7_area::db, 12, 0, w, 4, v, sizeof v));
    EXPECT_STREQ(v, "0x12345678");
    ASSERT_TRUE(s7_decode(s7_area::inputs, 6, 0, w, 4, v, sizeof v));
    EXPECT_STREQ(v, "2018915346");
    const uint8_t f[] = {0x3f, 0xc0, 0x00, 0x00};
    ASSERT_TRUE(s7_decode(s7_area::db, 10, 0, f, 4, v, sizeof v));
    EXPECT_STREQ(v, "1.500000");
    const uint8_t neg[] = {0xff, 0xfe};
    ASSERT_TRUE(s7_decode(s7_area::v, 5, 0, neg, 2, v, sizeof v));
    EXPECT_STREQ(v, "-2");
    ASSERT_TRUE(s7_decode(s7_area::merkers, 3, 0, neg, 1, v, sizeof v));
    EXPECT_STREQ(v, "-1");
    const uint8_t bits[] = {0x08};
    ASSERT_TRUE(s7_decode(s7_area::outputs, 1, 3, bits, 1, v, sizeof v));
    EXPECT_STREQ(v, "1");
    for (uint32_t t : {8u, 9u, 13u, 14u, 15u, 99u})
        EXPECT_EQ(s7_read_size(s7_area::db, t), 0u) << t;
    EXPECT_FALSE(s7_decode(s7_area::db, 4, 0, w, 1, v, sizeof v)) << "too few bytes";
}

