// A TCP server on 127.0.0.1 for the simulated Ethernet PLCs: binds (port 0
// for a free one), accepts one client at a time on a thread of its own and
// hands each connection to serve().
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

namespace sim {

class LoopbackServer {
public:
    virtual ~LoopbackServer();
    bool start(uint16_t port = 0);
    void stop();
    uint16_t port() const { return port_; }

protected:
    LoopbackServer() = default;
    // Serves one connection until the client leaves or running() turns
    // false; closes nothing (the caller closes fd).
    virtual void serve(int fd) = 0;
    bool running() const { return running_.load(); }
    // Waits up to 20 ms for input on fd; true when there is some.
    static bool readable(int fd);

private:
    void run();

    std::thread thread_;
    std::atomic<bool> running_{false};
    int listen_fd_ = -1;
    uint16_t port_ = 0;
};

} // namespace sim
