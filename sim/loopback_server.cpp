#include "sim/loopback_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace sim {

LoopbackServer::~LoopbackServer()
{
    stop();
}

bool LoopbackServer::start(uint16_t port)
{
    if (running_)
        return true;
    listen_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int one = 1;
    setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(listen_fd_, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
        listen(listen_fd_, 4) != 0) {
        close(listen_fd_);
        listen_fd_ = -1;
        return false;
    }
    socklen_t len = sizeof a;
    getsockname(listen_fd_, reinterpret_cast<sockaddr *>(&a), &len);
    port_ = ntohs(a.sin_port);
    running_ = true;
    thread_ = std::thread([this] { run(); });
    return true;
}

void LoopbackServer::stop()
{
    if (!running_.exchange(false))
        return;
    thread_.join();
    close(listen_fd_);
    listen_fd_ = -1;
}

bool LoopbackServer::readable(int fd)
{
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, 20) > 0;
}

void LoopbackServer::run()
{
    while (running_) {
        if (!readable(listen_fd_))
            continue;
        const int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) {
            serve(fd);
            close(fd);
        }
    }
}

} // namespace sim
