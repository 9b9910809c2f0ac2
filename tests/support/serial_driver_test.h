// A serial driver of the registry against simulated PLCs on a pseudo-terminal
// linked at one of the two gateway ports (the other port's path does not
// exist), with one device record bound by maker and model.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <initializer_list>
#include <string>

#include "base/runtime.h"
#include "device/driver/driver_modules.h"
#include "device/plc/plc_serial.h"
#include "sim/serial_line.h"
#include "support/test_util.h"

namespace dstest {

template <typename Sim> class SerialDriverTest : public ::testing::Test {
protected:
    // `port` (1 or 2) is where the line answers; `sim_args` build the PLC.
    template <typename... SimArgs>
    explicit SerialDriverTest(int port, SimArgs... sim_args)
        : plc_(sim_args...), line_(dir_.file(port == 1 ? "tty1" : "tty2"))
    {
        service_paths p;
        p.pid_file = dir_.file("pid");
        p.serial_port_1 = dir_.file(port == 1 ? "tty1" : "absent");
        p.serial_port_2 = dir_.file(port == 2 ? "tty2" : "absent");
        set_runtime_paths(p);
        capture_output([] { init_driver(); });
    }
    ~SerialDriverTest() override
    {
        line_.stop();
        capture_output([this] {
            if (dev_ != nullptr && dev_->driver != nullptr)
                dev_->driver->release(dev_);
            serial_device_free(dev_);
            deinit_driver();
        });
    }
    // Takes `dev` as the device under test and binds it to its driver.
    void bind(serial_device *dev)
    {
        serial_device_free(dev_);
        dev_ = dev;
        capture_output([this] { dev_->driver = device_driver_match(dev_); });
        ASSERT_NE(dev_->driver, nullptr);
    }
    driver &drv() { return *dev_->driver; }
    // Starts the line answering through `plcs` (the fixture's PLC when none).
    void start_line(std::initializer_list<sim::SerialProtocolSim *> plcs = {})
    {
        if (plcs.size() == 0)
            line_.add_protocol(&plc_);
        for (auto *p : plcs)
            line_.add_protocol(p);
        line_.start();
    }
    // Starts the line and opens the driver on it, as it stays between reads.
    void open_line(std::initializer_list<sim::SerialProtocolSim *> plcs = {})
    {
        start_line(plcs);
        ASSERT_EQ(drv().open(dev_), 0);
    }

    struct Read {
        int rc;
        std::string value;
        std::string out;
        std::string addr; // the address buffer as the driver left it
    };
    // open, read, release as the reading loop does (`open_and_release`), or
    // one read on the port as it is; the address in a buffer of its own as
    // the loop's node copy has; rc -100 when open fails.
    Read read(const char *addr, uint32_t type, bool open_and_release = true)
    {
        char v[NODE_VALUE_SIZE] = "untouched";
        std::string a = addr;
        int r = -100;
        auto c = capture_output([&] {
            if (!open_and_release || drv().open(dev_) == 0) {
                r = drv().read(dev_, a.data(), type, v);
                if (open_and_release)
                    drv().release(dev_);
            }
        });
        return {r, r == -100 ? "" : v, c.out, a};
    }

    struct Fault {
        std::atomic<bool> &flag;
        const char *says; // part of what the failed read says; "" when that varies
    };
    // Each fault fails a read of `addr`, which leaves `failed` as the value
    // and says the fault's line (in its stdout, or in what `said` picks);
    // with the fault cleared the next read gives `good` again.
    void expect_each_fault_recovers(const char *addr, uint32_t type, const char *good,
                                    const char *failed, std::initializer_list<Fault> faults,
                                    bool open_and_release = true,
                                    const std::function<std::string(const Read &)> &said = nullptr)
    {
        for (const Fault &f : faults) {
            f.flag = true;
            const Read bad = read(addr, type, open_and_release);
            f.flag = false;
            const std::string text = said ? said(bad) : bad.out;
            EXPECT_EQ(bad.rc, -1) << f.says << text;
            EXPECT_EQ(bad.value, failed) << f.says;
            EXPECT_NE(text.find(f.says), std::string::npos) << f.says << " not in " << text;
            const Read next = read(addr, type, open_and_release);
            EXPECT_EQ(next.rc, 0) << "after " << f.says << next.out;
            EXPECT_EQ(next.value, good) << "after " << f.says;
        }
    }

    TempDir dir_;
    Sim plc_;
    sim::SerialLine line_;
    serial_device *dev_ = nullptr;
};

} // namespace dstest
