// DVP-32EC over Modbus ASCII: request frames, LRC and answers as bytes.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "codec/dvp_codec.h"
#include "support/test_util.h"

using namespace dstest;

namespace {

std::string map_of(const char *addr)
{
    char letter = 0;
    char hex[5];
    mapping(addr, &letter, hex);
    return hex;
}

std::string code_of(const char *addr, uint32_t type)
{
    char a[16];
    snprintf(a, sizeof a, "%s", addr);
    char code[3] = {};
    return get_code(code, a, type) == 0 ? code : "-";
}

struct Decoded {
    int rc;
    uint32_t value;
    std::string exception;
};

// The answer to a request with function `code` (by default the answer's own).
Decoded decode(const std::string &answer, std::string code = "")
{
    Decoded d{0, 0xDEADBEEF, ""};
    char exc[3] = {};
    if (code.empty())
        code = answer.size() > 5 ? answer.substr(3, 2) : "03";
    d.rc = analysis_delta(answer.data(), answer.size(), code.c_str(), &d.value, exc);
    d.exception = exc;
    return d;
}

} // namespace

TEST(DvpCodec, RequestLrcAndAnswersByteExact)
{
    char addr[] = "d100";
    char code[3];
    ASSERT_EQ(get_code(code, addr, 4), 0);
    EXPECT_STREQ(addr, "D100") << "the address is upper-cased in place";
    // 0a + 03 + 10 + 64 + 00 + 01 = 0x82: the LRC is 0x7E.
    EXPECT_EQ(dvp_request(10, code, map_of(addr).c_str()), ":0a03106400017E\r\n");
    EXPECT_EQ(dvp_request(1, "02", map_of("X17").c_str()), ":0102040F0001E9\r\n");
    EXPECT_EQ(get_LRC("0103021234"), 0xB4);
    EXPECT_EQ(get_LRC("FF01"), 0x00) << "the sum wraps at 8 bits";
    EXPECT_EQ(get_LRC(""), 0x00);
    EXPECT_EQ(capture_output([] { EXPECT_EQ(get_LRC("010"), 0xFF); }).out,
              "get_LRC : input_len%2 != 0\n");

    Decoded d = decode(":0103021234B4\r\n");
    EXPECT_EQ(d.rc, 0);
    EXPECT_EQ(d.value, 0x1234u);
    d = decode(":010302FFFFFC\r\n");
    EXPECT_EQ(d.rc, 0);
    EXPECT_EQ(d.value, 65535u) << "a register reads unsigned";
    // A coil or input is bit 0 of the byte answered, by the request's code.
    EXPECT_EQ(decode(":01010101FC\r\n").value, 1u);
    EXPECT_EQ(decode(":010101FEFF\r\n").value, 0u);
    EXPECT_EQ(decode(":010201FFFD\r\n").value, 1u);
    EXPECT_EQ(decode(":010101FEFF\r\n", "03").value, 0xFEu);
    d = decode(":0183027A\r\n");
    EXPECT_EQ(d.rc, -3);
    EXPECT_EQ(d.exception, "02");

    EXPECT_EQ(decode(":0103021234b4\r\n").rc, -2) << "a lower-case LRC is refused";
    EXPECT_EQ(decode(":0103021234B5\r\n").rc, -2);
    EXPECT_EQ(decode("0103021234B4\r\n").rc, -1) << "no ':'";
    EXPECT_EQ(decode(":0103021234B4\n").rc, -1) << "no CR";
    EXPECT_EQ(decode(":0103021234B4").rc, -1);
    EXPECT_EQ(decode(":0103FFFD\r\n").rc, -1) << "a byte count beyond the answer";
    EXPECT_EQ(decode(":\r\n").rc, -1);
    EXPECT_EQ(decode("").rc, -1);
    EXPECT_EQ(decode(std::string(":") + std::string(80, '0') + "00\r\n").rc, -1) << "oversized";
}

TEST(DvpCodec, ModbusAddressesAndFunctionCodes)
{
    struct Case {
        const char *addr;
        const char *modbus;
    } cases[] = {
        {"S5", "0005"},     {"X10", "0408"},   {"X17", "040F"},   {"X18", "0401"}, // octal scan stops at 8
        {"X8", "0408"},     {"Y17", "050F"},   {"T3", "0603"},    {"M1535", "0DFF"},
        {"M1536", "B600"},  {"C5", "0E05"},    {"d100", "1064"},  {"D4095", "1FFF"},
        {"D4096", "A000"},  {"Z1", "0000"},    {"", "0000"},      {"D28671", "FFFF"},
        {"M20479", "FFFF"},
        // Past 16 bits or below 0 there is no register: refused, not masked.
        {"D28672", ""},     {"M20480", ""},    {"D100000", ""},   {"D-5", ""},
        {"X-1", ""},        {"D99999999999", ""},
    };
    for (const Case &c : cases)
        EXPECT_EQ(map_of(c.addr), c.modbus) << c.addr;

    // The function code per letter and data type.
    struct Codes {
        const char *addr;
        const char *bit, *u16, *u32; // data types 1, 4 and 6
    } codes[] = {
        {"C1", "01", "03", "03"}, {"D1", "-", "03", "-"}, {"M1", "01", "-", "-"},
        {"S1", "01", "-", "-"},   {"T1", "01", "03", "-"}, {"X1", "02", "-", "-"},
        {"y1", "01", "-", "-"},   {"Z1", "-", "-", "-"},   {"", "-", "-", "-"},
    };
    for (const Codes &c : codes) {
        EXPECT_EQ(code_of(c.addr, 1), c.bit) << c.addr;
        EXPECT_EQ(code_of(c.addr, 4), c.u16) << c.addr;
        EXPECT_EQ(code_of(c.addr, 6), c.u32) << c.addr;
        for (uint32_t other : {2u, 3u, 5u, 7u, 10u, 11u})
            EXPECT_EQ(code_of(c.addr, other), "-") << c.addr << " type " << other;
    }
}

