// Stand-in for the gateway's system service, for trying the daemon without
// a gateway: owns com.fernwick.SystemService on the session bus, answers
// getScanInterval (and every other method) and runs until interrupted.
//   device-service-standin [--interval SECONDS]
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "sim/standin_system_service.h"

namespace {
volatile sig_atomic_t stop_requested = 0;
void on_stop(int)
{
    stop_requested = 1;
}
} // namespace

int main(int argc, char **argv)
{
    unsigned interval = 1;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--interval") == 0 && i + 1 < argc)
            interval = static_cast<unsigned>(strtoul(argv[++i], nullptr, 10));
    }
    const char *address = getenv("DBUS_SESSION_BUS_ADDRESS");
    if (address == nullptr || *address == '\0') {
        fprintf(stderr, "device-service-standin: DBUS_SESSION_BUS_ADDRESS is not set\n");
        return 1;
    }
    signal(SIGINT, on_stop);
    signal(SIGTERM, on_stop);
    sim::StandInSystemService service(address);
    service.set_scan_interval(interval);
    try {
        service.start();
    } catch (const std::exception &e) {
        fprintf(stderr, "device-service-standin: %s\n", e.what());
        return 1;
    }
    printf("system service stand-in on the bus, scan interval %u s\n", interval);
    fflush(stdout);
    while (stop_requested == 0)
        pause();
    service.stop();
    return 0;
}
