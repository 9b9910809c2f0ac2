// The FX-3U driver against the simulated PLC on a pseudo-terminal (the FX-1N
// runs the same code).
#include <gtest/gtest.h>

#include "support/serial_driver_test.h"
#include "sim/fx_sim.h"

using namespace dstest;

class FxDriver : public SerialDriverTest<sim::FxSim> {
protected:
    FxDriver() : SerialDriverTest(1)
    {
        bind(serial_device_create(1, "fx", 0, 1, DEV_TYPE_FX_3U, 0, 1, 0, 9600, 7, 1, 1));
        start_line();
    }
};

TEST_F(FxDriver, ReadsEveryArea)
{
    plc_.set_register(100, 4660);
    plc_.set_register(10, 0x1234); // U32 over D10/D11: D10 is the high half
    plc_.set_register(11, 0x5678);
    plc_.set_register(20, 0x0000); // 1.5f: D20 the low half, D21 the high half
    plc_.set_register(21, 0x3FC0);
    plc_.set_register(30, 0xFFFE);
    for (const char *on : {"X17", "Y5", "M8", "S100", "T7", "C200"})
        plc_.set_bit(on, true);
    struct Case {
        const char *addr;
        uint32_t type;
        const char *value;
    } cases[] = {
        {"D100", 4, "4660"},  {"D10", 6, "305419896"}, {"D10", 12, "0x12345678"},
        {"D20", 10, "1.500000"}, {"D30", 5, "-2"},     {"D30", 11, "0xfffe"},
        {"X17", 1, "1"},      {"X16", 1, "0"},         {"Y5", 1, "1"},
        {"M8", 1, "1"},       {"m9", 1, "0"},          {"S100", 1, "1"},
        {"T7", 1, "1"},       {"C200", 1, "1"},        {"D100", 9, "unkown type"},
    };
    for (const Case &c : cases) {
        const Read r = read(c.addr, c.type);
        EXPECT_EQ(r.rc, 0) << c.addr << r.out;
        EXPECT_EQ(r.value, c.value) << c.addr << " type " << c.type;
    }
}

TEST_F(FxDriver, BadAddressesAndPortsAreErrors)
{
    const size_t before = line_.requests();
    for (const char *bad : {"X18", "Q1", "D8512"}) {
        const Read r = read(bad, 1);
        EXPECT_EQ(r.rc, -1) << bad;
        EXPECT_EQ(r.value, "read error") << bad;
    }
    EXPECT_EQ(line_.requests(), before) << "nothing goes out for a bad address";

    // Open needs a known port that exists.
    dev_->serial_number = 3;
    Read r = read("D100", 4);
    EXPECT_EQ(r.rc, -100);
    EXPECT_EQ(r.out, "serial_number err\n");
    dev_->serial_number = 2; // configured at a path where nothing is
    r = read("D100", 4);
    EXPECT_EQ(r.rc, -100);
    EXPECT_EQ(r.out, "open error\n");
}

TEST_F(FxDriver, EveryFaultFailsTheReadAndTheNextOneRecovers)
{
    plc_.set_register(100, 4660);
    expect_each_fault_recovers("D100", 4, "4660", "read error",
                               {{plc_.faults.silent, "timeout1\n"},
                                {plc_.faults.nak, "cmd error\n"},
                                {plc_.faults.exception, "cmd error\n"},
                                {plc_.faults.garbage, ""}});
    // The answer's sum is not checked; an answer in pieces is joined.
    plc_.set_register(10, 0x1234);
    plc_.set_register(11, 0x5678);
    plc_.faults.bad_checksum = true;
    EXPECT_EQ(read("D10", 6).value, "305419896");
    plc_.faults.bad_checksum = false;
    plc_.faults.split = true;
    EXPECT_EQ(read("D10", 6).value, "305419896");
}

