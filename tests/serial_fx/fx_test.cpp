// FX programming port: request frames and answer decoding as bytes, the
// two FX drivers against the simulated PLC on a pseudo-terminal, and the
// daemon reading it end to end.
#include <gtest/gtest.h>

#include <cstring>

#include "device/driver/driver.h"
#include "device/driver/serial/fx_codec.h"
#include "device/plc/plc_serial.h"
#include "service/runtime.h"
#include "sim/fx_sim.h"
#include "support/config_calls.h"
#include "support/daemon_fixture.h"

using namespace dstest;

namespace {

std::string frame_text(const char *addr, int *rc = nullptr)
{
    uint8_t f[FX_REQUEST_SIZE];
    uint8_t bit = 0;
    const int r = fx_build_request(addr, f, &bit);
    if (rc != nullptr)
        *rc = r;
    return r == 0 ? std::string(reinterpret_cast<char *>(f), sizeof f) : "";
}

std::string decode(const std::string &data, uint32_t type, bool fx3u = false, uint8_t bit = 0,
                   bool whole = true)
{
    const std::string answer = "\x02" + data + (whole ? "\x03" "00" : "");
    char v[NODE_VALUE_SIZE] = {};
    if (fx_decode_answer(reinterpret_cast<const uint8_t *>(answer.data()), answer.size(), type,
                         fx3u, bit, v, sizeof v) != 0)
        return "<fail>";
    return v;
}

} // namespace

TEST(FxCodec, RequestFrames)
{
    // STX "0" "10C8" "04" ETX, then the sum of "0" to ETX.
    unsigned sum = 0;
    for (char c : std::string("010C804\x03"))
        sum += static_cast<unsigned char>(c);
    char s[3];
    snprintf(s, sizeof s, "%02X", sum & 0xFF);
    EXPECT_EQ(frame_text("D100"), std::string("\x02" "010C804\x03") + s);
    EXPECT_EQ(frame_text("X367").substr(2, 4), "00A4");
    EXPECT_EQ(frame_text("X17").substr(2, 6), "008102") << "X17 is byte 1 bit 7, not octal";
    EXPECT_EQ(frame_text("m8511").substr(2, 4), "0527");
    EXPECT_EQ(frame_text("C10").substr(2, 4), "01C1");
    int rc = 0;
    for (const char *bad : {"X18", "X370", "M8512", "S4096", "T512", "D8512"}) {
        frame_text(bad, &rc);
        EXPECT_EQ(rc, -2) << bad;
    }
    frame_text("Z1", &rc);
    EXPECT_EQ(rc, -1);
    frame_text("", &rc);
    EXPECT_EQ(rc, -1);
}

TEST(FxCodec, AnswerDecoding)
{
    EXPECT_EQ(decode("3412", 4), "4660");
    EXPECT_EQ(decode("3a12", 4), "4656") << "lower-case hex reads as 0";
    EXPECT_EQ(decode("FEFF", 5), "-2");
    EXPECT_EQ(decode("FF00", 3), "255") << "S8 stays unsigned";
    EXPECT_EQ(decode("80", 1, false, 7), "1");
    EXPECT_EQ(decode("80", 1, false, 6), "0");
    EXPECT_EQ(decode("78563412", 6), std::to_string(0x56781234));
    EXPECT_EQ(decode("78563412", 12), "0x56781234");
    EXPECT_EQ(decode("0000803F", 10, true), "1.000000");
    EXPECT_EQ(decode("0000803F", 10, false), "unkown type");
    EXPECT_EQ(decode("1234", 8), "unkown type");
    EXPECT_EQ(decode("34", 4, false, 0, false), "<fail>") << "never decodes past what arrived";
    EXPECT_EQ(decode("", 1, false, 0, false), "<fail>");
}

class FxDriver : public ::testing::Test {
protected:
    FxDriver() : line_(dir_.file("tty1"))
    {
        service_paths p;
        p.serial_port_1 = dir_.file("tty1");
        set_runtime_paths(p);
        capture_output([] { init_driver(); });
        line_.add_protocol(&plc_);
        line_.start();
        dev_ = serial_device_create(1, "fx", 0, 1, 101, 0, 1, 0, 9600, 7, 1, 1);
        plc_device probe;
        probe.dev_mfg = 1;
        probe.dev_type = 101;
        dev_->driver = device_driver_match(&probe);
    }
    ~FxDriver() override
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
    sim::FxSim plc_;
    sim::SerialLine line_;
    serial_device *dev_ = nullptr;
};

TEST_F(FxDriver, ReadsAndSurvivesEveryFault)
{
    using R = std::pair<int, std::string>;
    plc_.set_register(100, 4660);
    plc_.set_register(10, 0x1234);
    plc_.set_register(11, 0x5678);
    plc_.set_bit("X17", true);
    plc_.set_bit("M8", true);
    EXPECT_EQ(read("D100", 4), R(0, "4660"));
    EXPECT_EQ(read("D10", 6), R(0, std::to_string(0x12345678)));
    EXPECT_EQ(read("X17", 1), R(0, "1"));
    EXPECT_EQ(read("X16", 1), R(0, "0"));
    EXPECT_EQ(read("M8", 1), R(0, "1"));
    EXPECT_EQ(read("D100", 9), R(0, "unkown type"));
    EXPECT_EQ(read("X18", 1), R(-1, "read error"));

    std::string out;
    plc_.faults.nak = true;
    EXPECT_EQ(read("D100", 4, &out), R(-1, "read error"));
    EXPECT_NE(out.find("cmd error\n"), std::string::npos);
    plc_.faults.nak = false;
    plc_.faults.silent = true;
    EXPECT_EQ(read("D100", 4, &out), R(-1, "read error"));
    EXPECT_NE(out.find("timeout1\n"), std::string::npos);
    plc_.faults.silent = false;
    plc_.faults.garbage = true;
    EXPECT_NO_FATAL_FAILURE(read("D100", 4));
    plc_.faults.garbage = false;
    plc_.faults.bad_checksum = true;
    EXPECT_EQ(read("D100", 4), R(0, "4660")) << "the answer's sum is not checked";
    plc_.faults.bad_checksum = false;
    EXPECT_EQ(read("D100", 4), R(0, "4660")) << "and the next read is fine again";
}

TEST_F(FxDriver, OpenNeedsAKnownPort)
{
    dev_->serial_number = 3;
    std::string out;
    EXPECT_EQ(read("D100", 4, &out).first, -100);
    EXPECT_EQ(out, "serial_number err\n");
}

class FxE2E : public DaemonTest {};

TEST_F(FxE2E, ValuesPublishedAndBackAfterSilence)
{
    sim::FxSim plc;
    plc.set_register(100, 321);
    plc.set_bit("M8", true);
    sim::SerialLine line(options_.tty1);
    line.add_protocol(&plc);
    line.start();
    start_daemon();
    NodesRecorder rec(conn());
    ASSERT_EQ(call("SerialDeviceAdd", serial_args(1, 1, 102, "fx1n", 0, 1, 9600, 7, 1, 1)).response, 0);
    ASSERT_EQ(call("SerialDeviceAdd", serial_args(2, 1, 101, "fx3u", 0, 1, 9600, 7, 1, 1)).response, 0);
    ASSERT_EQ(call("nodeTableAddMulti", node_array({{1, 1, "D100", 4, "d"}, {1, 2, "M8", 1, "m"},
                                                    {2, 3, "D100", 11, "h"}}))
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
    ASSERT_TRUE(wait_values({"1/d=321", "1/m=1", "2/h=0x141"})) << daemon_->out();
    plc.faults.silent = true;
    ASSERT_TRUE(daemon_->wait_output("timeout1\n"));
    EXPECT_TRUE(daemon_->wait_output("read_PLC_nodes_3:665 D100 = NULL\n"));
    ASSERT_TRUE(wait_values({}));
    plc.set_register(100, 123);
    plc.faults.silent = false;
    EXPECT_TRUE(wait_values({"1/d=123", "1/m=1", "2/h=0x7b"}));
}
