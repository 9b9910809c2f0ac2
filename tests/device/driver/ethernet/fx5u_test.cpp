// The FX5U driver against a Modbus TCP server built on libmodbus's own server side.
#include <gtest/gtest.h>

#include "sim/modbus_tcp_sim.h"
#include "support/ethernet_driver_test.h"

using namespace dstest;

class Fx5uDriver : public EthernetDriverTest<sim::ModbusTcpSim> {
protected:
    Fx5uDriver() : EthernetDriverTest(1, 103) {}
};

TEST_F(Fx5uDriver, ReadsEveryObjectAndRefusesWhatItShould)
{
    plc_.set_coil(8, true);
    plc_.set_coil(40960, true);
    plc_.set_register(40960, 77);
    plc_.set_input(15, true);
    plc_.set_register(10, 0x0002);
    plc_.set_register(11, 0x0001);
    plc_.set_register(20, 0xFFFE);
    plc_.set_register(30, 0x0000);
    plc_.set_register(31, 0x3FC0);
    EXPECT_EQ(read("Y10", 1), R(0, "1"));
    EXPECT_EQ(read("Y8", 1), R(-1, "wrong address"));
    EXPECT_EQ(read("SB0", 1), R(0, "1")) << "the coil at the address SW0 has as a register";
    EXPECT_EQ(read("SW0", 4), R(0, "77"));
    EXPECT_EQ(read("X17", 1), R(0, "1"));
    EXPECT_EQ(read("D10", 6), R(0, std::to_string(1 * 65536 + 2)));
    EXPECT_EQ(read("D20", 5), R(0, "-2"));
    EXPECT_EQ(read("D20", 4), R(0, "65534"));
    EXPECT_EQ(read("D30", 10), R(0, "1.500000")) << "libmodbus's float conversion";
    EXPECT_EQ(read("D10", 1), R(-1, "wrong type"));
    EXPECT_EQ(read("X0", 4), R(-1, "wrong type"));
    EXPECT_EQ(read("Q1", 4), R(-1, "unkown type"));
    EXPECT_EQ(read("SX1", 1), R(-1, "unkown type"));
    EXPECT_EQ(read("D70000", 4), R(-1, "wrong address")) << "not D4464 by a wrapped address";
}

TEST_F(Fx5uDriver, PlcThatStopsAnsweringCostsItsNodesUntilTheNextOpen)
{
    plc_.set_register(10, 5);
    plc_.faults.silent = true;
    EXPECT_EQ(read("D10", 4), R(-1, "read error"));
    plc_.faults.silent = false;
    EXPECT_EQ(read("D10", 4), R(0, "5"));

    int opened = -1;
    capture_output([&] { opened = dev_->driver->open(dev_); });
    ASSERT_EQ(opened, 0);
    plc_.faults.close_conn = true;
    EXPECT_EQ(read_open("D10", 4), R(-1, "read error"));
    plc_.faults.close_conn = false;
    EXPECT_EQ(read_open("M0", 1), R(-1, "read error"))
        << "the connection the PLC closed is not reopened within the bracket";
    capture_output([&] { dev_->driver->release(dev_); });
    EXPECT_EQ(read("D10", 4), R(0, "5"));
}
