#include "sim/fx_sim.h"

#include "device/driver/serial/fx_codec.h"

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
    if (len < FX_REQUEST_SIZE)
        return 0;
    if (data[1] != '0' || data[8] != 0x03)
        return 1; // not a read request: drop the STX and look again
    unsigned address = 0;
    for (int i = 2; i < 6; ++i)
        address = address * 16 + atoh(static_cast<char>(data[i]));
    const unsigned count = static_cast<unsigned>((data[6] - '0') * 10 + (data[7] - '0'));
    if (faults.nak || count == 0 || count > 64) {
        answer = {0x15};
        return FX_REQUEST_SIZE;
    }
    answer.push_back(0x02);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (unsigned i = 0; i < count; ++i) {
            auto it = memory_.find(address + i);
            const uint8_t b = it == memory_.end() ? 0 : it->second;
            answer.push_back(static_cast<uint8_t>(hex(b >> 4)));
            answer.push_back(static_cast<uint8_t>(hex(b & 0xF)));
        }
    }
    answer.push_back(0x03);
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
