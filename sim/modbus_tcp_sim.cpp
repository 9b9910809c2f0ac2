#include "sim/modbus_tcp_sim.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace sim {

ModbusTcpSim::ModbusTcpSim()
{
    map_ = modbus_mapping_new(65536, 65536, 65536, 0);
}

ModbusTcpSim::~ModbusTcpSim()
{
    stop();
    modbus_mapping_free(map_);
}

bool ModbusTcpSim::start(uint16_t port)
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

void ModbusTcpSim::stop()
{
    if (!running_.exchange(false))
        return;
    thread_.join();
    close(listen_fd_);
    listen_fd_ = -1;
}

void ModbusTcpSim::set_coil(int address, bool on)
{
    std::lock_guard<std::mutex> lock(mutex_);
    map_->tab_bits[address & 0xFFFF] = on ? 1 : 0;
}

void ModbusTcpSim::set_input(int address, bool on)
{
    std::lock_guard<std::mutex> lock(mutex_);
    map_->tab_input_bits[address & 0xFFFF] = on ? 1 : 0;
}

void ModbusTcpSim::set_register(int address, uint16_t value)
{
    std::lock_guard<std::mutex> lock(mutex_);
    map_->tab_registers[address & 0xFFFF] = value;
}

void ModbusTcpSim::serve(int fd)
{
    modbus_t *ctx = modbus_new_tcp("127.0.0.1", port_);
    modbus_set_socket(ctx, fd);
    uint8_t query[MODBUS_TCP_MAX_ADU_LENGTH];
    while (running_) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 20) <= 0)
            continue;
        const int rc = modbus_receive(ctx, query);
        if (rc == -1)
            break; // the client went away
        if (rc > 0) {
            std::lock_guard<std::mutex> lock(mutex_);
            modbus_reply(ctx, query, rc, map_);
        }
    }
    modbus_free(ctx);
    close(fd);
}

void ModbusTcpSim::run()
{
    while (running_) {
        pollfd p{listen_fd_, POLLIN, 0};
        if (poll(&p, 1, 20) <= 0)
            continue;
        const int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0)
            serve(fd);
    }
}

} // namespace sim
