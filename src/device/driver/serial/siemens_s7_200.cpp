// Placeholder until the driver lands: registers, but open and read fail.
#include "device/driver/driver_lifecycle.h"
#include "device/driver/driver_modules.h"

namespace {
struct placeholder_priv {
    int fd;
};
} // namespace

DRIVER_LIFECYCLE(siemens_s7_200, placeholder_priv, "siemens_s7_200_drv.drv.priv != NULL\n",
                 "siemens_s7_200_drv.drv.priv = NULL\n")

driver siemens_s7_200_drv = {"siemens_s7_200", 0, 2, 1, nullptr, siemens_s7_200_probe, siemens_s7_200_remove,
    driver_stub_read, driver_stub_write, driver_stub_open, driver_stub_release, driver_stub_dev,
    driver_stub_dev};

