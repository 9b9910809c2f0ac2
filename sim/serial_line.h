// A simulated serial line: a pseudo-terminal whose slave side is linked at
// the path a driver opens, and a thread that answers the requests arriving
// on it through one or more protocol simulators (told apart by first byte).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace sim {

// Fault switches every simulated PLC honours. The line applies `silent`,
// `garbage` and `split`; protocols apply `nak` and `bad_checksum` (their
// own negative answer, a wrong sum/LRC/FCS) and `exception` where the
// protocol has one.
struct Faults {
    std::atomic<bool> silent{false};       // take the request, answer nothing
    std::atomic<bool> nak{false};          // answer with the protocol's refusal
    std::atomic<bool> bad_checksum{false}; // answer with a wrong check value
    std::atomic<bool> split{false};        // write the answer in several pieces
    std::atomic<bool> garbage{false};      // answer bytes that mean nothing
    std::atomic<bool> exception{false};    // protocol exception/error answer
};

// One protocol's request parser and answerer. Called on the line's thread.
class SerialProtocolSim {
public:
    virtual ~SerialProtocolSim() = default;
    // Whether a request of this protocol can start with this byte.
    virtual bool accepts(uint8_t first) const = 0;
    // Given the bytes buffered so far (data[0] accepted), returns how many
    // bytes form a complete request (0: need more) and fills `answer` (may
    // stay empty: no answer), or NOT_MINE when the bytes cannot be a
    // request of this protocol after all (the line then offers them to the
    // next protocol that accepts the first byte). Must not read past `len`.
    static constexpr size_t NOT_MINE = static_cast<size_t>(-1);
    virtual size_t feed(const uint8_t *data, size_t len, std::vector<uint8_t> &answer) = 0;

    Faults faults;
};

class SerialLine {
public:
    // Opens a pseudo-terminal and links its slave at `link_path` (replacing
    // whatever link was there).
    explicit SerialLine(std::string link_path);
    ~SerialLine();
    SerialLine(const SerialLine &) = delete;
    SerialLine &operator=(const SerialLine &) = delete;

    // The line does not own the protocols; they must outlive it.
    void add_protocol(SerialProtocolSim *proto);
    void start();
    void stop();

    const std::string &link_path() const { return link_; }
    const std::string &slave_path() const { return slave_; }
    // Requests answered (or swallowed) so far.
    size_t requests() const { return requests_.load(); }

private:
    void run();
    void write_answer(SerialProtocolSim &proto, const std::vector<uint8_t> &answer);

    std::string link_;
    std::string slave_;
    int master_ = -1;
    int slave_keep_ = -1; // held open so the master never sees a hang-up
    std::vector<SerialProtocolSim *> protocols_;
    std::thread thread_;
    std::atomic<bool> running_{false};
    std::atomic<size_t> requests_{0};
};

} // namespace sim
