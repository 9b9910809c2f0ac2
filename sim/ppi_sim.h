// A simulated Siemens S7-200 on a PPI line (RS-485) answering read-variable
// jobs for one item.
//
// First bytes: a job arrives as an SD2 frame, 0x68 LE LE 0x68; the master
// then fetches the answer with an SD1 short frame, 0x10 DA SA FC FCS 0x16.
// SD1 starts with 0x10 like a QnA 4C format 5 request (DLE STX): this
// simulator takes a 0x10 only while it holds an acknowledged answer, so on
// a shared line it must be added before the QnA 4C simulator. The two are
// also told apart by the second and third bytes: 0x02 0x12 for QnA (STX,
// data count 18) against the PPI station address and the master address
// (0x00 from the gateway), and by the fourth, 0x00 for QnA against a
// function code (0x5C/0x7C) for PPI.
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
    // Jobs acknowledged so far.
    size_t jobs() const { return jobs_.load(); }

private:
    size_t feed_job(const uint8_t *data, size_t len, std::vector<uint8_t> &answer);
    size_t feed_short(const uint8_t *data, size_t len, std::vector<uint8_t> &answer);
    std::vector<uint8_t> answer_for(const uint8_t *job, uint8_t master);

    const uint8_t station_;
    mutable std::mutex mutex_;
    std::map<uint8_t, std::vector<uint8_t>> memory_;
    std::vector<uint8_t> pending_; // answer waiting for the master's fetch
    std::atomic<bool> has_pending_{false};
    std::atomic<size_t> jobs_{0};
};

} // namespace sim
