// An Ethernet driver of the registry against a simulated PLC on loopback,
// with one device record (id 7) bound by maker and model.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "device/driver/driver_modules.h"
#include "device/plc/plc_ethernet.h"
#include "support/test_util.h"

namespace dstest {

template <typename Sim> class EthernetDriverTest : public ::testing::Test {
protected:
    using R = std::pair<int, std::string>;

    EthernetDriverTest(uint32_t mfg, uint32_t type) : mfg_(mfg), type_(type) {}
    void SetUp() override
    {
        ASSERT_TRUE(plc_.start());
        capture_output([] { init_driver(); });
        dev_ = ethernet_device_create(7, "plc", 1, mfg_, type_, "127.0.0.1", plc_.port(), 0, 0);
        capture_output([this] { dev_->driver = device_driver_match(dev_); });
        ASSERT_NE(dev_->driver, nullptr);
    }
    void TearDown() override
    {
        capture_output([this] {
            if (dev_ != nullptr && dev_->driver != nullptr)
                dev_->driver->release(dev_);
            ethernet_device_free(dev_);
            deinit_driver();
        });
    }
    int open(Captured *log = nullptr)
    {
        int r = -100;
        const Captured c = capture_output([&] { r = dev_->driver->open(dev_); });
        if (log != nullptr)
            *log = c;
        return r;
    }
    // One read on the connection as it is, of a copy of the address as the loop's.
    R read_open(std::string addr, uint32_t type, Captured *log = nullptr)
    {
        char v[NODE_VALUE_SIZE] = {};
        int r = -100;
        const Captured c = capture_output([&] { r = dev_->driver->read(dev_, addr.data(), type, v); });
        if (log != nullptr)
            *log = c;
        return {r, v};
    }
    // One open/read/release bracket, as the reading loop makes them.
    R read(const char *addr, uint32_t type, Captured *log = nullptr)
    {
        if (open() != 0)
            return {-100, "open failed"};
        const R r = read_open(addr, type, log);
        capture_output([&] { dev_->driver->release(dev_); });
        return r;
    }

    Sim plc_;
    ethernet_device *dev_ = nullptr;

private:
    uint32_t mfg_, type_;
};

} // namespace dstest
