// MC protocol 3E batch reads as bytes: requests from address texts, the
// response checks with their logged reasons, and the values.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "codec/mc_3e_codec.h"
#include "support/test_util.h"

using namespace dstest;

namespace {
using bytes = std::vector<uint8_t>;

// The binary request for one point, or nothing when it is refused.
bytes request_of(int kind, const char *addr)
{
    MC_bulk_read_msg m;
    const int r = kind == 0 ? build_MC_bulk_read_bit_msg_2(&m, addr)
                            : build_MC_bulk_read_word_msg_2(&m, addr);
    if (r != 0)
        return {};
    bytes b(MC_REQUEST_HEX_LEN);
    if (output_hex_MC_bulk_read_msg(&m, b.data(), b.size()) != static_cast<int>(MC_REQUEST_HEX_LEN))
        return {};
    return b;
}

std::string refusal_log(int kind, const char *addr)
{
    return capture_output([&] { EXPECT_TRUE(request_of(kind, addr).empty()) << addr; }).err;
}

const bytes d100_answer = {0xD0, 0x00, 0x00, 0xFF, 0xFF, 0x03, 0x00, 0x04, 0x00, 0x00, 0x00, 0x39, 0x30};

struct Checked {
    int result;
    std::string err;
};

Checked check(const bytes &response, MC_bulk_read_msg &m)
{
    Checked c{-100, {}};
    c.err = capture_output([&] { c.result = analyze_MC_response(response.data(), response.size(), &m); }).err;
    return c;
}

// The answer is refused, saying `reason` (or, with `said` false, not saying it).
void expect_refused(const bytes &response, MC_bulk_read_msg &m, const char *reason, bool said = true)
{
    const Checked got = check(response, m);
    EXPECT_EQ(got.result, -1) << reason;
    EXPECT_EQ(got.err.find(reason) != std::string::npos, said) << reason << " in " << got.err;
}

} // namespace

TEST(Mc3eRequest, BinaryFramesFromAddressesAndPoints)
{
    EXPECT_EQ(request_of(1, "D100"), (bytes{0x50, 0x00, 0x00, 0xFF, 0xFF, 0x03, 0x00, 0x0C, 0x00,
                                           0x10, 0x00, 0x01, 0x04, 0x00, 0x00, 0x64, 0x00, 0x00,
                                           0xA8, 0x01, 0x00}));
    EXPECT_EQ(request_of(0, "M20"), (bytes{0x50, 0x00, 0x00, 0xFF, 0xFF, 0x03, 0x00, 0x0C, 0x00,
                                          0x10, 0x00, 0x01, 0x04, 0x01, 0x00, 0x14, 0x00, 0x00,
                                          0x90, 0x01, 0x00}));
    EXPECT_EQ(request_of(0, "m20"), request_of(0, "M20"));
    EXPECT_EQ(request_of(0, "sm400"), request_of(0, "SM400"));
    const bytes zr = request_of(1, "ZR70000");
    ASSERT_EQ(zr.size(), MC_REQUEST_HEX_LEN);
    EXPECT_EQ(zr[18], 0xB0);
    EXPECT_EQ(bytes(zr.begin() + 15, zr.begin() + 18), (bytes{0x70, 0x11, 0x01}))
        << "head number in three bytes, low first";

    EXPECT_EQ(request_of(0, "SM400")[18], 0x91);
    EXPECT_EQ(request_of(1, "T5")[18], 0xC2) << "a timer read as a word is its current value TN";
    EXPECT_EQ(request_of(0, "T5")[18], 0xC1) << "and as a bit its contact TS";
    EXPECT_EQ(request_of(1, "C5")[18], 0xC5);
    EXPECT_EQ(request_of(0, "C5")[18], 0xC4);
    EXPECT_EQ(request_of(0, "TC5")[18], 0xC0) << "the coil only when written out";
    EXPECT_EQ(request_of(0, "CC5")[18], 0xC3);

    ASSERT_EQ(request_of(0, "X1F").size(), MC_REQUEST_HEX_LEN);
    EXPECT_EQ(request_of(0, "X1F")[15], 1) << "X numbers are read as decimal";
    EXPECT_EQ(request_of(0, "Y17")[15], 17);

    const bytes huge = request_of(1, "D99999999999");
    ASSERT_EQ(huge.size(), MC_REQUEST_HEX_LEN);
    EXPECT_EQ(bytes(huge.begin() + 15, huge.begin() + 18), (bytes{0xFF, 0xFF, 0xFF}))
        << "a number past int is held at its largest, not wrapped to another device";

    MC_bulk_read_msg m;
    ASSERT_EQ(build_MC_bulk_read_bit_msg_1(&m, "M0", 3), 0);
    EXPECT_EQ(m.expect_response_hex_len, 4);
    ASSERT_EQ(build_MC_bulk_read_bit_msg(&m, 0x90, 0, 4), 0);
    EXPECT_EQ(m.expect_response_hex_len, 4);
    ASSERT_EQ(build_MC_bulk_read_word_msg_1(&m, "D0", 3), 0);
    EXPECT_EQ(m.expect_response_hex_len, 8);
    uint8_t frame[MC_REQUEST_HEX_LEN];
    ASSERT_EQ(output_hex_MC_bulk_read_msg(&m, frame, sizeof frame), 21);
    EXPECT_EQ(frame[19], 3);
    EXPECT_EQ(frame[20], 0);
}

TEST(Mc3eRequest, RefusedAddressesAndUnits)
{
    EXPECT_NE(refusal_log(1, "100").find("code_len = 0\n"), std::string::npos);
    EXPECT_NE(refusal_log(1, "").find("code_len = 0\n"), std::string::npos);
    EXPECT_NE(refusal_log(1, "QX1").find("ascii_code can't match in code_map\n"), std::string::npos);
    EXPECT_NE(refusal_log(1, "D-5").find("head_num < 0 : D-5\n"), std::string::npos)
        << "a negative head is no device (it would go out as FB FF FF)";
    EXPECT_NE(refusal_log(0, "D100").find("soft_component_type != E_BIT_SOFT_COMPONENT\n"),
              std::string::npos)
        << "a word device is not read in bit units";
    EXPECT_NE(refusal_log(1, "M20").find("soft_component_type != E_WORD_SOFT_COMPONENT\n"),
              std::string::npos);

    MC_bulk_read_msg m;
    std::string err = capture_output([&] { EXPECT_EQ(build_MC_bulk_read_msg(&m, 1, 0x42, 0, 1), -1); }).err;
    EXPECT_NE(err.find("soft_component_type = E_NONE_SOFT_COMPONENT\n"), std::string::npos);
    uint8_t small[MC_REQUEST_HEX_LEN - 1];
    ASSERT_EQ(build_MC_bulk_read_word_msg_2(&m, "D100"), 0);
    EXPECT_EQ(output_hex_MC_bulk_read_msg(&m, small, sizeof small), -1);
}

TEST(Mc3eRequest, AsciiFrame)
{
    MC_bulk_read_msg m;
    ASSERT_EQ(build_MC_bulk_read_word_msg_2(&m, "D100"), 0);
    char text[64];
    memset(text, 'x', sizeof text);
    ASSERT_EQ(output_ascii_MC_bulk_read_msg(&m, text, sizeof text), 42);
    EXPECT_STREQ(text, "500000ff03ff000018001004010000D*0001000001");

    char exact[42];
    ASSERT_EQ(output_ascii_MC_bulk_read_msg(&m, exact, sizeof exact), 42)
        << "42 characters fit a buffer of 42";
    EXPECT_EQ(std::string(exact, sizeof exact), "500000ff03ff000018001004010000D*0001000001");
    std::string err = capture_output([&] { EXPECT_EQ(output_ascii_MC_bulk_read_msg(&m, exact, 41), -1); }).err;
    EXPECT_NE(err.find("output_len > output_size [ascii]\n"), std::string::npos);

    ASSERT_EQ(build_MC_bulk_read_word_msg_2(&m, "ZR1000000"), 0);
    err = capture_output([&] { EXPECT_EQ(output_ascii_MC_bulk_read_msg(&m, text, sizeof text), -1); }).err;
    EXPECT_NE(err.find("output len != output_len [ascii]\n"), std::string::npos)
        << "a head number of seven decimal digits does not fit the frame";
    ASSERT_EQ(build_MC_bulk_read_word_msg(&m, 0xA8, 0xFFFFFFFF, 1), 0);
    ASSERT_EQ(output_ascii_MC_bulk_read_msg(&m, text, sizeof text), 42);
    EXPECT_STREQ(text, "500000ff03ff000018001004010000D*-000010001") << "the head is written signed";

    const std::string out = capture_output([&] {
        ASSERT_EQ(build_MC_bulk_read_bit_msg_2(&m, "M20"), 0);
        print_ascii_MC_bulk_read_msg(&m);
        print_hex_MC_bulk_read_msg(&m);
    }).out;
    EXPECT_EQ(out, "500000ff03\nff00001800\n1004010001\nM*00002000\n01\n"
                   "50 00 00 ff ff 03 00 0c 00 10 \n00 01 04 01 00 14 00 00 90 01 \n00 \n");
}

TEST(Mc3eResponse, WellFormedAnswersAndHexDigits)
{
    MC_bulk_read_msg m;
    ASSERT_EQ(build_MC_bulk_read_word_msg_2(&m, "D100"), 0);
    const std::string out = capture_output([&] {
        EXPECT_EQ(analyze_MC_response(d100_answer.data(), d100_answer.size(), &m), 0);
    }).out;
    EXPECT_EQ(out, "respond success : respond code = 0x0000\n");
    EXPECT_EQ(get_word_soft_component_value(&m), 12345);
    EXPECT_EQ(m.response_data_len, 2);

    bytes negative = d100_answer;
    negative[11] = 0xFE;
    negative[12] = 0xFF;
    ASSERT_EQ(check(negative, m).result, 0);
    EXPECT_EQ(get_word_soft_component_value(&m), -2);

    bytes longer = d100_answer;
    longer.insert(longer.end(), {0xD0, 0x00}); // the start of something else
    EXPECT_EQ(check(longer, m).result, 0) << "bytes after the claimed length are not this answer's";

    ASSERT_EQ(build_MC_bulk_read_bit_msg_2(&m, "M20"), 0);
    bytes bit = {0xD0, 0x00, 0x00, 0xFF, 0xFF, 0x03, 0x00, 0x03, 0x00, 0x00, 0x00, 0x10};
    ASSERT_EQ(check(bit, m).result, 0);
    EXPECT_EQ(get_bit_soft_component_value(&m), '1');
    bit[11] = 0x01;
    ASSERT_EQ(check(bit, m).result, 0);
    EXPECT_EQ(get_bit_soft_component_value(&m), '0') << "the low nibble is the second point";

    const uint8_t in[] = {0x1F, 0xA0};
    char four[5] = "....";
    BCD_to_ascii(in, 2, four, 4);
    EXPECT_STREQ(four, "1fa0");
    char three[5] = "....";
    BCD_to_ascii(in, 2, three, 3);
    EXPECT_STREQ(three, "1fa.") << "what does not fit is dropped";
    char one = '.';
    BCD_to_ascii(in, 2, &one, 1);
    EXPECT_EQ(one, '1');

    EXPECT_EQ(MC_response_claimed_size(d100_answer.data(), 8), 0u);
    EXPECT_EQ(MC_response_claimed_size(d100_answer.data(), 9), 13u);
}

TEST(Mc3eResponse, HeaderMismatchesShortAndErrorAnswers)
{
    MC_bulk_read_msg m;
    ASSERT_EQ(build_MC_bulk_read_word_msg_2(&m, "D100"), 0);
    const struct {
        size_t at;
        uint8_t value;
        const char *reason;
    } cases[] = {
        {0, 0xD1, " respond_subhead\n"},     {1, 0x01, " respond_subhead\n"},
        {2, 0x01, " net_num\n"},             {3, 0x00, " plc_num\n"},
        {4, 0x00, " module_io_num\n"},       {5, 0x04, " module_io_num\n"},
        {6, 0x01, " module_station_num\n"},  {7, 0x06, "response_hex_len(6) != expect(4)\n"},
    };
    for (const auto &c : cases) {
        bytes r = d100_answer;
        r[c.at] = c.value;
        if (c.at == 7)
            r.insert(r.end(), {0x00, 0x00}); // a whole answer, of another length
        expect_refused(r, m, c.reason);
    }

    for (size_t n = 0; n < d100_answer.size(); ++n) {
        const bytes part(d100_answer.begin(), d100_answer.begin() + static_cast<long>(n));
        EXPECT_EQ(check(part, m).result, -1) << n << " bytes of 13";
    }
    EXPECT_EQ(analyze_MC_response(nullptr, 13, &m), -1);

    // 65535 words would need a data length the 16-bit field cannot hold.
    ASSERT_EQ(build_MC_bulk_read_word_msg(&m, 0xA8, 0, 0xFFFF), 0);
    const bytes no_data = {0xD0, 0x00, 0x00, 0xFF, 0xFF, 0x03, 0x00, 0x00, 0x00, 0x00, 0x00};
    EXPECT_EQ(check(no_data, m).result, -1);

    // Error answers: the end code, and the echoed request checked.
    ASSERT_EQ(build_MC_bulk_read_word_msg_2(&m, "D100"), 0);
    const bytes echo = {0xD0, 0x00, 0x00, 0xFF, 0xFF, 0x03, 0x00, 0x0B, 0x00, 0x59, 0xC0,
                        0x00, 0xFF, 0xFF, 0x03, 0x00, 0x01, 0x04, 0x00, 0x00};
    expect_refused(echo, m, "exception : respond code = 0xc059\n");
    expect_refused(echo, m, "exception,", false); // the echoed request matches

    const struct {
        size_t at;
        const char *reason;
    } mismatches[] = {{11, "exception,net_num err\n"},   {12, "exception,plc_num err\n"},
                      {14, "exception,module_io_num err\n"}, {15, "exception,module_station_num err\n"},
                      {16, "exception,command err\n"},   {18, "exception,subcommand err\n"}};
    for (const auto &c : mismatches) {
        bytes r = echo;
        r[c.at] ^= 0x01;
        expect_refused(r, m, c.reason);
    }

    const bytes short_error = {0xD0, 0x00, 0x00, 0xFF, 0xFF, 0x03, 0x00, 0x02, 0x00, 0x51, 0xC0};
    expect_refused(short_error, m, "respond_hex_len != expect_exception_hex_len\n");
    bytes cut = echo;
    cut.pop_back();
    expect_refused(cut, m, "exception,", false); // nothing is read past the answer
}

