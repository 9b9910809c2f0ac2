// PPI read requests byte by byte, the address rules, and the decoding of
// the answer's data bytes per data type.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "codec/ppi_codec.h"

namespace {

using bytes = std::vector<uint8_t>;

struct Built {
    int rc;
    int item;
    bytes frame;
};

Built build(const char *addr, uint32_t type, uint8_t station = 2)
{
    uint8_t frame[PPI_REQUEST_LEN] = {};
    int item = -1;
    const int rc = getReadCommandFrame(addr, type, station, frame, &item);
    return {rc, item, bytes(frame, frame + PPI_REQUEST_LEN)};
}

uint32_t bit_address(const bytes &f)
{
    return uint32_t(f[28]) << 16 | uint32_t(f[29]) << 8 | f[30];
}

// An answer frame whose data bytes (offset 25 on) are `data`.
bytes answer_with(const bytes &data)
{
    bytes a;
    for (size_t i = 0; i < PPI_DATA_OFFSET; ++i)
        a.push_back(i == 0 ? 0x68 : 0x00);
    for (uint8_t b : data)
        a.push_back(b);
    a.push_back(0x00);
    a.push_back(0x16);
    return a;
}

std::string decode(const bytes &a, int item, uint32_t type, int *rc = nullptr)
{
    char value[32] = "untouched";
    const int r = PPI_decode_value(a.data(), a.size(), item, type, value, sizeof value);
    if (rc != nullptr)
        *rc = r;
    return value;
}

} // namespace

TEST(PpiRequest, FramesByteExactAreaTransportAndBitAddress)
{
    const Built vw100 = build("VW100", 4);
    ASSERT_EQ(vw100.rc, 0);
    const bytes expected = {0x68, 0x1B, 0x1B, 0x68, 0x02, 0x00, 0x6C, 0x32, 0x01, 0x00, 0x00,
                            0x00, 0x00, 0x00, 0x0E, 0x00, 0x00, 0x04, 0x01, 0x12, 0x0A, 0x10,
                            0x04,             // 22: transport size, word
                            0x00, 0x01,       // 23-24: one element
                            0x00, 0x01, 0x84, // 25-27: data block 1, area V
                            0x00, 0x03, 0x20, // 28-30: bit address 800
                            0x8D,             // 31: sum of 4..30
                            0x16};
    EXPECT_EQ(vw100.frame, expected);
    EXPECT_EQ(vw100.item, PPI_ITEM_V_WORD);
    // The station goes to offset 4 and into the sum.
    const Built s5 = build("VW100", 4, 5);
    EXPECT_EQ(s5.frame[4], 5);
    EXPECT_EQ(s5.frame[31], 0x90);
    // The two fixed short frames.
    EXPECT_EQ(bytes(PPI_confirm, PPI_confirm + 6), (bytes{0x10, 0x02, 0x00, 0x5C, 0x5E, 0x16}));
    EXPECT_EQ(bytes(PPI_hello, PPI_hello + 6), (bytes{0x10, 0x02, 0x00, 0x49, 0x4B, 0x16}));

    struct Case {
        const char *addr;
        uint32_t type;
        uint8_t transport, area, db;
        uint32_t bit_address;
        int item;
    };
    const Case cases[] = {
        {"V10.3", 1, 1, 0x84, 1, 83, PPI_ITEM_V_BIT},
        {"v10239", 2, 2, 0x84, 1, 10239 * 8, PPI_ITEM_V_BYTE},
        {"VD4", 10, 6, 0x84, 1, 32, PPI_ITEM_V_DWORD},
        {"VB4", 7, 6, 0x84, 1, 32, PPI_ITEM_V_DWORD}, // the type, not the B, sets the size
        {"I0.1", 1, 1, 0x81, 0, 1, PPI_ITEM_IQ_BIT},
        {"IW0", 4, 4, 0x81, 0, 0, PPI_ITEM_IQ_WORD},
        {"QB15", 2, 2, 0x82, 0, 120, PPI_ITEM_IQ_BYTE},
        {"QD2", 6, 6, 0x82, 0, 16, PPI_ITEM_IQ_DWORD},
        {"C5", 4, 0x1E, 0x1E, 0, 5, PPI_ITEM_C}, // counters by number, not bytes
        {"T255", 15, 0x1F, 0x1F, 0, 255, PPI_ITEM_T},
        {"M31.7", 1, 1, 0x83, 0, 255, PPI_ITEM_M_BIT},
        {"MW2", 5, 4, 0x83, 0, 16, PPI_ITEM_M_BIT + 2},
        {"S0.1", 1, 1, 0x04, 0, 1, PPI_ITEM_S_BIT},
        {"SM0.1", 1, 1, 0x05, 0, 1, PPI_ITEM_SM_BIT},
        {"SMB28", 3, 2, 0x05, 0, 224, PPI_ITEM_SM_BIT + 1},
        {"SMW549", 4, 4, 0x05, 0, 549 * 8, PPI_ITEM_SM_BIT + 2},
    };
    for (const auto &c : cases) {
        const Built b = build(c.addr, c.type);
        ASSERT_EQ(b.rc, 0) << c.addr;
        EXPECT_EQ(b.frame[22], c.transport) << c.addr;
        EXPECT_EQ(b.frame[26], c.db) << c.addr;
        EXPECT_EQ(b.frame[27], c.area) << c.addr;
        EXPECT_EQ(bit_address(b.frame), c.bit_address) << c.addr;
        EXPECT_EQ(b.item, c.item) << c.addr;
        EXPECT_EQ(b.frame[31], PPI_CheckSum(b.frame.data() + 4, 27)) << c.addr;
    }
}

TEST(PpiRequest, RefusedAddresses)
{
    const std::pair<const char *, uint32_t> cases[] = {
        {"V10.8", 1}, {"V10.x", 1}, // bit digit above 7, or none
        {"V10240", 2},              // past variable memory
        {"I1.2", 5},                // inputs only as unsigned types
        {"IW16", 4},  {"Q0.0", 3},  {"M32", 2},   {"S32", 2},    {"SM550", 2},
        {"C256", 4},  {"SB10", 2},  {"X0", 2},    {"", 2},       // SB: s followed by neither digit nor m
        {"VW100", 8}, {"VW100", 11}, {"VW100", 0}, // BCD16 and others are no V access size
        {"V99999999999999", 2},
    };
    for (const auto &[addr, type] : cases) {
        const Built b = build(addr, type);
        EXPECT_EQ(b.rc, -1) << addr << " type " << type;
        EXPECT_EQ(b.item, PPI_ITEM_NONE) << addr;
    }
    int item = -1;
    uint8_t frame[PPI_REQUEST_LEN];
    EXPECT_EQ(getReadCommandFrame(nullptr, 4, 2, frame, &item), -1);
    // Only the first 15 characters count: the digits after them are dropped.
    const Built longer = build("VW000000000001000", 4);
    ASSERT_EQ(longer.rc, 0);
    EXPECT_EQ(bit_address(longer.frame), 80u);
}

TEST(PpiDecode, ValuesPerTypeAndShortAnswers)
{
    const bytes a = answer_with({0x81, 0x02, 0x03, 0x04});
    struct Case {
        int item;
        uint32_t type;
        const char *value;
    };
    const Case cases[] = {
        {PPI_ITEM_V_BIT, 1, "129"},
        {PPI_ITEM_V_BYTE, 2, "129"},
        {PPI_ITEM_V_BYTE, 3, "129"}, // S8 shown unsigned
        {PPI_ITEM_V_WORD, 4, "33026"},
        {PPI_ITEM_IQ_WORD, 4, "641"},    // inputs/outputs low byte first
        {PPI_ITEM_IQ_WORD_OLD, 4, "641"},
        {PPI_ITEM_IQ_WORD, 5, "-32510"}, // but not for S16
        {PPI_ITEM_V_DWORD, 6, "-2130574588"},
        {PPI_ITEM_IQ_DWORD, 6, "67306113"},
        {PPI_ITEM_IQ_DWORD_OLD, 6, "67306113"},
        {PPI_ITEM_IQ_DWORD, 7, "-2130574588"},
        {PPI_ITEM_V_WORD, 11, "0x8102"},
        {PPI_ITEM_V_DWORD, 12, "0x81020304"},
        {PPI_ITEM_C, 8, "unkown type"},
        {PPI_ITEM_C, 15, "unkown type"},
    };
    for (const auto &c : cases) {
        int rc = -1;
        EXPECT_EQ(decode(a, c.item, c.type, &rc), c.value) << c.type << "/" << c.item;
        EXPECT_EQ(rc, 0);
    }
    EXPECT_EQ(decode(answer_with({0x42, 0x28, 0x00, 0x00}), PPI_ITEM_V_DWORD, 10), "42.000000");
    EXPECT_EQ(decode(answer_with({0xC1, 0x20, 0x00, 0x00}), PPI_ITEM_V_DWORD, 10), "-10.000000");
    // The largest float does not fit: the text is cut, never overrun.
    const std::string big = decode(answer_with({0x7F, 0x7F, 0xFF, 0xFF}), PPI_ITEM_V_DWORD, 10);
    EXPECT_EQ(big.size(), 31u);

    const bytes full = answer_with({0x81, 0x02, 0x03, 0x04});
    const std::pair<uint32_t, size_t> needs[] = {{1, 26}, {2, 26}, {4, 27}, {5, 27}, {11, 27},
                                                 {6, 29}, {7, 29}, {10, 29}, {12, 29}};
    for (const auto &[type, need] : needs) {
        for (size_t n = 0; n < need; ++n) {
            bytes cut(full.begin(), full.begin() + static_cast<long>(n));
            int rc = 0;
            EXPECT_EQ(decode(cut, PPI_ITEM_V_DWORD, type, &rc), "untouched") << type << "/" << n;
            EXPECT_EQ(rc, -1);
        }
        bytes just(full.begin(), full.begin() + static_cast<long>(need));
        int rc = -1;
        decode(just, PPI_ITEM_V_DWORD, type, &rc);
        EXPECT_EQ(rc, 0) << type;
    }
    // An unsupported type needs no data at all.
    int rc = -1;
    EXPECT_EQ(decode({}, PPI_ITEM_T, 9, &rc), "unkown type");
    EXPECT_EQ(rc, 0);
}

