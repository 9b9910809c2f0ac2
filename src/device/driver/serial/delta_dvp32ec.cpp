// Placeholder until the driver lands: registers, but open and read fail.
#include "device/driver/driver_lifecycle.h"
#include "device/driver/driver_modules.h"

namespace {
struct placeholder_priv {
    int fd;
};
} // namespace

DRIVER_LIFECYCLE(delta_dvp32ec, placeholder_priv, "delta_dvp32ec_drv.drv.priv != NULL\n",
                 "delta_dvp32ec_drv.drv.priv = NULL\n")

driver delta_dvp32ec_drv = {"delta_dvp32ec", 0, 3, 201, nullptr, delta_dvp32ec_probe, delta_dvp32ec_remove,
    driver_stub_read, driver_stub_write, driver_stub_open, driver_stub_release, driver_stub_dev,
    driver_stub_dev};

