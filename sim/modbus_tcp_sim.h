// A simulated FX5U: a Modbus TCP server built on libmodbus's own server
// side, on loopback, with settable coils, discrete inputs and registers.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include <modbus.h>

#include "sim/loopback_server.h"

namespace sim {

class ModbusTcpSim : public LoopbackServer {
public:
    ModbusTcpSim();
    ~ModbusTcpSim() override;
    ModbusTcpSim(const ModbusTcpSim &) = delete;
    ModbusTcpSim &operator=(const ModbusTcpSim &) = delete;

    void set_coil(int address, bool on);
    void set_input(int address, bool on);
    void set_register(int address, uint16_t value);

    struct Faults {
        std::atomic<bool> silent{false};     // take requests, answer nothing
        std::atomic<bool> close_conn{false}; // close the connection instead of answering
    };
    Faults faults;

private:
    void serve(int fd) override;

    modbus_mapping_t *map_ = nullptr;
    std::mutex mutex_;
};

} // namespace sim
