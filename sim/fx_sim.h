// A simulated FX PLC on its programming port: answers device reads (STX
// "0" address count ETX sum) from a byte memory set by device address.
// A request with a wrong sum is refused with NAK, as the PLC does; the
// `nak` and `exception` switches refuse every request so (the protocol has
// no other error answer). STX frames that are not device reads are left to
// the other protocols of the line.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "codec/fx_codec.h"
#include "sim/serial_line.h"

namespace sim {

class FxSim : public SerialProtocolSim {
public:
    bool accepts(uint8_t first) const override { return first == FX_STX; }
    size_t feed(const uint8_t *data, size_t len, std::vector<uint8_t> &answer) override;

    // D registers by number; bit devices ("X17", "M8", "Y3") by name.
    void set_register(unsigned d, uint16_t value);
    void set_bit(const std::string &device, bool on);

private:
    std::mutex mutex_;
    std::map<unsigned, uint8_t> memory_; // by the protocol's byte address
};

} // namespace sim
