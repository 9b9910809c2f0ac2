// A serial PLC driver under test: its port 1 is a temporary path where a
// simulated line can be linked, and one device record bound to it.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "device/registry/driver.h"
#include "device/plc/plc_serial.h"
#include "base/runtime.h"
#include "sim/serial_line.h"
#include "support/test_util.h"

namespace dstest {

class SerialDriverFixture : public ::testing::Test {
protected:
    SerialDriverFixture(driver &under_test, serial_device *dev) : drv(under_test), dev_(dev)
    {
        dev_->driver = &drv;
    }

    void SetUp() override
    {
        service_paths paths;
        paths.pid_file = dir_.file("pid");
        paths.serial_port_1 = dir_.file("ttymxc1");
        paths.serial_port_2 = dir_.file("ttymxc2");
        set_runtime_paths(paths);
        if (drv.priv == nullptr)
            drv.probe();
    }

    void TearDown() override
    {
        drv.release(dev_.get());
        if (line_)
            line_->stop();
    }

    // Links a line answering through `proto` at port 1 and opens the driver on it.
    void start_line(sim::SerialProtocolSim &proto)
    {
        line_ = std::make_unique<sim::SerialLine>(dir_.file("ttymxc1"));
        line_->add_protocol(&proto);
        line_->start();
        ASSERT_EQ(drv.open(dev_.get()), 0);
    }

    struct serial_free {
        void operator()(serial_device *d) const { serial_device_free(d); }
    };

    driver &drv;
    TempDir dir_;
    std::unique_ptr<serial_device, serial_free> dev_;
    std::unique_ptr<sim::SerialLine> line_;
};

} // namespace dstest
