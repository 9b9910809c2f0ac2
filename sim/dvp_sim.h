// A simulated Delta DVP PLC answering Modbus ASCII one-point reads (":"
// station function address quantity LRC CR LF) from a memory set by Modbus
// address.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <vector>

#include "sim/serial_line.h"

namespace sim {

class DvpSim : public SerialProtocolSim {
public:
    bool accepts(uint8_t first) const override { return first == ':'; }
    size_t feed(const uint8_t *data, size_t len, std::vector<uint8_t> &answer) override;

    // Registers and bits by their Modbus address (D100 is 0x1064, X17 0x040F).
    void set(unsigned modbus_address, uint16_t value);
    // Answer with a lower-case LRC (a controller that does so is refused).
    bool lower_case_lrc = false;

private:
    std::mutex mutex_;
    std::map<unsigned, uint16_t> memory_;
};

} // namespace sim
