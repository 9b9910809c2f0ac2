// Placeholder until the driver lands: registers, but open and read fail.
#include "device/driver/driver_lifecycle.h"
#include "device/driver/driver_modules.h"

namespace {
struct placeholder_priv {
    int fd;
};
} // namespace

DRIVER_LIFECYCLE(mitsubishi_QnA_3E, placeholder_priv, DRIVER_WHERE "mitsubishi_QnA_3E_drv.drv.priv != NULL\n",
                 DRIVER_WHERE "mitsubishi_QnA_3E_drv.drv.priv = NULL\n")

driver mitsubishi_QnA_3E_drv = {"mitsubishi_QnA_3E", 1, 1, 104, nullptr, mitsubishi_QnA_3E_probe, mitsubishi_QnA_3E_remove,
    driver_stub_read, driver_stub_write, driver_stub_open, driver_stub_release, driver_stub_dev,
    driver_stub_dev};

