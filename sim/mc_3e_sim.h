// A simulated Q CPU speaking MC protocol 3E binary frames on loopback:
// one-point batch reads of words and bits from a settable memory, with
// fault switches.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "sim/loopback_server.h"

namespace sim {

class Mc3eSim : public LoopbackServer {
public:
    struct Faults {
        std::atomic<bool> silent{false};      // take requests, answer nothing
        std::atomic<bool> exception{false};   // answer with an error end code
        std::atomic<bool> wrong_length{false}; // a whole answer of another length than asked
        std::atomic<bool> half_frame{false};  // send half the answer only
        std::atomic<bool> close_conn{false};  // close the connection instead of answering
        std::atomic<bool> garbage{false};     // answer bytes that mean nothing
        std::atomic<bool> split{false};       // the answer in two segments, 30 ms apart
    };

    Mc3eSim() = default;
    ~Mc3eSim() override;
    Mc3eSim(const Mc3eSim &) = delete;
    Mc3eSim &operator=(const Mc3eSim &) = delete;

    // By device code (0xA8 D, 0x90 M, ...) and head number.
    void set(uint8_t code, uint32_t head, uint16_t value);
    size_t requests() const { return requests_.load(); }
    size_t connections() const { return connections_.load(); }
    // Bytes for the connected client that answer nothing it asked, sent
    // within 20 ms; unsolicited_pending() is false once they are out.
    void send_unsolicited(const std::vector<uint8_t> &bytes);
    bool unsolicited_pending();

    Faults faults;

private:
    void serve(int fd) override;

    std::mutex mutex_;
    std::map<std::pair<uint8_t, uint32_t>, uint16_t> memory_;
    std::vector<uint8_t> unsolicited_;
    std::atomic<size_t> requests_{0};
    std::atomic<size_t> connections_{0};
};

} // namespace sim
