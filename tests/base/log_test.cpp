// Log record routing and the diagnostic formatting helpers.
#include <gtest/gtest.h>

#include <regex>

#include "base/log.h"
#include "support/test_util.h"

using dstest::capture_output;

namespace {
const std::regex stamped(R"(^\d{4}/\d{2}/\d{2} \d{2}:\d{2}:\d{2}\.\d{6} (.) (.*)\n$)");
}

TEST(Log, LevelsAreRoutedByExactFlagsWarningsStampedToBothStreams)
{
    log_init();
    auto c = capture_output([] { g_warning("disk %d low\n", 3); });
    std::smatch m;
    ASSERT_TRUE(std::regex_match(c.err, m, stamped)) << c.err;
    EXPECT_EQ(m[1], "W");
    EXPECT_EQ(m[2], "disk 3 low");
    ASSERT_TRUE(std::regex_match(c.out, m, stamped)) << c.out;
    EXPECT_EQ(m[1], "W");

    c = capture_output([] {
        g_critical("crit\n");
        g_message("msg\n");
        g_info("info line\n");
        g_debug("debug line\n");
        log_handler_1(nullptr,
                      static_cast<GLogLevelFlags>(G_LOG_LEVEL_WARNING | G_LOG_FLAG_RECURSION),
                      "dropped\n", nullptr);
    });
    EXPECT_NE(c.out.find(" C crit\n"), std::string::npos) << c.out;
    EXPECT_NE(c.out.find(" M msg\n"), std::string::npos);
    EXPECT_NE(c.out.find("\ninfo line\ndebug line\n"), std::string::npos)
        << "info and debug are bare: " << c.out;
    EXPECT_EQ(c.out.find("dropped"), std::string::npos);
    EXPECT_NE(c.err.find(" C crit\n"), std::string::npos);
    EXPECT_EQ(c.err.find("msg"), std::string::npos) << "message level stays off stderr";
}

TEST(Log, DiagnosticFormats)
{
    const uint8_t bytes[11] = {0x02, 0x30, 0x31, 0x30, 0x43, 0x38, 0x30, 0x34, 0x03, 0xab, 0x0f};
    EXPECT_EQ(capture_output([&] { print_buf(bytes, 10); }).out,
              "02H 30H 31H 30H 43H 38H 30H 34H 03H ABH \n");
    EXPECT_EQ(capture_output([&] { print_buf(bytes, 11); }).out,
              "02H 30H 31H 30H 43H 38H 30H 34H 03H ABH \n0FH \n");
    EXPECT_EQ(capture_output([&] { print_buf(bytes, 0); }).out, "");
    const uint8_t text[] = {'A', 'B', 'C'};
    EXPECT_EQ(capture_output([&] { print_payload(text, 3); }).out, "ABC\n");
    EXPECT_EQ(capture_output([&] { print_payload(text, 0); }).out, "\n");

    // Level letters, and milliseconds unpadded.
    std::string letters;
    for (int level : {8, 16, 32, 64, 128, 6, 16 | 1})
        letters += convert_logLevel_to_char(level);
    EXPECT_EQ(letters, "CWMIDEE") << "one letter per single level, E for anything else";
    char buf[64] = "11/22/26 15:46:03";
    append_msec(buf, sizeof buf, 5);
    EXPECT_STREQ(buf, "11/22/26 15:46:03.5");
    const std::string now = get_time_msec();
    EXPECT_TRUE(std::regex_match(now, std::regex(R"(\d\d/\d\d/\d\d \d\d:\d\d:\d\d\.\d{1,3})")))
        << now;
}

