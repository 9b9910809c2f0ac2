#include "sim/modbus_tcp_sim.h"

namespace sim {

ModbusTcpSim::ModbusTcpSim()
{
    map_ = modbus_mapping_new(65536, 65536, 65536, 0);
}

ModbusTcpSim::~ModbusTcpSim()
{
    stop(); // before the mapping goes
    modbus_mapping_free(map_);
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
    modbus_t *ctx = modbus_new_tcp("127.0.0.1", port());
    modbus_set_socket(ctx, fd);
    uint8_t query[MODBUS_TCP_MAX_ADU_LENGTH];
    while (running()) {
        if (!readable(fd))
            continue;
        const int rc = modbus_receive(ctx, query);
        if (rc == -1)
            break; // the client went away
        if (rc > 0 && faults.close_conn)
            break;
        if (rc > 0 && !faults.silent) {
            std::lock_guard<std::mutex> lock(mutex_);
            modbus_reply(ctx, query, rc, map_);
        }
    }
    modbus_free(ctx);
}

} // namespace sim
