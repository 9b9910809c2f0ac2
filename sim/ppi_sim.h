// A simulated Siemens S7-200 on a PPI line (RS-485) answering read-variable
// jobs for one item.
//
// First bytes: a job arrives as an SD2 frame, 0x68 LE LE 0x68; the master
// then fetches the answer with an SD1 short frame, 0x10 DA SA FC FCS 0x16.
// SD1 starts with 0x10 like a QnA 4C format 5 request (DLE STX 0x12 0x00):
// this simulator declines (NOT_MINE) any 0x10 that is not a complete,
// well-summed SD1 frame ending in 0x16, and the QnA 4C simulator declines
// anything whose third and fourth bytes are not 0x12 0x00, where an SD1
// frame has its source address and function code (0x5C/0x7C). So the two
// can share a line in either order.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <vector>

#include "sim/serial_line.h"

namespace sim {

class PpiSim : public SerialProtocolSim {
public:
    // Area codes as the read job names them.
    static constexpr uint8_t AREA_S = 0x04;
    static constexpr uint8_t AREA_SM = 0x05;
    static constexpr uint8_t AREA_C = 0x1E;
    static constexpr uint8_t AREA_T = 0x1F;
    static constexpr uint8_t AREA_I = 0x81;
    static constexpr uint8_t AREA_Q = 0x82;
    static constexpr uint8_t AREA_M = 0x83;
    static constexpr uint8_t AREA_V = 0x84;
    // Item return code of a refused read (faults.exception, unknown area or
    // address out of range).
    static constexpr uint8_t RETURN_NO_OBJECT = 0x0A;

    explicit PpiSim(uint8_t station = 2);

    bool accepts(uint8_t first) const override;
    size_t feed(const uint8_t *data, size_t len, std::vector<uint8_t> &answer) override;

    // Writes bytes into an area's memory, from byte `offset` on; false when
    // they do not fit.
    bool set_bytes(uint8_t area, size_t offset, const std::vector<uint8_t> &bytes);
    // Current value of counter or timer `number` (AREA_C or AREA_T).
    bool set_count(uint8_t area, unsigned number, uint16_t value);

    uint8_t station() const { return station_; }
    // Jobs acknowledged (or refused by a fault switch) so far.
    size_t jobs() const { return jobs_.load(); }

private:
    size_t feed_job(const uint8_t *data, size_t len, std::vector<uint8_t> &answer);
    size_t feed_short(const uint8_t *data, size_t len, std::vector<uint8_t> &answer);
    std::vector<uint8_t> answer_for(const uint8_t *job, uint8_t master);

    const uint8_t station_;
    mutable std::mutex mutex_;
    std::map<uint8_t, std::vector<uint8_t>> memory_;
    std::vector<uint8_t> pending_; // answer waiting for the master's fetch
    std::atomic<size_t> jobs_{0};
};

} // namespace sim
