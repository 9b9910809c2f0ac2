#include "sim/dvp_sim.h"

#include <cctype>
#include <cstdio>
#include <cstring>

#include "codec/dvp_codec.h"

namespace sim {

namespace {
constexpr size_t MAX_REQUEST = 64; // far above the 17 characters of a read
} // namespace

void DvpSim::set(unsigned modbus_address, uint16_t value)
{
    std::lock_guard<std::mutex> lock(mutex_);
    memory_[modbus_address] = value;
}

void DvpSim::set_device(const std::string &device, uint16_t value)
{
    char letter = 0;
    char hex[5];
    if (mapping(device.c_str(), &letter, hex) == 0)
        set(dvp_hex_field(hex, 4), value);
}

size_t DvpSim::feed(const uint8_t *data, size_t len, std::vector<uint8_t> &answer)
{
    const std::string text(reinterpret_cast<const char *>(data), len);
    const size_t end = text.find("\r\n");
    if (end == std::string::npos)
        return len > MAX_REQUEST ? len : 0;
    const size_t used = end + 2;
    // ":" station(2) function(2) address(4) quantity(4) LRC(2): anything
    // else, a wrong LRC or another station's request gets no answer.
    if (end != 15)
        return used;
    for (size_t i = 1; i < end; ++i)
        if (isxdigit(static_cast<unsigned char>(text[i])) == 0)
            return used;
    char lrc[3];
    snprintf(lrc, sizeof lrc, "%02X", get_LRC(text.substr(1, 12).c_str()));
    if (text.compare(13, 2, lrc) != 0)
        return used;
    const unsigned station = dvp_hex_field(text.c_str() + 1, 2);
    if (station_ >= 0 && station != static_cast<unsigned>(station_))
        return used;
    const unsigned function = dvp_hex_field(text.c_str() + 3, 2);
    const unsigned address = dvp_hex_field(text.c_str() + 5, 4);
    char body[32];
    if (faults.nak || faults.exception || function < 1 || function > 3) {
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
    uint8_t answer_lrc = get_LRC(body);
    if (faults.bad_checksum)
        ++answer_lrc;
    char frame[48];
    snprintf(frame, sizeof frame, lower_case_lrc ? ":%s%02x\r\n" : ":%s%02X\r\n", body, answer_lrc);
    answer.assign(frame, frame + strlen(frame));
    return used;
}

} // namespace sim
