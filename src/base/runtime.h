// Process-wide state shared by the bus handlers (main thread) and the
// reading thread, and the paths the service works with.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "idl/common/device_idl.h"

// Guards both the device list and the node table list.
extern std::mutex node_table_slist_mutex;
// 0: nothing changed since the reading cycle began; 1: a handler is changing
// the lists now; 2: a handler finished a change.
extern std::atomic<int> List_Change_Flag;
// Seconds between reading cycles.
extern std::atomic<uint32_t> scan_interval;
// 1 while the system service is on the bus.
extern std::atomic<int> device_Flag_systemService_launch;
// The exported device service object, or null before the name is owned.
extern std::atomic<GatewayDeviceService *> skeleton;

// The frame every configuration change runs in: lock, flag 1; on every way
// out flag 2, unlock. The reading thread abandons a cycle that sees either.
class config_change_frame {
public:
    config_change_frame() : lock_(node_table_slist_mutex) { List_Change_Flag.store(1); }
    ~config_change_frame() { List_Change_Flag.store(2); }
    config_change_frame(const config_change_frame &) = delete;
    config_change_frame &operator=(const config_change_frame &) = delete;

private:
    std::lock_guard<std::mutex> lock_; // destroyed after the flag is set to 2
};

// Where the service keeps its pid file and finds its two serial ports. The
// production daemon uses the gateway's fixed paths; tests point them at
// temporary files and pseudo-terminals.
struct service_paths {
    std::string pid_file = "/var/run/device-service.pid";
    std::string serial_port_1 = "/dev/ttymxc1";
    std::string serial_port_2 = "/dev/ttymxc2";
};

const service_paths &runtime_paths();
void set_runtime_paths(const service_paths &paths);
// "/dev/ttymxc1" for 1, "/dev/ttymxc2" for 2 (or their replacements); null otherwise.
const char *serial_port_path(uint32_t serial_number);
