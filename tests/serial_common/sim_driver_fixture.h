// A serial driver of the registry against a simulated PLC linked at one of
// the two gateway ports (the other port's path does not exist), with one
// device record bound by maker and model and read as the reading loop does.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "device/driver/driver_modules.h"
#include "device/plc/plc_serial.h"
#include "base/runtime.h"
#include "sim/serial_line.h"
#include "support/test_util.h"

namespace dstest {

template <typename Sim> class SimDriverTest : public ::testing::Test {
protected:
    // `port` (1 or 2) is where the simulated line answers; `sim_args` build the PLC.
    template <typename... SimArgs>
    explicit SimDriverTest(int port, SimArgs... sim_args)
        : plc_(sim_args...), line_(dir_.file(port == 1 ? "tty1" : "tty2"))
    {
        service_paths p;
        p.serial_port_1 = dir_.file(port == 1 ? "tty1" : "absent");
        p.serial_port_2 = dir_.file(port == 2 ? "tty2" : "absent");
        set_runtime_paths(p);
        capture_output([] { init_driver(); });
        line_.add_protocol(&plc_);
        line_.start();
    }
    ~SimDriverTest() override
    {
        line_.stop();
        serial_device_free(dev_);
        capture_output([] { deinit_driver(); });
    }
    // Takes `dev` as the device under test and binds it to its driver.
    void bind(serial_device *dev)
    {
        serial_device_free(dev_);
        dev_ = dev;
        capture_output([this] { dev_->driver = device_driver_match(dev_); });
        ASSERT_NE(dev_->driver, nullptr);
    }
    struct Read {
        int rc;
        std::string value;
        std::string out;
        std::string addr; // the address buffer as the driver left it
    };
    // open, read, release as the reading loop does, the address in a
    // buffer of its own as the loop's node copy has; rc -100 when open fails.
    Read read(const char *addr, uint32_t type)
    {
        char v[NODE_VALUE_SIZE] = {};
        std::string a = addr;
        int r = -100;
        auto c = capture_output([&] {
            if (dev_->driver->open(dev_) == 0) {
                r = dev_->driver->read(dev_, a.data(), type, v);
                dev_->driver->release(dev_);
            }
        });
        return {r, v, c.out, a};
    }

    TempDir dir_;
    Sim plc_;
    sim::SerialLine line_;
    serial_device *dev_ = nullptr;
};

} // namespace dstest
