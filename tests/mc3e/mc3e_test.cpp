// MC 3E frames as bytes, the QnA 3E driver against the simulated Q CPU with
// each fault, and the FX-5U and QnA 3E models end to end on the daemon.
#include <gtest/gtest.h>

#include <cstring>

#include "device/driver/driver.h"
#include "device/driver/ethernet/mc_3e_codec.h"
#include "device/plc/plc_ethernet.h"
#include "sim/mc_3e_sim.h"
#include "sim/modbus_tcp_sim.h"
#include "support/config_calls.h"
#include "support/daemon_fixture.h"

using namespace dstest;

namespace {
using bytes = std::vector<uint8_t>;

bytes request_of(int kind, const char *addr)
{
    MC_bulk_read_msg m;
    const int r = kind == 0 ? build_MC_bulk_read_bit_msg_2(&m, addr)
                            : build_MC_bulk_read_word_msg_2(&m, addr);
    if (r != 0)
        return {};
    bytes b(MC_REQUEST_HEX_LEN);
    output_hex_MC_bulk_read_msg(&m, b.data(), b.size());
    return b;
}
} // namespace

TEST(Mc3eCodec, RequestsAndAddresses)
{
    EXPECT_EQ(request_of(1, "D100"), (bytes{0x50, 0x00, 0x00, 0xFF, 0xFF, 0x03, 0x00, 0x0C, 0x00,
                                           0x10, 0x00, 0x01, 0x04, 0x00, 0x00, 0x64, 0x00, 0x00,
                                           0xA8, 0x01, 0x00}));
    EXPECT_EQ(request_of(0, "m20"), request_of(0, "M20"));
    EXPECT_EQ(request_of(0, "M20")[18], 0x90);
    EXPECT_EQ(request_of(0, "M20")[13], 0x01) << "bit units";
    EXPECT_EQ(request_of(1, "T5")[18], 0xC2) << "T as a word is TN";
    EXPECT_EQ(request_of(0, "T5")[18], 0xC1) << "and as a bit TS";
    EXPECT_TRUE(request_of(0, "D100").empty()) << "a word device is not read in bits";
    EXPECT_TRUE(request_of(1, "M20").empty());
    ASSERT_EQ(request_of(0, "X1F").size(), MC_REQUEST_HEX_LEN);
    EXPECT_EQ(request_of(0, "X1F")[15], 1) << "X numbers are decimal";
    auto c = capture_output([] { EXPECT_TRUE(request_of(1, "100").empty()); });
    EXPECT_NE(c.err.find("code_len = 0\n"), std::string::npos);
    c = capture_output([] { EXPECT_TRUE(request_of(1, "QX1").empty()); });
    EXPECT_NE(c.err.find("ascii_code can't match in code_map\n"), std::string::npos);

    MC_bulk_read_msg m;
    ASSERT_EQ(build_MC_bulk_read_word_msg_2(&m, "D100"), 0);
    char text[64];
    ASSERT_EQ(output_ascii_MC_bulk_read_msg(&m, text, sizeof text), 42);
    EXPECT_STREQ(text, "500000ff03ff000018001004010000D*0001000001");
    ASSERT_EQ(build_MC_bulk_read_msg(&m, 0, 0x90, 0, 3), 0);
    EXPECT_EQ(m.expect_response_hex_len, 4);
    ASSERT_EQ(build_MC_bulk_read_msg(&m, 1, 0xA8, 0, 3), 0);
    EXPECT_EQ(m.expect_response_hex_len, 8);
}

TEST(Mc3eCodec, ResponseChecksAndValues)
{
    MC_bulk_read_msg m;
    ASSERT_EQ(build_MC_bulk_read_word_msg_2(&m, "D100"), 0);
    const bytes ok = {0xD0, 0x00, 0x00, 0xFF, 0xFF, 0x03, 0x00, 0x04, 0x00, 0x00, 0x00, 0x39, 0x30};
    ASSERT_EQ(capture_output([&] { EXPECT_EQ(analyze_MC_response(ok.data(), ok.size(), &m), 0); }).out,
              "respond success : respond code = 0x0000\n");
    EXPECT_EQ(get_word_soft_component_value(&m), 12345);

    bytes bad = ok;
    bad[0] = 0xD1;
    EXPECT_EQ(analyze_MC_response(bad.data(), bad.size(), &m), -1);
    bad = ok;
    bad[3] = 0x00;
    EXPECT_NE(capture_output([&] { analyze_MC_response(bad.data(), bad.size(), &m); }).err.find(" plc_num\n"),
              std::string::npos);
    EXPECT_EQ(analyze_MC_response(ok.data(), ok.size() - 1, &m), -1)
        << "shorter than its header claims";
    EXPECT_EQ(analyze_MC_response(ok.data(), 5, &m), -1);
    const bytes exception = {0xD0, 0x00, 0x00, 0xFF, 0xFF, 0x03, 0x00, 0x0B, 0x00, 0x59, 0xC0,
                             0x00, 0xFF, 0xFF, 0x03, 0x00, 0x01, 0x04, 0x00, 0x00};
    auto c = capture_output([&] { EXPECT_EQ(analyze_MC_response(exception.data(), exception.size(), &m), -1); });
    EXPECT_NE(c.err.find("exception : respond code = 0xc059\n"), std::string::npos) << c.err;
    EXPECT_EQ(c.err.find("exception,"), std::string::npos) << "the echoed request matches";

    ASSERT_EQ(build_MC_bulk_read_bit_msg_2(&m, "M20"), 0);
    const bytes bit = {0xD0, 0x00, 0x00, 0xFF, 0xFF, 0x03, 0x00, 0x03, 0x00, 0x00, 0x00, 0x10};
    ASSERT_EQ(analyze_MC_response(bit.data(), bit.size(), &m), 0);
    EXPECT_EQ(get_bit_soft_component_value(&m), '1');
}

class QnA3EDriver : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(plc_.start());
        capture_output([] { init_driver(); });
        dev_ = ethernet_device_create(1, "q", 1, 1, 104, "127.0.0.1", plc_.port(), 0, 0);
        plc_device probe;
        probe.dev_mfg = 1;
        probe.dev_type = 104;
        dev_->driver = device_driver_match(&probe);
    }
    void TearDown() override { ethernet_device_free(dev_); }
    std::pair<int, std::string> read(const char *addr, uint32_t type, Captured *log = nullptr)
    {
        char v[NODE_VALUE_SIZE] = {};
        int r = -100;
        auto c = capture_output([&] {
            if (dev_->driver->open(dev_) == 0) {
                r = dev_->driver->read(dev_, addr, type, v);
                dev_->driver->release(dev_);
            }
        });
        if (log != nullptr)
            *log = c;
        return {r, v};
    }
    sim::Mc3eSim plc_;
    ethernet_device *dev_ = nullptr;
};

TEST_F(QnA3EDriver, ReadsAndEveryFaultCostsOnlyThatNode)
{
    using R = std::pair<int, std::string>;
    plc_.set(0xA8, 100, 12345);
    plc_.set(0x90, 20, 1);
    EXPECT_EQ(read("D100", 5), R(0, "12345"));
    EXPECT_EQ(read("M20", 1), R(0, "1"));
    EXPECT_EQ(read("D100", 1), R(-1, "read err"));
    Captured log;
    EXPECT_EQ(read("D100", 4, &log), R(-1, "read err"));
    EXPECT_NE(log.err.find("dt err = 4\n"), std::string::npos);
    for (auto *fault : {&plc_.faults.exception, &plc_.faults.wrong_length, &plc_.faults.half_frame,
                        &plc_.faults.close_conn, &plc_.faults.garbage, &plc_.faults.silent}) {
        *fault = true;
        EXPECT_EQ(read("D100", 5, &log), R(-1, "read err"));
        *fault = false;
        EXPECT_EQ(read("D100", 5), R(0, "12345")) << "the next read is fine again";
    }
}

TEST_F(QnA3EDriver, StaleInputIsDrainedAtOpen)
{
    plc_.set(0xA8, 1, 7);
    char v[NODE_VALUE_SIZE];
    // A read left unanswered: its late answer waits on the connection.
    plc_.faults.silent = true;
    capture_output([&] {
        ASSERT_EQ(dev_->driver->open(dev_), 0);
        EXPECT_EQ(dev_->driver->read(dev_, "D1", 5, v), -1);
    });
    plc_.faults.silent = false;
    auto c = capture_output([&] {
        ASSERT_EQ(dev_->driver->open(dev_), 0);
        EXPECT_EQ(dev_->driver->read(dev_, "D1", 5, v), 0);
        dev_->driver->release(dev_);
    });
    EXPECT_STREQ(v, "7");
}

class EthMitsubishiE2E : public DaemonTest {};

TEST_F(EthMitsubishiE2E, Fx5uAndQnA3EValuesAndRecovery)
{
    sim::ModbusTcpSim fx5u;
    sim::Mc3eSim q;
    ASSERT_TRUE(fx5u.start());
    ASSERT_TRUE(q.start());
    fx5u.set_register(100, 42);
    q.set(0xA8, 100, -3 & 0xFFFF);
    start_daemon();
    NodesRecorder rec(conn());
    ASSERT_EQ(call("EthernetDeviceAdd", ethernet_args(11, 1, 103, "fx5u", "127.0.0.1", fx5u.port())).response, 0);
    ASSERT_EQ(call("EthernetDeviceAdd", ethernet_args(12, 1, 104, "q", "127.0.0.1", q.port())).response, 0);
    ASSERT_EQ(call("nodeTableAddMulti", node_array({{11, 1, "D100", 4, "a"}, {12, 2, "D100", 5, "b"}})).response, 0);
    start_system_service(1);
    auto wait_values = [&](const std::vector<std::string> &want) {
        return wait_until(
            [&] {
                rec.wait_for_count(rec.count() + 1, 3s);
                return rec.count() > 0 && cycle_values(rec.last()) == want;
            },
            20s, 1ms);
    };
    ASSERT_TRUE(wait_values({"11/a=42", "12/b=-3"})) << daemon_->out();
    const uint16_t fx_port = fx5u.port();
    fx5u.stop();
    q.faults.silent = true;
    ASSERT_TRUE(daemon_->wait_output("connection fail\n", 15s));
    ASSERT_TRUE(daemon_->wait_output("select = 0\n", 15s));
    ASSERT_TRUE(wait_values({}));
    fx5u.set_register(100, 43);
    ASSERT_TRUE(fx5u.start(fx_port));
    q.faults.silent = false;
    EXPECT_TRUE(wait_values({"11/a=43", "12/b=-3"}));
}
