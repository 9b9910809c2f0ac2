// A simulated FX5U: a Modbus TCP server built on libmodbus's own server
// side, on loopback, with settable coils, discrete inputs and registers.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>

#include <modbus.h>

namespace sim {

class ModbusTcpSim {
public:
    ModbusTcpSim();
    ~ModbusTcpSim();
    ModbusTcpSim(const ModbusTcpSim &) = delete;
    ModbusTcpSim &operator=(const ModbusTcpSim &) = delete;

    // Listens on 127.0.0.1:port (0: a free port); false when it cannot.
    bool start(uint16_t port = 0);
    void stop();
    uint16_t port() const { return port_; }

    void set_coil(int address, bool on);
    void set_input(int address, bool on);
    void set_register(int address, uint16_t value);

private:
    void run();
    void serve(int fd);

    modbus_mapping_t *map_ = nullptr;
    std::mutex mutex_;
    std::thread thread_;
    std::atomic<bool> running_{false};
    int listen_fd_ = -1;
    uint16_t port_ = 0;
};

} // namespace sim
