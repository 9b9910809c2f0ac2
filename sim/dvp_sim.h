// A simulated Delta DVP PLC answering Modbus ASCII one-point reads (":"
// station function address quantity LRC CR LF) from a memory set by Modbus
// address. Like a Modbus slave it stays silent on a request with a wrong
// LRC or for another station; the `nak` and `exception` switches make it
// answer with exception code 02.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "sim/serial_line.h"

namespace sim {

class DvpSim : public SerialProtocolSim {
public:
    // `station` -1 answers every station number.
    explicit DvpSim(int station = -1) : station_(station) {}

    bool accepts(uint8_t first) const override { return first == ':'; }
    size_t feed(const uint8_t *data, size_t len, std::vector<uint8_t> &answer) override;

    // Registers and bits by their Modbus address (D100 is 0x1064, X17 0x040F).
    void set(unsigned modbus_address, uint16_t value);
    // The same by device address ("D100", "X17", "M1536"), mapped as the
    // driver maps it.
    void set_device(const std::string &device, uint16_t value);
    // Answer with a lower-case LRC (a controller that does so is refused).
    std::atomic<bool> lower_case_lrc{false};

private:
    const int station_;
    std::mutex mutex_;
    std::map<unsigned, uint16_t> memory_;
};

} // namespace sim
