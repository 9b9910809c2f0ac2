#include "sim/dvp_sim.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "device/driver/serial/dvp_codec.h"

namespace sim {

void DvpSim::set(unsigned modbus_address, uint16_t value)
{
    std::lock_guard<std::mutex> lock(mutex_);
    memory_[modbus_address] = value;
}

size_t DvpSim::feed(const uint8_t *data, size_t len, std::vector<uint8_t> &answer)
{
    const std::string text(reinterpret_cast<const char *>(data), len);
    const size_t end = text.find("\r\n");
    if (end == std::string::npos)
        return len > 64 ? len : 0;
    const size_t used = end + 2;
    if (end < 15)
        return used; // too short to be a read: no answer
    auto field = [&](size_t pos, size_t n) {
        return static_cast<unsigned>(strtoul(text.substr(pos, n).c_str(), nullptr, 16));
    };
    const unsigned station = field(1, 2);
    const unsigned function = field(3, 2);
    const unsigned address = field(5, 4);
    char body[32];
    if (faults.nak || faults.exception) {
        snprintf(body, sizeof body, "%02X%02X02", station, function | 0x80);
    } else {
        uint16_t v = 0;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            auto it = memory_.find(address);
            v = it == memory_.end() ? 0 : it->second;
        }
        if (function == 3)
            snprintf(body, sizeof body, "%02X%02X02%04X", station, function, v);
        else
            snprintf(body, sizeof body, "%02X%02X01%02X", station, function, v & 1);
    }
    uint8_t lrc = get_LRC(body);
    if (faults.bad_checksum)
        ++lrc;
    char frame[48];
    snprintf(frame, sizeof frame, lower_case_lrc ? ":%s%02x\r\n" : ":%s%02X\r\n", body, lrc);
    answer.assign(frame, frame + strlen(frame));
    return used;
}

} // namespace sim
