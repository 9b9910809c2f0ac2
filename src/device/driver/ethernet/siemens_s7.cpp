// Placeholder until the driver lands: registers, but open and read fail.
#include "device/driver/driver_lifecycle.h"
#include "device/driver/driver_modules.h"

namespace {
struct placeholder_priv {
    int fd;
};
} // namespace

DRIVER_LIFECYCLE(siemens_s7_200smart, placeholder_priv, "siemens_s7_200smart_drv.drv.priv != NULL\n",
                 "siemens_s7_200smart_drv.drv.priv = NULL\n")

driver siemens_s7_200smart_drv = {"siemens_s7_200smart", 1, 2, 2, nullptr, siemens_s7_200smart_probe, siemens_s7_200smart_remove,
    driver_stub_read, driver_stub_write, driver_stub_open, driver_stub_release, driver_stub_dev,
    driver_stub_dev};

DRIVER_LIFECYCLE(siemens_s7_1200, placeholder_priv, "siemens_s7_1200_drv.drv.priv != NULL\n",
                 "siemens_s7_1200_drv.drv.priv = NULL\n")

driver siemens_s7_1200_drv = {"siemens_s7_1200", 1, 2, 3, nullptr, siemens_s7_1200_probe, siemens_s7_1200_remove,
    driver_stub_read, driver_stub_write, driver_stub_open, driver_stub_release, driver_stub_dev,
    driver_stub_dev};

DRIVER_LIFECYCLE(siemens_s7_1500, placeholder_priv, "siemens_s7_1500_drv.drv.priv != NULL\n",
                 "siemens_s7_1500_drv.drv.priv = NULL\n")

driver siemens_s7_1500_drv = {"siemens_s7_1500", 1, 2, 4, nullptr, siemens_s7_1500_probe, siemens_s7_1500_remove,
    driver_stub_read, driver_stub_write, driver_stub_open, driver_stub_release, driver_stub_dev,
    driver_stub_dev};

DRIVER_LIFECYCLE(siemens_s7_300, placeholder_priv, "s7_300_drvdata.drv.priv != NULL\n",
                 "siemens_s7_300_drv.drv.priv = NULL\n")

driver siemens_s7_300_drv = {"siemens_s7_300", 1, 2, 5, nullptr, siemens_s7_300_probe, siemens_s7_300_remove,
    driver_stub_read, driver_stub_write, driver_stub_open, driver_stub_release, driver_stub_dev,
    driver_stub_dev};

DRIVER_LIFECYCLE(siemens_s7_400, placeholder_priv, "siemens_s7_400_drv.drv.priv != NULL\n",
                 "siemens_s7_400_drv.drv.priv = NULL\n")

driver siemens_s7_400_drv = {"siemens_s7_400", 1, 2, 6, nullptr, siemens_s7_400_probe, siemens_s7_400_remove,
    driver_stub_read, driver_stub_write, driver_stub_open, driver_stub_release, driver_stub_dev,
    driver_stub_dev};

