// The Q-series serial driver against a simulated Q CPU on a pseudo-terminal
// linked where the driver expects port 1.
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "support/log_records.h"
#include "support/serial_driver_test.h"
#include "sim/qna_4c_sim.h"

namespace {

using namespace dstest;

// Answers every DLE-led request with a fixed byte string.
class CannedSim : public sim::SerialProtocolSim {
public:
    bool accepts(uint8_t first) const override { return first == 0x10; }
    size_t feed(const uint8_t *, size_t len, std::vector<uint8_t> &answer) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        answer = reply_;
        return len;
    }
    void reply(std::vector<uint8_t> bytes)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        reply_ = std::move(bytes);
    }

private:
    std::mutex mutex_;
    std::vector<uint8_t> reply_;
};

class QSerialDriver : public SerialDriverTest<sim::QnA4CSim> {
protected:
    QSerialDriver() : SerialDriverTest(1)
    {
        bind(serial_device_create(7, "q", 0, 1, 105, 0, 1, 0, 9600, 8, 1, 1));
    }

    // Result and value text of one read on the port opened by open_line.
    std::pair<int, std::string> read(const char *addr, uint32_t type)
    {
        const Read r = SerialDriverTest::read(addr, type, false);
        return {r.rc, r.value};
    }

    CannedSim canned_;
    LogRecords logs_;
};

const std::pair<int, std::string> failed = {-1, "untouched"};

} // namespace

TEST_F(QSerialDriver, ReadsWordsUnsignedAndBitsRefusingOtherTypes)
{
    ASSERT_TRUE(plc_.set_word("D100", 0xFFFF));
    ASSERT_TRUE(plc_.set_word("D16", 1234)); // a request with a doubled DLE
    ASSERT_TRUE(plc_.set_bit("M20", true));  // an ON bit comes back as a doubled DLE
    ASSERT_TRUE(plc_.set_word("D101", 0x1010));
    open_line();
    // Other types and addresses are refused without sending.
    EXPECT_EQ(read("D100", NODE_TYPE_U16), failed);
    EXPECT_TRUE(logs_.contains("mitusbishi_Qserial_read:"));
    EXPECT_TRUE(logs_.contains(" dt = 4\n"));
    EXPECT_EQ(read("D100", NODE_TYPE_FLOAT), failed);
    EXPECT_EQ(read("M20", NODE_TYPE_S16), failed); // bit device read as words
    EXPECT_EQ(read("XA5", NODE_TYPE_BIT), failed);
    EXPECT_EQ(read("DX", NODE_TYPE_BIT), failed);
    EXPECT_EQ(line_.requests(), 0u);
    EXPECT_EQ(read("D100", NODE_TYPE_S16), std::make_pair(0, std::string("65535")));
    EXPECT_EQ(read("d16", NODE_TYPE_S16), std::make_pair(0, std::string("1234")));
    EXPECT_EQ(read("M20", NODE_TYPE_BIT), std::make_pair(0, std::string("1")));
    EXPECT_EQ(read("SM400", NODE_TYPE_BIT), std::make_pair(0, std::string("0")));
    EXPECT_EQ(read("D101", NODE_TYPE_S16), std::make_pair(0, std::string("4112")));
    EXPECT_EQ(plc_.reads(), 5u);
}

TEST_F(QSerialDriver, FaultsFailTheReadAndTheNextOneRecovers)
{
    plc_.set_word("D100", 42);
    open_line();
    // What each read logged, the logs cleared for the next one.
    const auto logged = [this](const Read &) {
        const std::string text = logs_.text();
        logs_.clear();
        return text;
    };
    expect_each_fault_recovers("D100", NODE_TYPE_S16, "42", "untouched",
                               {{plc_.faults.nak, " respond_code = c051H\n"}, // an end code
                                {plc_.faults.exception, ""},
                                {plc_.faults.silent, " respond timeout \n"},
                                {plc_.faults.bad_checksum, " != sum:"},
                                // random bytes: how it fails depends on them
                                {plc_.faults.garbage, ""}},
                               false, logged);
    // An answer in pieces is gathered until its length is reached.
    plc_.faults.split = true;
    EXPECT_EQ(read("D100", NODE_TYPE_S16), std::make_pair(0, std::string("42")));
    EXPECT_EQ(read("M0", NODE_TYPE_BIT), std::make_pair(0, std::string("0")));
}

TEST_F(QSerialDriver, AnswersThatNeverCompleteTimeOut)
{
    open_line({&canned_});
    std::vector<uint8_t> no_etx = sim::qna_4c_format5_frame(
        {0x0E, 0x00, 0xF8, 0x00, 0x00, 0xFF, 0xFF, 0x03, 0x00, 0x00, 0xFF, 0xFF, 0x00, 0x00, 0x01, 0x00});
    no_etx[no_etx.size() - 3] = 'A';
    std::vector<uint8_t> too_long(40, 0x00); // claims 14 data bytes, sends far more
    too_long[0] = 0x10;
    too_long[2] = 0x0E;
    const std::pair<std::vector<uint8_t>, std::vector<const char *>> cases[] = {
        // Not led by DLE: nothing is thrown away, so the answer is never found.
        {{0x02, 0x0E, 0x00, 0xF8, 0x00}, {" R[0] != DLE\n", " respond timeout \n"}},
        {no_etx, {" R[-3]:41H != ETX\n"}},
        {too_long, {" offset:40 > response_max_len:24\n"}},
        // A flood bigger than the receive buffer ends in the time-out too.
        {std::vector<uint8_t>(300, 0x10), {" respond timeout \n"}},
    };
    for (const auto &[reply, lines] : cases) {
        logs_.clear();
        canned_.reply(reply);
        EXPECT_EQ(read("D100", NODE_TYPE_S16), failed);
        for (const char *line : lines)
            EXPECT_TRUE(logs_.contains(line)) << line << logs_.text();
    }
}

TEST_F(QSerialDriver, OpenChecksSettingsFirstAndTheLifecycleHoldsWithoutAPort)
{
    drv().release(dev_);
    dev_->parity_bit = 3;
    EXPECT_EQ(drv().open(dev_), -1);
    EXPECT_TRUE(logs_.contains("mitusbishi_Qserial_open:"));
    EXPECT_TRUE(logs_.contains(" sDev->parity_bit = 3\n"));
    EXPECT_FALSE(logs_.contains(" open "));
    dev_->parity_bit = 2;
    dev_->serial_number = 3;
    EXPECT_EQ(drv().open(dev_), -1);
    EXPECT_TRUE(logs_.contains(" serial_number = 3\n"));
    // Port 2 has no line behind it here.
    dev_->serial_number = 2;
    EXPECT_EQ(drv().open(dev_), -1);
    EXPECT_TRUE(logs_.contains(" open " + dir_.file("absent") + " : No such file or directory\n"))
        << logs_.text();
    // An Ethernet record bound by maker and model has no line settings.
    dev_->dev_comm_type = DEV_COMM_ETHERNET;
    EXPECT_EQ(drv().open(dev_), -1);

    auto c = capture_output([&] {
        EXPECT_EQ(drv().write(dev_, "D100", 5, "1"), 0);
        EXPECT_EQ(drv().update_params(dev_), 0);
        EXPECT_EQ(drv().save_config(dev_), 0);
        EXPECT_EQ(drv().probe(), 0); // already there: kept
    });
    EXPECT_EQ(c.out, "mitusbishi_Qserial_write called\nmitusbishi_Qserial_update_params called\n"
                     "mitusbishi_Qserial_save_config called\nmitusbishi_Qserial_probe called\n");
    EXPECT_TRUE(logs_.contains("mitusbishi_Qserial_drv.drv.priv != NULL\n"));

    drv().remove();
    EXPECT_EQ(drv().priv, nullptr);
    char addr[] = "D100", value[NODE_VALUE_SIZE] = "untouched";
    EXPECT_EQ(drv().open(dev_), -1);
    EXPECT_EQ(drv().read(dev_, addr, 5, value), -1);
    EXPECT_EQ(drv().release(dev_), -1);
    EXPECT_TRUE(logs_.contains("mitusbishi_Qserial_release:"));
    EXPECT_TRUE(logs_.contains(" drvdata = NULL\n"));
    drv().remove();
    EXPECT_TRUE(logs_.contains("mitusbishi_Qserial_drv.drv.priv = NULL\n"));
    // A fresh cell starts without a port.
    ASSERT_EQ(drv().probe(), 0);
    EXPECT_EQ(drv().release(dev_), 0);
}
