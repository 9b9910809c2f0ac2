#include "sim/mc_3e_sim.h"

#include <sys/socket.h>

#include <chrono>
#include <thread>

namespace sim {

Mc3eSim::~Mc3eSim()
{
    stop();
}

void Mc3eSim::set(uint8_t code, uint32_t head, uint16_t value)
{
    std::lock_guard<std::mutex> lock(mutex_);
    memory_[{code, head}] = value;
}

void Mc3eSim::send_unsolicited(const std::vector<uint8_t> &bytes)
{
    std::lock_guard<std::mutex> lock(mutex_);
    unsolicited_.insert(unsolicited_.end(), bytes.begin(), bytes.end());
}

bool Mc3eSim::unsolicited_pending()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return !unsolicited_.empty();
}

void Mc3eSim::serve(int fd)
{
    ++connections_;
    std::vector<uint8_t> buf;
    while (running()) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!unsolicited_.empty()) {
                send(fd, unsolicited_.data(), unsolicited_.size(), MSG_NOSIGNAL);
                unsolicited_.clear();
            }
        }
        if (!readable(fd))
            continue;
        uint8_t chunk[256];
        const ssize_t n = recv(fd, chunk, sizeof chunk, 0);
        if (n <= 0)
            break;
        buf.insert(buf.end(), chunk, chunk + n);
        while (buf.size() >= 21) {
            const uint8_t *q = buf.data();
            const uint16_t sub = static_cast<uint16_t>(q[13] | (q[14] << 8));
            const uint32_t head = static_cast<uint32_t>(q[15] | (q[16] << 8) | (q[17] << 16));
            const uint8_t code = q[18];
            const uint16_t points = static_cast<uint16_t>(q[19] | (q[20] << 8));
            std::vector<uint8_t> cmd(q + 11, q + 15);
            buf.erase(buf.begin(), buf.begin() + 21);
            ++requests_;
            if (faults.silent)
                continue;
            if (faults.close_conn)
                return;
            std::vector<uint8_t> a = {0xD0, 0x00, 0x00, 0xFF, 0xFF, 0x03, 0x00};
            std::vector<uint8_t> data;
            uint16_t end_code = 0;
            if (faults.exception) {
                end_code = 0xC059;
                data = {0x00, 0xFF, 0xFF, 0x03, 0x00};
                data.insert(data.end(), cmd.begin(), cmd.end());
            } else {
                std::lock_guard<std::mutex> lock(mutex_);
                for (uint16_t i = 0; i < points && i < 64; ++i) {
                    auto it = memory_.find({code, head + i});
                    const uint16_t v = it == memory_.end() ? 0 : it->second;
                    if (sub == 1) {
                        // Two points per byte, the first in the high nibble.
                        if (i % 2 == 0)
                            data.push_back(static_cast<uint8_t>((v & 1) << 4));
                        else
                            data.back() |= static_cast<uint8_t>(v & 1);
                    } else {
                        data.push_back(static_cast<uint8_t>(v));
                        data.push_back(static_cast<uint8_t>(v >> 8));
                    }
                }
            }
            if (faults.wrong_length) // one word more than asked for, and said so
                data.insert(data.end(), {0x00, 0x00});
            const uint16_t dlen = static_cast<uint16_t>(data.size() + 2);
            a.push_back(static_cast<uint8_t>(dlen));
            a.push_back(static_cast<uint8_t>(dlen >> 8));
            a.push_back(static_cast<uint8_t>(end_code));
            a.push_back(static_cast<uint8_t>(end_code >> 8));
            a.insert(a.end(), data.begin(), data.end());
            if (faults.garbage)
                for (auto &b : a)
                    b = static_cast<uint8_t>(b ^ 0x5A);
            if (faults.split) {
                send(fd, a.data(), 5, MSG_NOSIGNAL);
                std::this_thread::sleep_for(std::chrono::milliseconds(30));
                send(fd, a.data() + 5, a.size() - 5, MSG_NOSIGNAL);
                continue;
            }
            const size_t out = faults.half_frame ? a.size() / 2 : a.size();
            send(fd, a.data(), out, MSG_NOSIGNAL);
        }
    }
}

} // namespace sim
