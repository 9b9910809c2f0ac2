#include "sim/fx_sim.h"

#include "codec/fx_codec.h"

namespace sim {

namespace {
char hex(unsigned v)
{
    return static_cast<char>(v < 10 ? '0' + v : 'A' + v - 10);
}
} // namespace

void FxSim::set_register(unsigned d, uint16_t value)
{
    std::lock_guard<std::mutex> lock(mutex_);
    memory_[0x1000 + 2 * d] = static_cast<uint8_t>(value);
    memory_[0x1000 + 2 * d + 1] = static_cast<uint8_t>(value >> 8);
}

void FxSim::set_bit(const std::string &device, bool on)
{
    // The request the driver would send tells where the bit lives.
    uint8_t frame[FX_REQUEST_SIZE];
    uint8_t bit = 0;
    if (fx_build_request(device.c_str(), frame, &bit) != 0)
        return;
    unsigned address = 0;
    for (int i = 2; i < 6; ++i)
        address = address * 16 + atoh(static_cast<char>(frame[i]));
    std::lock_guard<std::mutex> lock(mutex_);
    uint8_t &b = memory_[address];
    b = static_cast<uint8_t>(on ? (b | (1u << bit)) : (b & ~(1u << bit)));
}

size_t FxSim::feed(const uint8_t *data, size_t len, std::vector<uint8_t> &answer)
{
    // Only a device read (STX "0", four hex address digits, two decimal
    // count digits, ETX) is ours; another STX protocol on the line gets it.
    auto upper_hex = [](uint8_t c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'); };
    for (size_t i = 1; i < len && i < 9; ++i) {
        const bool ok = i == 1 ? data[i] == '0'
                        : i < 6 ? upper_hex(data[i])
                        : i < 8 ? data[i] >= '0' && data[i] <= '9'
                                : data[i] == FX_ETX;
        if (!ok)
            return NOT_MINE;
    }
    if (len < FX_REQUEST_SIZE)
        return 0;
    unsigned address = 0;
    for (int i = 2; i < 6; ++i)
        address = address * 16 + atoh(static_cast<char>(data[i]));
    const unsigned count = static_cast<unsigned>((data[6] - '0') * 10 + (data[7] - '0'));
    unsigned request_sum = 0;
    for (int i = 1; i <= 8; ++i)
        request_sum += data[i];
    const bool sum_ok = upper_hex(data[9]) && upper_hex(data[10]) &&
                        atoh(static_cast<char>(data[9])) == ((request_sum >> 4) & 0xF) &&
                        atoh(static_cast<char>(data[10])) == (request_sum & 0xF);
    // The PLC refuses a request whose sum is wrong, as it refuses on command.
    if (!sum_ok || faults.nak || faults.exception || count == 0 || count > 64) {
        answer = {FX_NAK};
        return FX_REQUEST_SIZE;
    }
    answer.push_back(FX_STX);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (unsigned i = 0; i < count; ++i) {
            auto it = memory_.find(address + i);
            const uint8_t b = it == memory_.end() ? 0 : it->second;
            answer.push_back(static_cast<uint8_t>(hex(b >> 4)));
            answer.push_back(static_cast<uint8_t>(hex(b & 0xF)));
        }
    }
    answer.push_back(FX_ETX);
    unsigned sum = 0;
    for (size_t i = 1; i < answer.size(); ++i)
        sum += answer[i];
    if (faults.bad_checksum)
        ++sum;
    answer.push_back(static_cast<uint8_t>(hex((sum >> 4) & 0xF)));
    answer.push_back(static_cast<uint8_t>(hex(sum & 0xF)));
    return FX_REQUEST_SIZE;
}

} // namespace sim
