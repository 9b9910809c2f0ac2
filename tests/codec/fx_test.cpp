// FX programming port: request frames and answer decoding as bytes.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "codec/fx_codec.h"
#include "device/plc/plc_node.h"

namespace {

struct Request {
    int rc;
    std::string frame;
    unsigned bit;
};

Request request(const char *addr)
{
    uint8_t f[FX_REQUEST_SIZE];
    uint8_t bit = 0xEE;
    const int rc = fx_build_request(addr, f, &bit);
    return {rc, rc == 0 ? std::string(reinterpret_cast<char *>(f), sizeof f) : "", bit};
}

// Decodes STX + data (+ ETX and a sum when `whole`) into a 32-byte value
// buffer followed by a guard, which must stay untouched.
std::string decode(const std::string &data, uint32_t type, bool fx3u = false, uint8_t bit = 0,
                   bool whole = true)
{
    const std::string answer = "\x02" + data + (whole ? "\x03" "00" : "");
    struct {
        char value[NODE_VALUE_SIZE];
        char guard[8];
    } out;
    memset(&out, '#', sizeof out);
    const int rc = fx_decode_answer(reinterpret_cast<const uint8_t *>(answer.data()), answer.size(),
                                    type, fx3u, bit, out.value, sizeof out.value);
    EXPECT_EQ(std::string(out.guard, sizeof out.guard), std::string(8, '#'));
    if (rc != 0)
        return "<fail>";
    EXPECT_NE(memchr(out.value, '\0', sizeof out.value), nullptr);
    return out.value;
}

} // namespace

TEST(FxCodec, RequestsForEveryAreaAndRefused)
{
    struct Case {
        const char *addr;
        const char *address_and_count;
        unsigned bit;
    } cases[] = {
        {"X0", "008002", 0},   {"X17", "008102", 7},  {"X100", "008A02", 0}, // decimal byte number, not octal
        {"X367", "00A402", 7}, {"Y7", "00A002", 7},   {"Y365", "00C402", 5},
        {"M0", "010002", 0},   {"m8511", "052702", 7}, {"S4095", "01FF02", 7},
        {"T0", "00C002", 0},   {"T511", "00FF02", 7}, {"C10", "01C102", 2},
        {"d0", "100004", 0},   {"D8511", "527E04", 0},
    };
    for (const Case &c : cases) {
        const Request r = request(c.addr);
        ASSERT_EQ(r.rc, 0) << c.addr;
        EXPECT_EQ(r.frame.substr(2, 6), c.address_and_count) << c.addr;
        if (c.addr[0] != 'd' && c.addr[0] != 'D') {
            EXPECT_EQ(r.bit, c.bit) << c.addr;
        }
        unsigned sum = 0;
        for (size_t i = 1; i <= 8; ++i)
            sum += static_cast<unsigned char>(r.frame[i]);
        char s[3];
        snprintf(s, sizeof s, "%02X", sum & 0xFF);
        EXPECT_EQ(r.frame.substr(9), s) << c.addr;
    }
    // Addresses refused.
    // -2: a number outside its area (X/Y last digit 8 or 9, byte 37 and up).
    for (const char *bad : {"X18", "X19", "X370", "Y18", "M8512", "S4096", "T512", "C512", "D8512",
                            "D4294967396", "D99999999999999"})
        EXPECT_EQ(request(bad).rc, -2) << bad;
    // -1: no area letter.
    for (const char *bad : {"Z1", "", "100", "W0"})
        EXPECT_EQ(request(bad).rc, -1) << bad;

    // Sum of "0", "10C8", "04" and ETX: 0x173, sent as its low byte.
    EXPECT_EQ(request("D100").frame, std::string("\x02" "010C804" "\x03" "73", 11));
}

TEST(FxCodec, DecodingPerDataTypeShortAnswersAndCompleteness)
{
    struct Case {
        const char *data;
        uint32_t type;
        uint8_t bit;
        const char *fx1n;
        const char *fx3u;
    } cases[] = {
        {"80", 1, 7, "1", "1"},
        {"80", 1, 6, "0", "0"},
        {"FF", 2, 0, "255", "255"},
        {"FF", 3, 0, "255", "255"}, // S8 is not sign-extended
        {"3412", 4, 0, "4660", "4660"},
        {"3a12", 4, 0, "4656", "4656"}, // lower-case hex letters read as 0
        {"FFFF", 4, 0, "65535", "65535"},
        {"FEFF", 5, 0, "-2", "-2"},
        {"78563412", 6, 0, "1450709556", "1450709556"}, // 0x56781234: first register high
        {"00800000", 6, 0, "-2147483648", "-2147483648"}, // U32 prints signed
        {"FFFFFFFF", 7, 0, "-1", "-1"},
        {"0000803F", 10, 0, "unkown type", "1.000000"},
        {"0000C0BF", 10, 0, "unkown type", "-1.500000"},
        {"3412", 11, 0, "0x1234", "0x1234"},
        {"78563412", 12, 0, "0x56781234", "0x56781234"},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(decode(c.data, c.type, false, c.bit), c.fx1n) << c.data << " type " << c.type;
        EXPECT_EQ(decode(c.data, c.type, true, c.bit), c.fx3u) << c.data << " type " << c.type;
    }
    for (uint32_t type : {8u, 9u, 13u, 14u, 15u, 0u, 99u})
        EXPECT_EQ(decode("12345678", type, true), "unkown type") << type;

    // One character short of what each type needs: a failure, never a read
    // past the answer (the answer buffer is exactly what arrived).
    EXPECT_EQ(decode("8", 1, false, 0, false), "<fail>");
    EXPECT_EQ(decode("341", 4, false, 0, false), "<fail>");
    EXPECT_EQ(decode("7856341", 6, false, 0, false), "<fail>");
    EXPECT_EQ(decode("0000803", 10, true, 0, false), "<fail>");
    EXPECT_EQ(decode("", 2, false, 0, false), "<fail>");
    uint8_t nothing = 0;
    char v[NODE_VALUE_SIZE] = {};
    EXPECT_EQ(fx_decode_answer(&nothing, 0, 4, false, 0, v, sizeof v), -1);
    // The largest float prints 46 characters: cut to the value buffer.
    const std::string big = decode("FFFF7F7F", 10, true);
    EXPECT_EQ(big.size(), NODE_VALUE_SIZE - 1);
    EXPECT_EQ(big.substr(0, 10), "3402823466");

    // Complete: STX, ETX and the two sum characters.
    auto complete = [](const std::string &s) {
        return fx_answer_complete(reinterpret_cast<const uint8_t *>(s.data()), s.size());
    };
    EXPECT_TRUE(complete("\x02" "3412" "\x03" "C7"));
    EXPECT_TRUE(complete("\x02" "\x03" "00"));
    EXPECT_FALSE(complete("\x02" "3412" "\x03" "C"));
    EXPECT_FALSE(complete("\x02" "3412"));
    EXPECT_FALSE(complete("3412" "\x03" "C7"));
    EXPECT_FALSE(complete(""));
}

