// A simulated Mitsubishi Q-series CPU on a serial line speaking QnA 4C
// binary format 5 (batch read of one point, command 0401).
//
// First bytes: every format 5 request starts DLE STX (0x10 0x02) and a
// one-point read continues with its data byte count 0x12 0x00; anything led
// by 0x10 that does not go on so is declined (NOT_MINE), which keeps PPI
// short frames (0x10 DA SA FC FCS 0x16) apart on a shared line. The ASCII
// formats (ENQ 0x05, or STX 0x02 in format 3) are not simulated.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "sim/serial_line.h"

namespace sim {

class QnA4CSim : public SerialProtocolSim {
public:
    // End codes of the refusals the fault switches produce.
    static constexpr uint16_t END_CODE_NAK = 0xC051;       // faults.nak
    static constexpr uint16_t END_CODE_EXCEPTION = 0xC056; // faults.exception, unknown device

    bool accepts(uint8_t first) const override { return first == 0x10; }
    size_t feed(const uint8_t *data, size_t len, std::vector<uint8_t> &answer) override;

    // Memory by device address ("D100", "SM400"); false for an address the
    // device table does not know. Bit devices hold 0 or 1.
    bool set_word(const std::string &addr, uint16_t value);
    bool set_bit(const std::string &addr, bool value);

    // Requests that were well-formed one-point reads.
    size_t reads() const;

private:
    using key = std::pair<uint8_t, uint32_t>; // binary device code, device number
    bool store(const std::string &addr, uint16_t value);
    std::vector<uint8_t> respond(const std::vector<uint8_t> &body);

    mutable std::mutex mutex_;
    std::map<key, uint16_t> memory_;
    size_t reads_ = 0;
};

// The answer frame for a body (data byte count through the data): DLE STX,
// body, DLE ETX, the two sum characters, with DLE doubled. `sum_offset`
// is added to the sum to simulate a corrupted check.
std::vector<uint8_t> qna_4c_format5_frame(const std::vector<uint8_t> &body, uint8_t sum_offset = 0);

} // namespace sim
