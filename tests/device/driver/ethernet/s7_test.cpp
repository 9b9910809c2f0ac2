// The five S7 drivers against Snap7's own server on port 102 (root only).
#include <gtest/gtest.h>
#include <unistd.h>

#include <snap7.h>

#include <cstring>

#include "device/driver/driver_modules.h"
#include "device/plc/plc_ethernet.h"
#include "support/test_util.h"

class S7Driver : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (geteuid() != 0)
            GTEST_SKIP() << "Snap7's server needs port 102, which needs root";
        server_ = Srv_Create();
        memcpy(db1_ + 100, "\x01\x02", 2);
        memcpy(db2_ + 8, "\x3f\xc0", 2); // 1.5f
        memcpy(mk_, "\x12\x34", 2);
        memcpy(pe_, "\x12\x34", 2);
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
    std::pair<int, std::string> read_once(uint32_t type, std::string addr, uint32_t data_type,
                                          const char *initial = "")
    {
        ethernet_device *dev = ethernet_device_create(1, "plc", 1, 2, type, "127.0.0.1", 102, 0, 1);
        dev->driver = driver_for(type);
        char value[NODE_VALUE_SIZE] = {};
        snprintf(value, sizeof value, "%s", initial);
        int r = -100;
        dstest::capture_output([&] {
            if (dev->driver->open(dev) == 0) {
                r = dev->driver->read(dev, addr.data(), data_type, value);
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

