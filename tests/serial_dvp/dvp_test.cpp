// DVP-32EC over Modbus ASCII: frames and answers as bytes, the driver
// against the simulated PLC, and the daemon reading it end to end.
#include <gtest/gtest.h>

#include <cstring>

#include "device/driver/driver.h"
#include "device/driver/serial/dvp_codec.h"
#include "device/plc/plc_serial.h"
#include "service/runtime.h"
#include "sim/dvp_sim.h"
#include "support/config_calls.h"
#include "support/daemon_fixture.h"

using namespace dstest;

namespace {

std::string map_of(const char *addr)
{
    char letter = 0;
    char hex[5];
    mapping(addr, &letter, hex);
    return hex;
}

int decode(const std::string &answer, uint32_t *v)
{
    char exc[3];
    return analysis_delta(answer.c_str(), answer.size(), v, exc);
}

} // namespace

TEST(DvpCodec, FramesCodesAndAddresses)
{
    char addr[] = "d100";
    char code[3];
    ASSERT_EQ(get_code(code, addr, 4), 0);
    EXPECT_STREQ(addr, "D100") << "upper-cased in place";
    EXPECT_STREQ(code, "03");
    const std::string body = "0a0310640001";
    char lrc[3];
    snprintf(lrc, sizeof lrc, "%02X", get_LRC(body.c_str()));
    EXPECT_EQ(dvp_request(10, "03", "1064"), ":" + body + lrc + "\r\n");
    EXPECT_EQ(get_LRC("0103"), 0xFC);
    EXPECT_EQ(capture_output([] { EXPECT_EQ(get_LRC("010"), 0xFF); }).out,
              "get_LRC : input_len%2 != 0\n");

    char d1[] = "D100", m5[] = "M5", x1[] = "X1", c1[] = "c1";
    EXPECT_EQ(get_code(code, d1, 1), -1);
    EXPECT_EQ(get_code(code, m5, 4), -1);
    ASSERT_EQ(get_code(code, x1, 1), 0);
    EXPECT_STREQ(code, "02");
    ASSERT_EQ(get_code(code, c1, 6), 0);
    EXPECT_STREQ(code, "03");

    EXPECT_EQ(map_of("D4096"), "A000");
    EXPECT_EQ(map_of("M1535"), "0DFF");
    EXPECT_EQ(map_of("M1536"), "B600");
    EXPECT_EQ(map_of("X10"), "0408") << "X and Y are octal";
    EXPECT_EQ(map_of("X18"), "0401");
    EXPECT_EQ(map_of("X8"), "0408");
    EXPECT_EQ(map_of("Y17"), "050F");
}

TEST(DvpCodec, AnswerChecks)
{
    uint32_t v = 0;
    // ":" 01 03 02 1234 LRC CRLF
    char lrc[3];
    snprintf(lrc, sizeof lrc, "%02X", get_LRC("0103021234"));
    EXPECT_EQ(decode(std::string(":0103021234") + lrc + "\r\n", &v), 0);
    EXPECT_EQ(v, 0x1234u);
    std::string lower = std::string(":0103021234") + lrc + "\r\n";
    for (char &c : lower)
        if (c >= 'A' && c <= 'F')
            c = static_cast<char>(c - 'A' + 'a');
    EXPECT_EQ(decode(lower, &v), -2) << "a lower-case LRC is refused";
    snprintf(lrc, sizeof lrc, "%02X", get_LRC("018302"));
    char exc[3] = {};
    const std::string ex = std::string(":018302") + lrc + "\r\n";
    EXPECT_EQ(analysis_delta(ex.c_str(), ex.size(), &v, exc), -3);
    EXPECT_STREQ(exc, "02");
    EXPECT_EQ(decode(":0103021234", &v), -1) << "no CR LF";
    EXPECT_EQ(decode("", &v), -1);
    snprintf(lrc, sizeof lrc, "%02X", get_LRC("0103FF"));
    EXPECT_EQ(decode(std::string(":0103FF") + lrc + "\r\n", &v), -1)
        << "a byte count beyond the answer is not followed";
}

class DvpDriver : public ::testing::Test {
protected:
    DvpDriver() : line_(dir_.file("tty2"))
    {
        service_paths p;
        p.serial_port_2 = dir_.file("tty2");
        set_runtime_paths(p);
        capture_output([] { init_driver(); });
        line_.add_protocol(&plc_);
        line_.start();
        dev_ = serial_device_create(1, "dvp", 0, 3, 201, 0, 2, 10, 9600, 7, 1, 1);
        plc_device probe;
        probe.dev_mfg = 3;
        probe.dev_type = 201;
        dev_->driver = device_driver_match(&probe);
    }
    ~DvpDriver() override
    {
        line_.stop();
        serial_device_free(dev_);
    }
    std::pair<int, std::string> read(const char *addr, uint32_t type, std::string *out = nullptr)
    {
        char v[NODE_VALUE_SIZE] = {};
        int r = -100;
        auto c = capture_output([&] {
            if (dev_->driver->open(dev_) == 0) {
                r = dev_->driver->read(dev_, addr, type, v);
                dev_->driver->release(dev_);
            }
        });
        if (out != nullptr)
            *out = c.out;
        return {r, v};
    }
    TempDir dir_;
    sim::DvpSim plc_;
    sim::SerialLine line_;
    serial_device *dev_ = nullptr;
};

TEST_F(DvpDriver, ReadsAndSurvivesEveryFault)
{
    using R = std::pair<int, std::string>;
    plc_.set(0x1064, 65000);
    plc_.set(0x040F, 1);
    std::string out;
    EXPECT_EQ(read("D100", 4, &out), R(0, "65000"));
    EXPECT_NE(out.find(":0a031064"), std::string::npos) << "station 10 goes out as 0a";
    EXPECT_NE(out.find("<D100> = 65000\n"), std::string::npos);
    EXPECT_EQ(read("X17", 1), R(0, "1"));
    EXPECT_EQ(read("D100", 1, &out).first, -1);
    EXPECT_NE(out.find("get code err\n"), std::string::npos);

    plc_.faults.exception = true;
    EXPECT_EQ(read("D100", 4, &out).first, -1);
    EXPECT_NE(out.find("delta respond err = 02\n"), std::string::npos);
    plc_.faults.exception = false;
    plc_.faults.silent = true;
    EXPECT_EQ(read("D100", 4, &out).first, -1);
    EXPECT_NE(out.find("select timeout\n"), std::string::npos);
    plc_.faults.silent = false;
    plc_.faults.bad_checksum = true;
    EXPECT_EQ(read("D100", 4).first, -1);
    plc_.faults.bad_checksum = false;
    plc_.lower_case_lrc = true;
    plc_.set(0x1064, 1); // its LRC is F0: the letter goes out in lower case
    EXPECT_EQ(read("D100", 4).first, -1);
    plc_.lower_case_lrc = false;
    plc_.set(0x1064, 0xABCD);
    plc_.faults.garbage = true;
    EXPECT_NO_FATAL_FAILURE(read("D100", 4));
    plc_.faults.garbage = false;
    plc_.faults.split = true;
    EXPECT_EQ(read("D100", 4), R(0, std::to_string(0xABCD))) << "pieces are joined up to the LF";
    plc_.faults.split = false;
    EXPECT_EQ(read("D100", 4), R(0, std::to_string(0xABCD)));
}

class DvpE2E : public DaemonTest {};

TEST_F(DvpE2E, ValuesPublishedAndBackAfterSilence)
{
    sim::DvpSim plc;
    plc.set(0x1064, 77);
    sim::SerialLine line(options_.tty2);
    line.add_protocol(&plc);
    line.start();
    start_daemon();
    NodesRecorder rec(conn());
    ASSERT_EQ(call("SerialDeviceAdd", serial_args(5, 3, 201, "dvp", 1, 2, 9600, 7, 1, 1)).response, 0);
    ASSERT_EQ(call("nodeTableAddMulti", node_array({{5, 1, "D100", 4, "level"}})).response, 0);
    start_system_service(1);
    auto wait_values = [&](const std::vector<std::string> &want) {
        return wait_until(
            [&] {
                rec.wait_for_count(rec.count() + 1, 3s);
                return rec.count() > 0 && cycle_values(rec.last()) == want;
            },
            20s, 1ms);
    };
    ASSERT_TRUE(wait_values({"5/level=77"})) << daemon_->out();
    plc.faults.silent = true;
    ASSERT_TRUE(daemon_->wait_output("select timeout\n"));
    EXPECT_TRUE(daemon_->wait_output("read_PLC_nodes_3:665 D100 = NULL\n"));
    plc.set(0x1064, 78);
    plc.faults.silent = false;
    EXPECT_TRUE(wait_values({"5/level=78"}));
}
