// The S7-200 PPI driver against a simulated S7-200 on a pseudo-terminal
// linked where the driver expects port 1.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "support/serial_driver_test.h"
#include "sim/ppi_sim.h"
#include "sim/qna_4c_sim.h"

namespace {

using namespace dstest;
using sim::PpiSim;

class S7200Driver : public SerialDriverTest<PpiSim> {
protected:
    S7200Driver() : SerialDriverTest(1)
    {
        bind(serial_device_create(3, "s7", 0, 2, 1, 0, 1, 2, 9600, 8, 1, 1));
    }
    // A read on the port opened by open_line.
    Read read(const char *addr, uint32_t type) { return SerialDriverTest::read(addr, type, false); }

    PpiSim plc5_{5};
    sim::QnA4CSim qna_;
};

} // namespace

TEST_F(S7200Driver, ReadsAreasPerTypeAndRefusesBadAddressesSilently)
{
    plc_.set_bytes(PpiSim::AREA_V, 100, {0x12, 0x34});
    plc_.set_bytes(PpiSim::AREA_V, 10, {0x08});              // V10.3 set
    plc_.set_bytes(PpiSim::AREA_V, 200, {0x42, 0x28, 0, 0});  // 42.0
    plc_.set_bytes(PpiSim::AREA_I, 0, {0x01, 0x02});
    plc_.set_bytes(PpiSim::AREA_Q, 4, {0x01, 0x02, 0x03, 0x04});
    plc_.set_bytes(PpiSim::AREA_SM, 28, {0x80});
    plc_.set_bytes(PpiSim::AREA_M, 2, {0xAB, 0xCD});
    plc_.set_count(PpiSim::AREA_C, 5, 300);
    open_line();
    // A refused address is a read error without traffic.
    for (const char *addr : {"V10.8", "V10240", "X0", "SB1"}) {
        const Read r = read(addr, NODE_TYPE_U8);
        EXPECT_EQ(r.rc, -1) << addr;
        EXPECT_EQ(r.value, "read error") << addr;
        EXPECT_EQ(r.out, "read error") << addr;
    }
    EXPECT_EQ(read("I1.2", NODE_TYPE_S16).rc, -1);
    EXPECT_EQ(line_.requests(), 0u);
    struct Case {
        const char *addr;
        uint32_t type;
        const char *value;
    };
    const Case cases[] = {
        {"VW100", NODE_TYPE_U16, "4660"},
        {"V10.3", NODE_TYPE_BIT, "1"},
        {"V10.2", NODE_TYPE_BIT, "0"},
        {"VD200", NODE_TYPE_FLOAT, "42.000000"},
        {"IW0", NODE_TYPE_U16, "513"},        // inputs low byte first
        {"QD4", NODE_TYPE_U32, "67305985"},   // outputs likewise
        {"SMB28", NODE_TYPE_U8, "128"},
        {"MW2", NODE_TYPE_HEX16, "read error"}, // HEX16 is not an M access
        {"C5", NODE_TYPE_U16, "300"},
        {"C5", NODE_TYPE_BCD16, "unkown type"},
    };
    for (const auto &c : cases) {
        const Read r = read(c.addr, c.type);
        EXPECT_EQ(r.value, c.value) << c.addr;
        EXPECT_EQ(r.rc, std::string(c.value) == "read error" ? -1 : 0) << c.addr;
    }
}

TEST_F(S7200Driver, FaultsFailTheReadAndTheNextOneRecovers)
{
    plc_.set_bytes(PpiSim::AREA_V, 100, {0x00, 0x2A});
    open_line();
    // The line's garbage comes from rand(): seeded so that the lone
    // acknowledgement byte is never turned into a valid one.
    srand(1);
    expect_each_fault_recovers("VW100", NODE_TYPE_U16, "42", "read error",
                               {{plc_.faults.garbage, "cmd error\nread error"},
                                {plc_.faults.silent, "timeout1\nread error"},
                                {plc_.faults.nak, "cmd error\nread error"},
                                // no data in the answer
                                {plc_.faults.exception, "read error"}},
                               false);
    // The answer's check byte is not looked at.
    plc_.faults.bad_checksum = true;
    EXPECT_EQ(read("VW100", NODE_TYPE_U16).value, "42");
    plc_.faults.bad_checksum = false;
    // An answer in pieces is gathered within the exchange's time.
    plc_.faults.split = true;
    EXPECT_EQ(read("VW100", NODE_TYPE_U16).value, "42");
    EXPECT_EQ(read("VD100", NODE_TYPE_U32).value, "2752512");
}

TEST_F(S7200Driver, AnswerIsAlwaysFetchedFromStation2)
{
    // The job goes to the configured station, the fetch to station 2: a
    // PLC at another station acknowledges but is never asked for the data.
    dev_->station_num = 5;
    open_line({&plc5_});
    const Read r = read("VW100", NODE_TYPE_U16);
    EXPECT_EQ(r.rc, -1);
    EXPECT_EQ(r.out, "timeout2\nread error");
    EXPECT_EQ(plc5_.jobs(), 1u);
}

TEST_F(S7200Driver, SharesALineWithAQnA4CCpu)
{
    // The QnA simulator is asked first about every 0x10 and must leave the
    // fetch frame to the S7-200.
    plc_.set_bytes(PpiSim::AREA_V, 100, {0x00, 0x2A});
    open_line({&qna_, &plc_});
    EXPECT_EQ(read("VW100", NODE_TYPE_U16).value, "42");
    EXPECT_EQ(read("VW100", NODE_TYPE_U16).value, "42");
    EXPECT_EQ(qna_.reads(), 0u);
}

TEST_F(S7200Driver, OpenAndLifecycle)
{
    auto c = capture_output([&] {
        dev_->serial_number = 0;
        EXPECT_EQ(drv().open(dev_), -1);
        dev_->serial_number = 2; // nothing linked there
        EXPECT_EQ(drv().open(dev_), -1);
        EXPECT_EQ(drv().write(dev_, "VW100", 4, "1"), 0);
        EXPECT_EQ(drv().update_params(dev_), 0);
        EXPECT_EQ(drv().save_config(dev_), 0);
    });
    EXPECT_EQ(c.out, "serial_number err\nopen error\n<siemens_s7_200_write> called\n"
                     "<siemens_s7_200_update_params> called\n<siemens_s7_200_save_config> called\n");
    // Without an open port a read is a time-out, never a read on someone else's descriptor.
    const Read r = read("VW100", NODE_TYPE_U16);
    EXPECT_EQ(r.out, "timeout1\nread error");

    drv().remove();
    c = capture_output([&] {
        EXPECT_EQ(drv().release(dev_), -1);
        char addr[] = "VW100", value[NODE_VALUE_SIZE] = "";
        EXPECT_EQ(drv().read(dev_, addr, 4, value), -1);
        drv().remove();
        EXPECT_EQ(drv().probe(), 0);
        EXPECT_EQ(drv().probe(), 0);
    });
    EXPECT_EQ(c.out, "<siemens_s7_200_release>: Failed to get drvdata\n"
                     "<siemens_s7_200_read>: Failed to get drvdata\n"
                     "<siemens_s7_200_remove> called\nsiemens_s7_200_drv.drv.priv = NULL\n"
                     "<siemens_s7_200_probe> called\n<siemens_s7_200_probe> called\n"
                     "siemens_s7_200_drv.drv.priv != NULL\n");
}
