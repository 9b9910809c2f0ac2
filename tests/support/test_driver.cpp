#include "support/test_driver.h"

#include <glib.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "device/registry/driver.h"

namespace {

std::atomic<unsigned> read_counter{0};

int test_read(plc_device * /*dev*/, char *addr, uint32_t /*data_type*/, char *value)
{
    if (g_str_has_prefix(addr, "val:")) {
        g_strlcpy(value, addr + 4, NODE_VALUE_SIZE);
        return 0;
    }
    if (g_str_has_prefix(addr, "sleep:")) {
        char *end = nullptr;
        const long ms = strtol(addr + 6, &end, 10);
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
        g_strlcpy(value, (end != nullptr && *end == ':') ? end + 1 : "", NODE_VALUE_SIZE);
        return 0;
    }
    if (strcmp(addr, "count") == 0) {
        g_snprintf(value, NODE_VALUE_SIZE, "%u", ++read_counter);
        return 0;
    }
    return -1;
}

int test_open(plc_device *dev)
{
    return g_str_has_prefix(dev->dev_name.c_str(), "openfail") ? -1 : 0;
}

int test_noop()
{
    return 0;
}

driver test_drv = {"test_driver", 1, TEST_DRIVER_MFG, TEST_DRIVER_TYPE, nullptr, test_noop,
                   test_noop, test_read, driver_stub_write, test_open, driver_stub_release,
                   driver_stub_dev, driver_stub_dev};

} // namespace

void register_test_driver()
{
    driver_register(&test_drv);
}
