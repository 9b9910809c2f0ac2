// Placeholder until the driver lands: registers, but open and read fail.
#include "device/driver/driver_lifecycle.h"
#include "device/driver/driver_modules.h"

namespace {
struct placeholder_priv {
    int fd;
};
} // namespace

DRIVER_LIFECYCLE(mitsubishi_fx1n, placeholder_priv, "mitsubishi_fx1n_drv.drv.priv != NULL\n",
                 "mitsubishi_fx1n_drv.drv.priv = NULL\n")

driver mitsubishi_fx1n_drv = {"mitsubishi_fx1n", 0, 1, 102, nullptr, mitsubishi_fx1n_probe, mitsubishi_fx1n_remove,
    driver_stub_read, driver_stub_write, driver_stub_open, driver_stub_release, driver_stub_dev,
    driver_stub_dev};

DRIVER_LIFECYCLE(mitsubishi_fx3u, placeholder_priv, "mitsubishi_fx3u_drv.drv.priv != NULL\n",
                 "mitsubishi_fx3u_drv.drv.priv = NULL\n")

driver mitsubishi_fx3u_drv = {"mitsubishi_fx3u", 0, 1, 101, nullptr, mitsubishi_fx3u_probe, mitsubishi_fx3u_remove,
    driver_stub_read, driver_stub_write, driver_stub_open, driver_stub_release, driver_stub_dev,
    driver_stub_dev};

