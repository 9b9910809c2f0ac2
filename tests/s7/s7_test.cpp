// S7 addresses and values, and the five S7 drivers against Snap7's own
// server on port 102 (root only).
#include <gtest/gtest.h>
#include <unistd.h>

#include <snap7.h>

#include <cstring>

#include "device/driver/driver_modules.h"
#include "codec/s7_address.h"
#include "device/plc/plc_ethernet.h"
#include "support/test_util.h"

TEST(S7Address, AreasNumbersAndDialects)
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
}

TEST(S7Address, DecodingPerAreaAndType)
{
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

class S7Driver : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (geteuid() != 0)
            GTEST_SKIP() << "Snap7's server needs port 102, which needs root";
        server_ = Srv_Create();
        db1_[100] = 0x01;
        db1_[101] = 0x02;
        db2_[8] = 0x3f;
        db2_[9] = 0xc0;
        mk_[0] = 0x12;
        mk_[1] = 0x34;
        pe_[0] = 0x12;
        pe_[1] = 0x34;
        pa_[0] = 0x01;
        Srv_RegisterArea(server_, srvAreaDB, 1, db1_, sizeof db1_);
        Srv_RegisterArea(server_, srvAreaDB, 2, db2_, sizeof db2_);
        Srv_RegisterArea(server_, srvAreaDB, 44, db44_, sizeof db44_);
        Srv_RegisterArea(server_, srvAreaMK, 0, mk_, sizeof mk_);
        Srv_RegisterArea(server_, srvAreaPE, 0, pe_, sizeof pe_);
        Srv_RegisterArea(server_, srvAreaPA, 0, pa_, sizeof pa_);
        ASSERT_EQ(Srv_StartTo(server_, "127.0.0.1"), 0);
        dstest::capture_output([] { init_driver(); });
    }
    void TearDown() override
    {
        if (server_ != 0) {
            Srv_Stop(server_);
            Srv_Destroy(&server_);
        }
    }
    driver *driver_for(uint32_t type)
    {
        plc_device probe;
        probe.dev_mfg = 2;
        probe.dev_type = type;
        return device_driver_match(&probe);
    }
    // Opens, reads one address, releases; the result and the value text.
    std::pair<int, std::string> read_once(uint32_t type, const char *addr, uint32_t data_type,
                                          const char *initial = "")
    {
        ethernet_device *dev = ethernet_device_create(1, "plc", 1, 2, type, "127.0.0.1", 102, 0, 1);
        dev->driver = driver_for(type);
        char value[NODE_VALUE_SIZE] = {};
        snprintf(value, sizeof value, "%s", initial);
        int r = -100;
        dstest::capture_output([&] {
            if (dev->driver->open(dev) == 0) {
                r = dev->driver->read(dev, addr, data_type, value);
                dev->driver->release(dev);
            }
        });
        ethernet_device_free(dev);
        return {r, value};
    }
    S7Object server_ = 0;
    uint8_t db1_[256] = {}, db2_[32] = {}, db44_[8] = {}, mk_[16] = {}, pe_[8] = {}, pa_[8] = {};
};

TEST_F(S7Driver, ReadsEveryAreaThroughSnap7)
{
    using R = std::pair<int, std::string>;
    EXPECT_EQ(read_once(3, "Q0.0", 1), R(0, "1"));
    EXPECT_EQ(read_once(3, "q0.9", 1), R(0, "1"));
    EXPECT_EQ(read_once(4, "db2_dbd8", 10), R(0, "1.500000"));
    db44_[0] = 7;
    EXPECT_EQ(read_once(5, "DB300_0", 2), R(0, "7"));
    EXPECT_EQ(read_once(6, "IW0", 5), R(-1, "wrong type"));
    EXPECT_EQ(read_once(3, "IW0", 4), R(0, "13330"));
    EXPECT_EQ(read_once(3, "MW0", 4), R(0, "4660"));
    EXPECT_EQ(read_once(2, "V100", 4), R(0, "258")) << "200 SMART V memory is DB 1";
    EXPECT_EQ(read_once(3, "V100", 4), R(-1, "unkown type"));
    EXPECT_EQ(read_once(3, "C5", 4, "previous"), R(0, "previous"));
    EXPECT_EQ(read_once(2, "T5", 4, "previous"), R(0, "previous"));
    EXPECT_EQ(read_once(3, "DB9_0", 4), R(-1, "read error")) << "no DB 9 on this PLC";
}

TEST_F(S7Driver, StoppedServerFailsTheOpenAndAReturnReconnects)
{
    Srv_Stop(server_);
    ethernet_device *dev = ethernet_device_create(1, "plc", 1, 2, 3, "127.0.0.1", 102, 0, 1);
    dev->driver = driver_for(3);
    int r = 0;
    auto c = dstest::capture_output([&] { r = dev->driver->open(dev); });
    EXPECT_EQ(r, -1);
    EXPECT_EQ(c.out, "open error\n");
    ASSERT_EQ(Srv_StartTo(server_, "127.0.0.1"), 0);
    EXPECT_EQ(read_once(3, "MW0", 4).second, "4660");
    ethernet_device_free(dev);
}

#include "sim/s7_sim.h"
#include "support/config_calls.h"
#include "support/daemon_fixture.h"

class S7E2E : public dstest::DaemonTest {};

TEST_F(S7E2E, S7_1200NodesArePublishedAndComeBackAfterTheServerStops)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "Snap7's server needs port 102, which needs root";
    using namespace dstest;
    sim::S7Sim plc;
    plc.set_word(1, 0, 1234);
    plc.set_word(0, 4, 0xFFFE);
    ASSERT_TRUE(plc.start());
    start_daemon();
    NodesRecorder rec(conn());
    ASSERT_EQ(call("EthernetDeviceAdd", ethernet_args(7, 2, 3, "line", "127.0.0.1", 102)).response, 0);
    ASSERT_EQ(call("nodeTableAddMulti",
                   node_array({{7, 1, "DB1_0", 4, "speed"}, {7, 2, "MW4", 5, "delta"},
                               {7, 3, "C1", 4, "count"}}))
                  .response,
              0);
    start_system_service(1);
    auto wait_values = [&](const std::vector<std::string> &want) {
        return wait_until(
            [&] {
                rec.wait_for_count(rec.count() + 1, 3s);
                return rec.count() > 0 && cycle_values(rec.last()) == want;
            },
            20s, 1ms);
    };
    // The counter node reads nothing and keeps its (empty) text.
    ASSERT_TRUE(wait_values({"7/speed=1234", "7/delta=-2", "7/count="})) << daemon_->out();
    plc.stop();
    ASSERT_TRUE(daemon_->wait_output("open error\n", 15s));
    ASSERT_TRUE(wait_values({})) << "the device is published with no nodes";
    plc.set_word(1, 0, 4321);
    ASSERT_TRUE(plc.start());
    EXPECT_TRUE(wait_values({"7/speed=4321", "7/delta=-2", "7/count="}));
}
