// A simulated S7 PLC: Snap7's own server with data blocks 1 to 4, merkers,
// inputs and outputs registered. S7 listens on port 102, so starting it
// needs root.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

namespace sim {

class S7Sim {
public:
    S7Sim();
    ~S7Sim();
    S7Sim(const S7Sim &) = delete;
    S7Sim &operator=(const S7Sim &) = delete;

    bool start(const char *address = "127.0.0.1");
    void stop();

    // Big-endian words into a data block (1 to 4) or the merkers (db 0).
    void set_word(int db, size_t offset, uint16_t value);
    void set_byte(int db, size_t offset, uint8_t value);

private:
    uintptr_t server_ = 0;
    std::mutex mutex_;
    std::vector<uint8_t> dbs_[5]; // [0] merkers, [1..4] DB1..DB4
    std::vector<uint8_t> inputs_, outputs_;
};

} // namespace sim
