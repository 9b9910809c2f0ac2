#include "acquisition/acquisition.h"

#include <glib.h>
#include <unistd.h>

#include "service/runtime.h"

void *thread_start(void * /*arg*/)
{
    while (device_Flag_systemService_launch.load() != 1) {
        g_print("waiting systemService ... \n");
        sleep(1);
    }
    for (;;)
        sleep(scan_interval.load());
    return nullptr;
}
