// QnA 4C frames checked byte by byte: requests of every format, and
// answers good, refused, malformed and cut short.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "codec/qna_4c_codec.h"
#include "support/log_records.h"

namespace {

using bytes = std::vector<uint8_t>;

bytes text(const std::string &s)
{
    return bytes(s.begin(), s.end());
}

bytes cat(std::initializer_list<bytes> parts)
{
    bytes all;
    for (const auto &p : parts)
        all.insert(all.end(), p.begin(), p.end());
    return all;
}

bytes request(int len)
{
    EXPECT_GT(len, 0);
    if (len <= 0)
        return {};
    return bytes(QnA_4C_request_msg(), QnA_4C_request_msg() + len);
}

// Format 5 answer around `body` (data byte count through the data): DLE
// STX, body, DLE ETX and the sum of body as two upper-case hex characters.
bytes answer5(const bytes &body)
{
    unsigned sum = 0;
    for (uint8_t b : body)
        sum += b;
    char s[3];
    snprintf(s, sizeof s, "%02X", sum & 0xFF);
    return cat({{0x10, 0x02}, body, {0x10, 0x03, uint8_t(s[0]), uint8_t(s[1])}});
}

const bytes head5 = {0xF8, 0x00, 0x00, 0xFF, 0xFF, 0x03, 0x00, 0x00, 0xFF, 0xFF};

struct Decoded {
    int rc;
    uint16_t code;
    std::string value;
    // "rc code value", the code in hex, to compare in one go.
    std::string shown() const
    {
        char c[8];
        snprintf(c, sizeof c, "%X", code);
        return std::to_string(rc) + " " + c + " " + value;
    }
};

// Format 5 goes to its binary decoder, 1 to 4 (and any other) to the ASCII one.
Decoded decode(uint32_t format, const bytes &a)
{
    uint16_t code = 0xEEEE;
    char value[32] = "untouched";
    const auto len = static_cast<uint32_t>(a.size());
    int rc = format == 5 ? analysis_QnA_4C_respond_msg_of_format_5(a.data(), len, &code, value, sizeof value)
                         : analysis_QnA_4C_respond_msg_of_format_1_4(format, a.data(), len, &code, value,
                                                                     sizeof value);
    return {rc, code, value};
}

struct Corruption {
    size_t at;
    uint8_t value;
    const char *log;
};

// `good` with one byte changed, or cut short anywhere, fails without a value;
// each change logs its reason.
void expect_corruptions_fail(dstest::LogRecords &logs, uint32_t format, const bytes &good,
                             std::initializer_list<Corruption> cases)
{
    for (const auto &c : cases) {
        bytes bad = good;
        bad[c.at] = c.value;
        logs.clear();
        const Decoded r = decode(format, bad);
        EXPECT_EQ(std::to_string(r.rc) + " " + r.value, "-1 untouched") << c.at;
        EXPECT_TRUE(logs.contains(c.log)) << c.at << ": " << logs.text();
    }
    for (size_t n = 0; n < good.size(); ++n)
        EXPECT_EQ(decode(format, bytes(good.begin(), good.begin() + static_cast<long>(n))).rc, -1) << n;
}

} // namespace

TEST(QnA4CAddress, LettersDecimalNumberDeviceTableAndUnits)
{
    dstest::LogRecords logs;
    char code[3];
    int number = -1;
    ASSERT_EQ(analysis_softComponent("X5", code, &number), 0);
    EXPECT_STREQ(code, "X*");
    EXPECT_EQ(number, 5);
    ASSERT_EQ(analysis_softComponent("x17", code, &number), 0); // decimal, not octal
    EXPECT_EQ(number, 17);
    ASSERT_EQ(analysis_softComponent("sm400", code, &number), 0);
    EXPECT_STREQ(code, "SM");
    EXPECT_EQ(number, 400);
    ASSERT_EQ(analysis_softComponent("XA5", code, &number), 0);
    EXPECT_STREQ(code, "XA");

    for (const char *bad : {"DX", "D", "5", "", "DXY5", "D-5", "D 5"})
        EXPECT_EQ(analysis_softComponent(bad, code, &number), -1) << bad;
    EXPECT_EQ(analysis_softComponent(nullptr, code, &number), -1);
    EXPECT_TRUE(logs.contains("analysis_softComponent:"));
    EXPECT_TRUE(logs.contains(" softComponent = DX\n"));
    EXPECT_TRUE(logs.contains(" softComponent = NULL\n"));

    uint8_t hex = 0;
    const std::pair<const char *, uint8_t> rows[] = {{"SM", 0x91}, {"D*", 0xA8}, {"X*", 0x9C},
                                                     {"ZR", 0xB0}, {"TN", 0xC2}, {"DY", 0xA3}};
    for (const auto &[ascii, expected] : rows) {
        ASSERT_EQ(transform_softComponentCode_from_ascii_to_hex(ascii, &hex), 0) << ascii;
        EXPECT_EQ(hex, expected) << ascii;
    }
    EXPECT_EQ(transform_softComponentCode_from_ascii_to_hex("XA", &hex), -1);
    EXPECT_TRUE(logs.contains(" asciiCode = XA ,can't get hexcode\n"));
    EXPECT_EQ(transform_softComponentCode_from_ascii_to_hex(nullptr, &hex), -1);
    EXPECT_EQ(transform_softComponentCode_from_ascii_to_hex("D*", nullptr), -1);

    EXPECT_EQ(check(0x90, SUB_COMMAND_BIT), 0);
    EXPECT_EQ(check(0xA8, SUB_COMMAND_WORD), 0);
    EXPECT_EQ(check(0x90, SUB_COMMAND_WORD), -1);
    EXPECT_TRUE(logs.contains("softComponent_hexCode:90H != SUB_COMMAND_BIT\n"));
    EXPECT_EQ(check(0xA8, SUB_COMMAND_BIT), -1);
    EXPECT_TRUE(logs.contains("softComponent_hexCode:a8H != SUB_COMMAND_WORD\n"));
    EXPECT_EQ(check(0x42, SUB_COMMAND_WORD), -1);
    EXPECT_TRUE(logs.contains("other:softComponent_hexCode = 42H\n"));
}

TEST(QnA4CRequest, EveryFormatByteExact)
{
    // d100, one word: the code goes out as typed (upper-cased), the number in decimal.
    const std::string body = "F80000FF03FF000004010000D*0001000001";
    EXPECT_EQ(request(build_QnA_4C_request_msg_of_format_1_4(1, SUB_COMMAND_WORD, "d100")),
              cat({{0x05}, text(body + "4E")}));
    EXPECT_EQ(request(build_QnA_4C_request_msg_of_format_1_4(4, SUB_COMMAND_WORD, "d100")),
              cat({{0x05}, text(body + "4E"), {0x0D, 0x0A}}));
    // Block number "00" adds 0x60 to the sum.
    EXPECT_EQ(request(build_QnA_4C_request_msg_of_format_1_4(2, SUB_COMMAND_WORD, "d100")),
              cat({{0x05}, text("00" + body + "AE")}));
    // STX ... ETX, the ETX counted in the sum.
    EXPECT_EQ(request(build_QnA_4C_request_msg_of_format_1_4(3, SUB_COMMAND_WORD, "d100")),
              cat({{0x02}, text(body), {0x03}, text("51")}));
    // Bit units, and a code not in the device table: format 1 sends it anyway.
    EXPECT_EQ(request(build_QnA_4C_request_msg_of_format_1_4(1, SUB_COMMAND_BIT, "XA5")),
              cat({{0x05}, text("F80000FF03FF000004010001XA0000050001"), text("7E")}));

    // The binary format 5.
    const bytes sm400 = {0x10, 0x02, 0x12, 0x00, 0xF8, 0x00, 0x00, 0xFF, 0xFF, 0x03, 0x00, 0x00,
                         0x01, 0x04, 0x01, 0x00, 0x90, 0x01, 0x00, 0x91, 0x01, 0x00,
                         0x10, 0x03, '3', '4'};
    EXPECT_EQ(request(build_QnA_4C_request_msg_of_format_5(SUB_COMMAND_BIT, "SM400")), sm400);

    // D16: the head device's low byte is DLE and goes out twice; the sum
    // counts it once.
    const bytes d16 = {0x10, 0x02, 0x12, 0x00, 0xF8, 0x00, 0x00, 0xFF, 0xFF, 0x03, 0x00, 0x00,
                       0x01, 0x04, 0x00, 0x00, 0x10, 0x10, 0x00, 0x00, 0xA8, 0x01, 0x00,
                       0x10, 0x03, 'C', '9'};
    EXPECT_EQ(request(build_QnA_4C_request_msg_of_format_5(SUB_COMMAND_WORD, "D16")), d16);

    // Device numbers up to 24 bits: 0x101010 doubles three bytes.
    const bytes big = request(build_QnA_4C_request_msg_of_format_5(SUB_COMMAND_WORD, "D1052688"));
    ASSERT_EQ(big.size(), 29u);
    EXPECT_EQ(bytes(big.begin() + 16, big.begin() + 23), (bytes{0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0xA8}));
}

TEST(QnA4CRequest, RefusedRequests)
{
    dstest::LogRecords logs;
    EXPECT_EQ(build_QnA_4C_request_msg_of_format_1_4(5, SUB_COMMAND_WORD, "D100"), -1);
    EXPECT_TRUE(logs.contains("build_QnA_4C_request_msg_of_format_1_4:"));
    EXPECT_TRUE(logs.contains(" format_number:5 > 4\n"));
    EXPECT_EQ(build_QnA_4C_request_msg_of_format_1_4(1, 2, "D100"), -1);
    EXPECT_TRUE(logs.contains(" sub_command = 2H\n"));
    EXPECT_EQ(build_QnA_4C_request_msg_of_format_1_4(1, SUB_COMMAND_WORD, "D1000000"), -1);
    EXPECT_TRUE(logs.contains(" softComponent_address:1000000 > 999999\n"));
    EXPECT_GT(build_QnA_4C_request_msg_of_format_1_4(1, SUB_COMMAND_WORD, "D999999"), 0);
    EXPECT_EQ(build_QnA_4C_request_msg_of_format_1_4(1, SUB_COMMAND_WORD, "DX"), -1);
    // A number too long for any integer is refused, not wrapped into range.
    EXPECT_EQ(build_QnA_4C_request_msg_of_format_1_4(1, SUB_COMMAND_WORD, "D99999999999999999999"), -1);

    // The binary format: the unit must fit the device.
    EXPECT_EQ(build_QnA_4C_request_msg_of_format_5(SUB_COMMAND_WORD, "XA5"), -1);
    EXPECT_EQ(build_QnA_4C_request_msg_of_format_5(SUB_COMMAND_WORD, "M20"), -1); // bit device
    EXPECT_EQ(build_QnA_4C_request_msg_of_format_5(SUB_COMMAND_BIT, "D100"), -1);  // word device
    EXPECT_EQ(build_QnA_4C_request_msg_of_format_5(3, "D100"), -1);
    EXPECT_TRUE(logs.contains("build_QnA_4C_request_msg_of_format_5:"));
    EXPECT_TRUE(logs.contains(" sub_command = 3H\n"));
    EXPECT_EQ(build_QnA_4C_request_msg_of_format_5(SUB_COMMAND_WORD, "D16777216"), -1);
    EXPECT_TRUE(logs.contains(" softComponent_address:0x1000000 > 0xffffff\n"));
    EXPECT_GT(build_QnA_4C_request_msg_of_format_5(SUB_COMMAND_WORD, "D16777215"), 0);
}

TEST(QnA4CAnswer, GoodAnswersPerFormatAndUnit)
{
    ASSERT_GT(build_QnA_4C_request_msg_of_format_5(SUB_COMMAND_WORD, "D100"), 0);
    const bytes word = cat({{0x10, 0x02, 0x0E, 0x00}, head5, {0x00, 0x00, 0x34, 0x12, 0x10, 0x03, '4', 'B'}});
    EXPECT_EQ(decode(5, word).shown(), "0 0 4660");
    // The PLC doubles a DLE in the data; the length field counts it once.
    const bytes dle = cat({{0x10, 0x02, 0x0E, 0x00}, head5, {0x00, 0x00, 0x10, 0x10, 0x10, 0x10, 0x10, 0x03, '2', '5'}});
    EXPECT_EQ(decode(5, dle).shown(), "0 0 4112");
    // Words are shown unsigned.
    EXPECT_EQ(decode(5, answer5(cat({{0x0E, 0x00}, head5, {0x00, 0x00, 0xFF, 0xFF}}))).shown(), "0 0 65535");

    ASSERT_GT(build_QnA_4C_request_msg_of_format_5(SUB_COMMAND_BIT, "M20"), 0);
    const bytes bit = cat({{0x10, 0x02, 0x0D, 0x00}, head5, {0x00, 0x00, 0x01, 0x10, 0x03, '0', '5'}});
    EXPECT_EQ(decode(5, bit).shown(), "0 0 1");
    // Any non-zero bit byte is 1.
    EXPECT_EQ(decode(5, answer5(cat({{0x0D, 0x00}, head5, {0x00, 0x00, 0x11}}))).shown(), "0 0 1");
    EXPECT_EQ(decode(5, answer5(cat({{0x0D, 0x00}, head5, {0x00, 0x00, 0x00}}))).shown(), "0 0 0");

    // ASCII formats.
    ASSERT_GT(build_QnA_4C_request_msg_of_format_1_4(1, SUB_COMMAND_WORD, "D100"), 0);
    const std::string head = "F80000FF03FF0000";
    EXPECT_EQ(decode(1, cat({{0x02}, text(head + "1234"), {0x03}, text("46")})).shown(), "0 0 4660");
    // Lower-case hex is read as well.
    EXPECT_EQ(decode(1, cat({{0x02}, text(head + "abcd"), {0x03}, text("06")})).shown(), "0 0 43981");
    EXPECT_EQ(decode(2, cat({{0x02}, text("00" + head + "1234"), {0x03}, text("A6")})).shown(), "0 0 4660");
    EXPECT_EQ(decode(4, cat({{0x02}, text(head + "1234"), {0x03}, text("46"), {0x0D, 0x0A}})).shown(),
              "0 0 4660");
    ASSERT_GT(build_QnA_4C_request_msg_of_format_1_4(3, SUB_COMMAND_BIT, "M20"), 0);
    EXPECT_EQ(decode(3, cat({{0x02}, text(head + "QACK1"), {0x03}, text("CD")})).shown(), "0 0 1");
}

TEST(QnA4CAnswer, ErrorAnswersCarryTheEndCode)
{
    dstest::LogRecords logs;
    ASSERT_GT(build_QnA_4C_request_msg_of_format_5(SUB_COMMAND_WORD, "D100"), 0);
    const bytes refused = cat({{0x10, 0x02, 0x0C, 0x00}, head5, {0x56, 0xC0, 0x10, 0x03, '1', '9'}});
    Decoded r = decode(5, refused);
    EXPECT_EQ(r.shown(), "0 C056 untouched");
    EXPECT_TRUE(logs.contains(" respond_code = c056H\n"));
    // An error answer that claims data is malformed.
    r = decode(5, answer5(cat({{0x0E, 0x00}, head5, {0x56, 0xC0, 0x00, 0x00}})));
    EXPECT_EQ(r.rc, -1);
    EXPECT_TRUE(logs.contains(" data_num:14 != 12\n"));

    // ASCII formats: NAK, the head and the code.
    ASSERT_GT(build_QnA_4C_request_msg_of_format_1_4(3, SUB_COMMAND_WORD, "D100"), 0);
    r = decode(3, cat({{0x15}, text("F80000FF03FF0000QNAK4031"), {0x03}}));
    EXPECT_EQ(r.shown(), "0 4031 untouched");
    EXPECT_TRUE(logs.contains(" respond_code = 4031H\n"));
    EXPECT_EQ(decode(1, cat({{0x15}, text("F80000FF03FF00004031")})).shown(), "0 4031 untouched");
    r = decode(3, cat({{0x15}, text("F80000FF03FF0000QACK4031"), {0x03}}));
    EXPECT_EQ(r.rc, -1);
    EXPECT_TRUE(logs.contains(" position=17; offset=4; temp:QACK != abnormal_end_code:QNAK\n"));
}

TEST(QnA4CAnswer5, MalformedAnswersAndLengthEdges)
{
    dstest::LogRecords logs;
    ASSERT_GT(build_QnA_4C_request_msg_of_format_5(SUB_COMMAND_WORD, "D100"), 0);
    const bytes good = answer5(cat({{0x0E, 0x00}, head5, {0x00, 0x00, 0x34, 0x12}}));
    expect_corruptions_fail(logs, 5, good, {
        {0, 0x11, " d[0]:11H != DLE:10H\n"},
        {1, 0x03, " d[1]:3H != STX:2H\n"},
        {2, 0x0D, " SUB_COMMAND_WORD,data_num:13 != 14\n"},
        {4, 0xF9, " d[4]:f9H != identify_frame:f8H\n"},
        {5, 0x01, " d[5]:1H != station_number:0H\n"},
        {6, 0x01, " d[6]:1H != network_number:0H\n"},
        {7, 0xFE, " d[7]:feH != plc_number:ffH\n"},
        {9, 0x04, " position=8; offset=2; temp:4ffH != io_number:3ffH\n"},
        {10, 0x01, " d[10]:1H != target_station_number:0H\n"},
        {11, 0x01, " d[11]:1H != upper_station_number:0H\n"},
        {12, 0x00, " position=12; offset=2; temp:ff00H != response_identify_code:ffffH\n"},
        {18, 0x11, " d[18]:11H != DLE:10H\n"},
        {19, 0x02, " d[19]:2H != ETX:3H\n"},
        {20, 'X', " position=20; offset=2; tempValue:ffffffffH != sum:4bH\n"},
        {21, 'C', " position=20; offset=2; tempValue:4cH != sum:4bH\n"},
    });

    ASSERT_GT(build_QnA_4C_request_msg_of_format_5(SUB_COMMAND_BIT, "M20"), 0);
    // The bit answer has 13 data bytes; the message names 15.
    Decoded r = decode(5, answer5(cat({{0x0E, 0x00}, head5, {0x00, 0x00, 0x01, 0x00}})));
    EXPECT_EQ(r.rc, -1);
    EXPECT_TRUE(logs.contains(" SUB_COMMAND_BIT,data_num:14 != 15\n"));

    const bytes bit = answer5(cat({{0x0D, 0x00}, head5, {0x00, 0x00, 0x01}}));
    // Trailing bytes are reported but the answer still counts.
    logs.clear();
    bytes longer = bit;
    longer.push_back(0x00);
    r = decode(5, longer);
    EXPECT_EQ(r.rc, 0);
    EXPECT_TRUE(logs.contains(" offset:21 != len:22\n"));

    bytes huge(QnA_4C_BUF_SIZE + 1, 0x10);
    r = decode(5, huge);
    EXPECT_EQ(r.rc, -1);
    EXPECT_TRUE(logs.contains(" original_len:1025 > QnA_4C_BUF_SIZE:1024\n"));
    uint16_t code;
    char value[32];
    EXPECT_EQ(analysis_QnA_4C_respond_msg_of_format_5(nullptr, 4, &code, value, sizeof value), -1);
    EXPECT_EQ(analysis_QnA_4C_respond_msg_of_format_5(bit.data(), 4, nullptr, value, sizeof value), -1);
    EXPECT_EQ(analysis_QnA_4C_respond_msg_of_format_5(bit.data(), 4, &code, nullptr, 32), -1);
}

TEST(QnA4CAnswerAscii, MalformedAnswersFail)
{
    dstest::LogRecords logs;
    ASSERT_GT(build_QnA_4C_request_msg_of_format_1_4(4, SUB_COMMAND_WORD, "D100"), 0);
    const bytes good = cat({{0x02}, text("F80000FF03FF00001234"), {0x03}, text("46"), {0x0D, 0x0A}});
    ASSERT_EQ(decode(4, good).rc, 0);
    expect_corruptions_fail(logs, 4, good, {
        {0, 0x05, " d[0]:5H != STX:2H or NAK:15H\n"},
        {1, '9', " position=1; offset=2; tempValue:98H != identify_frame:f8H\n"},
        {3, '1', " position=3; offset=2; tempValue:10H != station_number:0H\n"},
        {5, '1', " position=5; offset=2; tempValue:10H != network_number:0H\n"},
        {7, 'E', " position=7; offset=2; tempValue=efH; plc_number=ffH\n"},
        {9, '1', " position=9; offset=4; tempValue:13ffH != io_number:3ffH\n"},
        {13, '1', " position=13; offset=2; tempValue:10H != target_station_number:0H\n"},
        {15, '1', " position=15; offset=2; tempValue:10H != upper_station_number:0H\n"},
        {17, 'G', " position=17; offset=4; tempValue:ffffffffH is not hex\n"},
        {21, 0x04, " d[21]:4H != ETX:3H\n"},
        {22, '5', " position=22; offset=2; tempValue:56H != sum:46H\n"},
        {24, 0x0A, " d[24]:aH != CR:dH\n"},
        {25, 0x0D, " d[25]:dH != LF:aH\n"},
    });
    EXPECT_EQ(decode(2, cat({{0x02}, text("01")})).rc, -1);
    EXPECT_TRUE(logs.contains(" position=1; offset=2; tempValue:1H != block_number:0H\n"));
    uint16_t code = 0;
    char value[32];
    EXPECT_EQ(analysis_QnA_4C_respond_msg_of_format_1_4(5, good.data(), static_cast<uint32_t>(good.size()),
                                                        &code, value, sizeof value),
              -1);
    EXPECT_TRUE(logs.contains(" format_number:5 > 4\n"));
}
