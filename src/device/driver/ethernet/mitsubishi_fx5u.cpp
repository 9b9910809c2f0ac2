// Placeholder until the driver lands: registers, but open and read fail.
#include "device/driver/driver_lifecycle.h"
#include "device/driver/driver_modules.h"

namespace {
struct placeholder_priv {
    int fd;
};
} // namespace

DRIVER_LIFECYCLE(mitsubishi_fx5u, placeholder_priv, "mitsubishi_fx5u_drv.drv.priv != NULL\n",
                 "mitsubishi_fx5u_drv.drv.priv = NULL\n")

driver mitsubishi_fx5u_drv = {"mitsubishi_fx5u", 1, 1, 103, nullptr, mitsubishi_fx5u_probe, mitsubishi_fx5u_remove,
    driver_stub_read, driver_stub_write, driver_stub_open, driver_stub_release, driver_stub_dev,
    driver_stub_dev};

