// The QnA 3E driver against a simulated Q CPU on loopback: values, refused
// nodes, every fault of the PLC, stale input and reconnection.
#include <gtest/gtest.h>

#include <string>

#include "device/plc/plc_serial.h"
#include "sim/mc_3e_sim.h"
#include "support/ethernet_driver_test.h"

using namespace dstest;

class QnA3EDriver : public EthernetDriverTest<sim::Mc3eSim> {
protected:
    QnA3EDriver() : EthernetDriverTest(1, 104) {}
    void SetUp() override
    {
        EthernetDriverTest::SetUp();
        plc_.set(0xA8, 100, 12345);
        plc_.set(0x90, 20, 1);
    }
};

TEST_F(QnA3EDriver, ReadsWordsAndBits)
{
    Captured log;
    EXPECT_EQ(read("D100", 5, &log), R(0, "12345"));
    EXPECT_NE(log.out.find("send num = 21\n50 00 00 ff ff 03 00 0c 00 10 \n00 01 04 00 00 64 00 00 a8 01 \n00 \n"),
              std::string::npos)
        << log.out;
    EXPECT_NE(log.out.find("recv num = 13\n"), std::string::npos);
    EXPECT_NE(log.out.find("D100 = 12345\n"), std::string::npos);
    EXPECT_EQ(read("M20", 1), R(0, "1"));
    EXPECT_EQ(read("m21", 1), R(0, "0"));
    plc_.set(0xA8, 101, 0x8000);
    EXPECT_EQ(read("d101", 5), R(0, "-32768"));
    plc_.set(0xC2, 5, 300);
    plc_.set(0xC1, 5, 1);
    EXPECT_EQ(read("T5", 5), R(0, "300"));
    EXPECT_EQ(read("T5", 1), R(0, "1"));
}

TEST_F(QnA3EDriver, RefusedNodesAndRecordsLeaveReadErrAndSendNothing)
{
    Captured log;
    EXPECT_EQ(read("D100", 1), R(-1, "read err")) << "a word device in bit units";
    EXPECT_EQ(read("M20", 5), R(-1, "read err"));
    EXPECT_EQ(read("QX1", 5), R(-1, "read err"));
    EXPECT_EQ(read("D100", 4, &log), R(-1, "read err"));
    EXPECT_NE(log.err.find("mitsubishi_QnA_3E_read:"), std::string::npos);
    EXPECT_NE(log.err.find(" dt err = 4\n"), std::string::npos);
    EXPECT_EQ(plc_.requests(), 0u);

    // A serial record bound by maker and model is refused.
    serial_device *s = serial_device_create(8, "q", 0, 1, 104, 0, 1, 1, 9600, 8, 1, 0);
    s->driver = dev_->driver;
    int r = 0;
    capture_output([&] { r = s->driver->open(s); });
    EXPECT_EQ(r, -1);
    serial_device_free(s);
}

TEST_F(QnA3EDriver, EachFaultCostsOnlyThatNode)
{
    const struct {
        std::atomic<bool> *fault;
        const char *log;
    } faults[] = {
        {&plc_.faults.exception, "exception : respond code = 0xc059\n"},
        {&plc_.faults.wrong_length, "response_hex_len(6) != expect(4)\n"},
        {&plc_.faults.half_frame, "select = 0\n"},
        {&plc_.faults.close_conn, "recv = 0\n"},
        {&plc_.faults.garbage, "respond_subhead\n"},
        {&plc_.faults.silent, "select = 0\n"},
    };
    for (const auto &f : faults) {
        *f.fault = true;
        Captured log;
        EXPECT_EQ(read("D100", 5, &log), R(-1, "read err")) << f.log;
        EXPECT_NE((log.out + log.err).find(f.log), std::string::npos) << log.out << log.err;
        *f.fault = false;
        EXPECT_EQ(read("D100", 5), R(0, "12345")) << "after " << f.log;
    }
    // An answer in two segments is gathered.
    plc_.faults.split = true;
    EXPECT_EQ(read("D100", 5), R(0, "12345"));
    EXPECT_EQ(read("M20", 1), R(0, "1"));
}

TEST_F(QnA3EDriver, SilenceOrAClosingPlcEndsTheConnection)
{
    ASSERT_EQ(open(), 0);
    EXPECT_EQ(read_open("D100", 5), R(0, "12345"));
    plc_.faults.silent = true;
    EXPECT_EQ(read_open("D100", 5), R(-1, "read err"));
    plc_.faults.silent = false;
    Captured log;
    EXPECT_EQ(read_open("D100", 5, &log), R(-1, "read err"))
        << "the rest of the bracket finds the connection closed";
    EXPECT_NE(log.err.find(" send:"), std::string::npos) << log.err;
    EXPECT_EQ(open(&log), 0);
    EXPECT_NE(log.out.find("connect successful\n"), std::string::npos);
    EXPECT_EQ(read_open("D100", 5), R(0, "12345"));
    EXPECT_EQ(plc_.connections(), 2u);

    // A PLC that closes: the drain before the next exchange sees the close.
    plc_.stop();
    EXPECT_EQ(open(&log), -1);
    EXPECT_NE(log.err.find(" recv = 0\n"), std::string::npos) << log.err;
}

TEST_F(QnA3EDriver, OpenReusesAConnectionAndDrainsStaleInput)
{
    Captured log;
    ASSERT_EQ(open(&log), 0);
    EXPECT_NE(log.out.find("mitsubishi_QnA_3E_open,dev_id = 7\n"), std::string::npos);
    EXPECT_NE(log.out.find("mitsubishi_QnA_3E_open,port = " + std::to_string(plc_.port()) + "\n"),
              std::string::npos);
    plc_.send_unsolicited({0xD0, 0x00, 0x00});
    ASSERT_TRUE(wait_until([&] { return !plc_.unsolicited_pending(); }, 5s));
    // The bytes are out of the simulator; give them the loopback's moment.
    ASSERT_TRUE(wait_until(
        [&] {
            open(&log);
            return log.err.find(" recv = 3\n") != std::string::npos;
        },
        5s));
    EXPECT_EQ(log.out.find("connect successful"), std::string::npos) << "no second connection";
    EXPECT_EQ(read_open("D100", 5), R(0, "12345")) << "the stale bytes are not taken for the answer";
    EXPECT_EQ(plc_.connections(), 1u);
}
