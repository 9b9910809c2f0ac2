#include "sim/serial_line.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>

namespace sim {

SerialLine::SerialLine(std::string link_path) : link_(std::move(link_path))
{
    master_ = posix_openpt(O_RDWR | O_NOCTTY);
    if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0)
        throw std::runtime_error("cannot open a pseudo-terminal");
    char name[128];
    if (ptsname_r(master_, name, sizeof name) != 0)
        throw std::runtime_error("ptsname failed");
    slave_ = name;
    slave_keep_ = open(slave_.c_str(), O_RDWR | O_NOCTTY);
    if (slave_keep_ >= 0) {
        struct termios tio {};
        if (tcgetattr(slave_keep_, &tio) == 0) {
            cfmakeraw(&tio);
            tcsetattr(slave_keep_, TCSANOW, &tio);
        }
    }
    unlink(link_.c_str());
    if (symlink(slave_.c_str(), link_.c_str()) != 0)
        throw std::runtime_error("cannot link " + link_ + " to the pseudo-terminal");
    fcntl(master_, F_SETFL, fcntl(master_, F_GETFL) | O_NONBLOCK);
}

SerialLine::~SerialLine()
{
    stop();
    unlink(link_.c_str());
    if (slave_keep_ >= 0)
        close(slave_keep_);
    if (master_ >= 0)
        close(master_);
}

void SerialLine::add_protocol(SerialProtocolSim *proto)
{
    protocols_.push_back(proto);
}

void SerialLine::start()
{
    if (running_.exchange(true))
        return;
    thread_ = std::thread([this] { run(); });
}

void SerialLine::stop()
{
    if (!running_.exchange(false))
        return;
    thread_.join();
}

void SerialLine::write_answer(SerialProtocolSim &proto, const std::vector<uint8_t> &answer_in)
{
    std::vector<uint8_t> answer = answer_in;
    if (proto.faults.garbage) {
        for (auto &b : answer)
            b = static_cast<uint8_t>(rand());
        if (answer.empty())
            answer = {0x55, 0xAA, 0x00};
    }
    auto put = [this](const uint8_t *p, size_t n) {
        while (n > 0) {
            ssize_t w = write(master_, p, n);
            if (w < 0) {
                if (errno == EAGAIN || errno == EINTR) {
                    usleep(1000);
                    continue;
                }
                return;
            }
            p += w;
            n -= static_cast<size_t>(w);
        }
    };
    if (proto.faults.split && answer.size() > 1) {
        // Three pieces with pauses, as a slow converter would deliver them.
        const size_t a = answer.size() / 3 + 1;
        const size_t b = (answer.size() - a) / 2 + a;
        put(answer.data(), a);
        usleep(20000);
        put(answer.data() + a, b - a);
        usleep(20000);
        put(answer.data() + b, answer.size() - b);
        return;
    }
    put(answer.data(), answer.size());
}

void SerialLine::run()
{
    std::vector<uint8_t> buf;
    while (running_) {
        struct pollfd pfd {master_, POLLIN, 0};
        int r = poll(&pfd, 1, 20);
        if (r <= 0)
            continue;
        uint8_t chunk[512];
        ssize_t n = read(master_, chunk, sizeof chunk);
        if (n <= 0) {
            usleep(5000);
            continue;
        }
        buf.insert(buf.end(), chunk, chunk + n);
        for (;;) {
            // Offer the buffer to each protocol that accepts its first byte;
            // bytes no protocol takes are line noise and are dropped.
            bool progressed = false;
            bool waiting = false;
            while (!buf.empty() && !progressed && !waiting) {
                bool claimed = false;
                for (auto *p : protocols_) {
                    if (!p->accepts(buf[0]))
                        continue;
                    std::vector<uint8_t> answer;
                    const size_t used = p->feed(buf.data(), buf.size(), answer);
                    if (used == SerialProtocolSim::NOT_MINE)
                        continue;
                    claimed = true;
                    if (used == 0) {
                        waiting = true;
                        break;
                    }
                    buf.erase(buf.begin(),
                              buf.begin() + static_cast<long>(std::min(used, buf.size())));
                    ++requests_;
                    if (!p->faults.silent && !answer.empty())
                        write_answer(*p, answer);
                    progressed = true;
                    break;
                }
                if (!claimed)
                    buf.erase(buf.begin());
            }
            if (!progressed)
                break;
        }
        // A request that never completes must not wedge the line forever.
        if (buf.size() > 4096)
            buf.clear();
    }
}

} // namespace sim
