// The DVP-32EC driver against the simulated PLC on a pseudo-terminal.
#include <gtest/gtest.h>

#include <unistd.h>

#include "support/serial_driver_test.h"
#include "sim/dvp_sim.h"

using namespace dstest;

class DvpDriver : public SerialDriverTest<sim::DvpSim> {
protected:
    DvpDriver() : SerialDriverTest(2, 10)
    {
        start_line();
        bind(serial_device_create(1, "dvp", 0, 3, 201, 0, 2, 10, 9600, 7, 1, 1));
    }
};

TEST_F(DvpDriver, ReadsRegistersAndBitsPrintingFramesAndValues)
{
    plc_.set_device("D100", 4660);
    plc_.set_device("D4096", 65000);
    plc_.set_device("C5", 0xFFFF);
    plc_.set_device("T3", 300);
    plc_.set_device("X17", 1);
    plc_.set_device("Y10", 1);
    plc_.set_device("M1536", 1);
    plc_.set_device("S2", 1);
    struct Case {
        const char *addr;
        uint32_t type;
        const char *value;
    } cases[] = {
        {"D100", 4, "4660"}, {"D4096", 4, "65000"}, {"C5", 6, "65535"}, // U32 is one register
        {"T3", 4, "300"},     {"X17", 1, "1"},  {"X16", 1, "0"},
        {"Y10", 1, "1"},      {"M1536", 1, "1"}, {"S2", 1, "1"},
        {"d0000000000000100", 4, "4660"}, // read whole, not cut at 15 characters
    };
    for (const Case &c : cases) {
        const Read r = read(c.addr, c.type);
        EXPECT_EQ(r.rc, 0) << c.addr << r.out;
        EXPECT_EQ(r.value, c.value) << c.addr;
    }
    // The frame, the answer and the value are printed.
    const Read r = read("d100", 4);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.addr, "D100") << "the node's own address is upper-cased";
    EXPECT_EQ(r.out, "<delta_dvp32ec_open> called\n"
                     "uart open success : " + dir_.file("tty2") + "\n"
                     "<delta_dvp32ec_read> called\n"
                     ":0a03106400017E\r\n"
                     ":0A03021234AB\r\n"
                     "<D100> = 4660\n"
                     "<delta_dvp32ec_release> called\n");
}

TEST_F(DvpDriver, RefusedReadsSendNothingOtherStationsAndPortsStaySilent)
{
    // What the masked addresses used to read: D28672 and M20480 wrapped to
    // S0, D-5 to 8FFB.
    plc_.set(0x0000, 1234);
    plc_.set(0x8FFB, 99);
    const char *lrc = "get_LRC : input_len%2 != 0\n";
    const struct {
        const char *addr;
        uint32_t type;
        const char *line;
    } cases[] = {
        {"D100", 1, "get code err\n"}, {"M5", 4, "get code err\n"}, {"Q1", 1, "get code err\n"},
        {"D28672", 4, lrc},           {"M20480", 1, lrc},           {"D100000", 4, lrc},
        {"D-5", 4, lrc},
    };
    const size_t before = line_.requests();
    for (const auto &c : cases) {
        const Read r = read(c.addr, c.type);
        EXPECT_EQ(r.rc, -1) << c.addr;
        EXPECT_NE(r.out.find(c.line), std::string::npos) << c.addr << r.out;
        EXPECT_EQ(r.out.find("> = "), std::string::npos) << c.addr << r.out;
    }
    EXPECT_EQ(line_.requests(), before);

    // Other stations and ports stay silent.
    dev_->station_num = 11; // the PLC is station 10
    Read r = read("D100", 4);
    EXPECT_EQ(r.rc, -1);
    EXPECT_NE(r.out.find("select timeout\n"), std::string::npos);
    dev_->serial_number = 0;
    r = read("D100", 4);
    EXPECT_EQ(r.rc, -100);
    EXPECT_EQ(r.out, "<delta_dvp32ec_open> called\nserial_number err\n");
    dev_->serial_number = 1; // a path where nothing is
    r = read("D100", 4);
    EXPECT_EQ(r.rc, -100);
    EXPECT_EQ(r.out, "<delta_dvp32ec_open> called\nopen error : " + dir_.file("absent") + "\n");
}

TEST_F(DvpDriver, ClosedPortKeepsItsNumberAndFailsUntilOpened)
{
    driver &drv = *dev_->driver;
    const auto stored = [&] { return *static_cast<const int *>(drv.priv); };
    capture_output([&] {
        ASSERT_EQ(drv.open(dev_), 0);
        const int fd = stored();
        EXPECT_GE(fd, 0);
        EXPECT_EQ(drv.release(dev_), 0);
        EXPECT_EQ(stored(), fd) << "release closes the port and keeps its number";
    });

    // Every write to /dev/full fails: the port is closed, its number kept,
    // and each later exchange fails at its write until the next open.
    if (access("/dev/full", W_OK) != 0)
        GTEST_SKIP() << "no writable /dev/full here";
    service_paths p = runtime_paths();
    p.serial_port_2 = "/dev/full";
    set_runtime_paths(p);
    char addr[] = "D100";
    char v[NODE_VALUE_SIZE] = {};
    int fd = -1;
    const Captured c = capture_output([&] {
        ASSERT_EQ(drv.open(dev_), 0);
        fd = stored();
        EXPECT_EQ(drv.read(dev_, addr, 4, v), -1);
        EXPECT_EQ(drv.read(dev_, addr, 4, v), -1);
        drv.release(dev_);
    });
    EXPECT_EQ(stored(), fd);
    EXPECT_NE(c.err.find("write: No space left on device\n"), std::string::npos) << c.err;
    EXPECT_NE(c.err.find("write: Bad file descriptor\n"), std::string::npos) << c.err;
    EXPECT_EQ(count_of(c.out, "close uart\n"), 2u) << c.out;

    p.serial_port_2 = dir_.file("tty2");
    set_runtime_paths(p);
    plc_.set_device("D100", 5);
    EXPECT_EQ(read("D100", 4).value, "5");
}

TEST_F(DvpDriver, EveryFaultFailsTheReadAndTheNextOneRecovers)
{
    plc_.set_device("D100", 4660); // LRC AB: letters that a lower-case LRC changes
    expect_each_fault_recovers("D100", 4, "4660", "untouched",
                               {{plc_.faults.silent, "select timeout\n"},
                                {plc_.faults.nak, "delta respond err = 02\n"},
                                {plc_.faults.exception, "delta respond err = 02\n"},
                                {plc_.faults.bad_checksum, ""},
                                {plc_.faults.garbage, ""},
                                {plc_.lower_case_lrc, ""}});
    // An answer in pieces is joined.
    plc_.set_device("D100", 0xABCD);
    plc_.faults.split = true;
    const Read r = read("D100", 4);
    EXPECT_EQ(r.rc, 0) << r.out;
    EXPECT_EQ(r.value, "43981");
}

