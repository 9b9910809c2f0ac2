// Fixture for end-to-end tests: a scratch working directory, a private bus,
// the stand-in system service and the daemon under test.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "support/bus.h"
#include "support/config_calls.h"
#include "support/standin_system_service.h"
#include "support/test_util.h"

namespace dstest {

class DaemonTest : public ::testing::Test {
protected:
    DaemonTest();
    ~DaemonTest() override;

    // Starts the daemon and waits until it owns its bus name and exports its object.
    DaemonProcess &start_daemon(bool test_driver = false);
    // Kills the daemon (SIGKILL) and starts it again in the same directory.
    DaemonProcess &restart_daemon();
    void stop_daemon();
    // Starts the stand-in system service (the reading loop starts only then).
    StandInSystemService &start_system_service(uint32_t scan_interval = 1);

    GDBusConnection *conn() { return bus_.connection(); }
    CallResult call(const char *method, GVariant *params) { return call_device(conn(), method, params); }
    // The method's result code; the call itself must succeed.
    int code(const char *method, GVariant *params);
    // Rows of the daemon's my.db, as sqlite_rows gives them.
    std::vector<std::string> rows(const std::string &query) const;
    // Adds a device (SerialDeviceAdd or EthernetDeviceAdd by its arguments)
    // and its nodes; both must answer 0.
    void add_device(GVariant *device_args, const std::vector<NodeSpec> &nodes);
    std::string db_path() const { return dir_.file("my.db"); }

    TempDir dir_;
    PrivateBus bus_;
    StandInSystemService system_;
    std::unique_ptr<DaemonProcess> daemon_;
    DaemonOptions options_;
    int starts_ = 0;
};

} // namespace dstest
