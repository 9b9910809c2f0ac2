#include "sim/qna_4c_sim.h"

#include <cstdio>

#include "codec/qna_4c_codec.h"

namespace sim {

namespace {

// Longest undoubled request body taken before a frame is given up.
constexpr size_t MAX_BODY = 64;

// The fixed routing of a one-point request, after the data byte count.
const uint8_t request_route[] = {0xF8, 0x00, 0x00, 0xFF, 0xFF, 0x03, 0x00, 0x00};

std::vector<uint8_t> answer_body(uint16_t end_code, const std::vector<uint8_t> &data)
{
    const size_t count = 12 + data.size();
    std::vector<uint8_t> body = {static_cast<uint8_t>(count), static_cast<uint8_t>(count >> 8),
                                 0xF8, 0x00, 0x00, 0xFF, 0xFF, 0x03, 0x00, 0x00, 0xFF, 0xFF,
                                 static_cast<uint8_t>(end_code), static_cast<uint8_t>(end_code >> 8)};
    body.insert(body.end(), data.begin(), data.end());
    return body;
}

} // namespace

std::vector<uint8_t> qna_4c_format5_frame(const std::vector<uint8_t> &body, uint8_t sum_offset)
{
    std::vector<uint8_t> frame = {QnA_4C_DLE, QnA_4C_STX};
    frame.insert(frame.end(), body.begin(), body.end());
    char sum[3];
    snprintf(sum, sizeof sum, "%02X", static_cast<uint8_t>(QnA_4C_sum(body.data(), body.size()) + sum_offset));
    frame.insert(frame.end(), {QnA_4C_DLE, QnA_4C_ETX, static_cast<uint8_t>(sum[0]), static_cast<uint8_t>(sum[1])});
    std::vector<uint8_t> doubled(frame.size() * 2);
    doubled.resize(QnA_4C_dle_double(frame.data(), frame.size(), doubled.data(), doubled.size()));
    return doubled;
}

bool QnA4CSim::store(const std::string &addr, uint16_t value)
{
    char code[3];
    int number = 0;
    uint8_t hex = 0;
    if (analysis_softComponent(addr.c_str(), code, &number) != 0 ||
        transform_softComponentCode_from_ascii_to_hex(code, &hex) != 0)
        return false;
    std::lock_guard<std::mutex> lock(mutex_);
    memory_[{hex, static_cast<uint32_t>(number)}] = value;
    return true;
}

bool QnA4CSim::set_word(const std::string &addr, uint16_t value)
{
    return store(addr, value);
}

bool QnA4CSim::set_bit(const std::string &addr, bool value)
{
    return store(addr, value ? 1 : 0);
}

size_t QnA4CSim::reads() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return reads_;
}

size_t QnA4CSim::feed(const uint8_t *data, size_t len, std::vector<uint8_t> &answer)
{
    // Only one-point reads are served: DLE STX and 18 data bytes. Anything
    // else led by 0x10 (a PPI short frame, noise) is left to others.
    static const uint8_t lead[] = {QnA_4C_DLE, QnA_4C_STX, 18, 0x00};
    for (size_t i = 1; i < sizeof lead && i < len; ++i) {
        if (data[i] != lead[i])
            return NOT_MINE;
    }
    if (len < sizeof lead)
        return 0;
    std::vector<uint8_t> body;
    for (size_t i = 2; i < len;) {
        if (data[i] != QnA_4C_DLE) {
            body.push_back(data[i++]);
            if (body.size() > MAX_BODY)
                return i;
            continue;
        }
        if (i + 1 >= len)
            return 0;
        if (data[i + 1] == QnA_4C_DLE) {
            body.push_back(QnA_4C_DLE);
            i += 2;
            continue;
        }
        if (data[i + 1] != QnA_4C_ETX)
            return i + 1; // a lone DLE: not a frame of ours
        if (i + 4 > len)
            return 0; // the sum characters are still on their way
        char sum[3];
        snprintf(sum, sizeof sum, "%02X", QnA_4C_sum(body.data(), body.size()));
        if (data[i + 2] != static_cast<uint8_t>(sum[0]) || data[i + 3] != static_cast<uint8_t>(sum[1]))
            return i + 4; // a corrupted request goes unanswered
        answer = respond(body);
        return i + 4;
    }
    return 0;
}

std::vector<uint8_t> QnA4CSim::respond(const std::vector<uint8_t> &body)
{
    // Data byte count, route, command, sub-command, device, code, points.
    if (body.size() != 20 || body[0] != 18 || body[1] != 0)
        return {};
    for (size_t i = 0; i < sizeof request_route; ++i) {
        if (body[2 + i] != request_route[i])
            return {}; // addressed to another station
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++reads_;
    }
    if (faults.nak)
        return qna_4c_format5_frame(answer_body(END_CODE_NAK, {}));
    const bool batch_read = body[10] == 0x01 && body[11] == 0x04;
    const uint16_t sub_command = body[12] | (body[13] << 8);
    const uint32_t number = body[14] | (body[15] << 8) | (static_cast<uint32_t>(body[16]) << 16);
    const uint8_t code = body[17];
    const uint16_t points = body[18] | (body[19] << 8);
    const int units = QnA_4C_units(code);
    if (faults.exception || !batch_read || points != 1 || units < 0 || units != sub_command)
        return qna_4c_format5_frame(answer_body(END_CODE_EXCEPTION, {}));
    uint16_t value = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = memory_.find({code, number});
        if (it != memory_.end())
            value = it->second;
    }
    std::vector<uint8_t> data;
    // Bit units pack two points a byte, the first in the high nibble: an
    // ON bit is 0x10, which then goes out doubled as a DLE.
    if (sub_command == SUB_COMMAND_BIT)
        data = {static_cast<uint8_t>(value != 0 ? 0x10 : 0x00)};
    else
        data = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)};
    return qna_4c_format5_frame(answer_body(0, data), faults.bad_checksum ? 1 : 0);
}

} // namespace sim
