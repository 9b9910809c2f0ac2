#include "base/runtime.h"

std::mutex node_table_slist_mutex;
std::atomic<int> List_Change_Flag{0};
std::atomic<uint32_t> scan_interval{1};
std::atomic<int> device_Flag_systemService_launch{0};
std::atomic<GatewayDeviceService *> skeleton{nullptr};

namespace {
service_paths paths;
}

const service_paths &runtime_paths()
{
    return paths;
}

void set_runtime_paths(const service_paths &p)
{
    paths = p;
}

const char *serial_port_path(uint32_t serial_number)
{
    switch (serial_number) {
    case 1: return paths.serial_port_1.c_str();
    case 2: return paths.serial_port_2.c_str();
    default: return nullptr;
    }
}
