// Placeholder until the driver lands: registers, but open and read fail.
#include "device/driver/driver_lifecycle.h"
#include "device/driver/driver_modules.h"

namespace {
struct placeholder_priv {
    int fd;
};
} // namespace

DRIVER_LIFECYCLE(mitusbishi_Qserial, placeholder_priv, DRIVER_WHERE "mitusbishi_Qserial_drv.drv.priv != NULL\n",
                 DRIVER_WHERE "mitusbishi_Qserial_drv.drv.priv = NULL\n")

driver mitusbishi_Qserial_drv = {"mitusbishi_Qserial", 0, 1, 105, nullptr, mitusbishi_Qserial_probe, mitusbishi_Qserial_remove,
    driver_stub_read, driver_stub_write, driver_stub_open, driver_stub_release, driver_stub_dev,
    driver_stub_dev};

