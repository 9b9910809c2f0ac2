#include "support/daemon_fixture.h"

#include "support/sqlite_rows.h"

namespace dstest {

DaemonTest::DaemonTest() : system_(bus_.address())
{
    options_.workdir = dir_.path();
    options_.bus_address = bus_.address();
    options_.pid_file = dir_.file("device-service.pid");
    options_.tty1 = dir_.file("ttymxc1");
    options_.tty2 = dir_.file("ttymxc2");
}

DaemonTest::~DaemonTest()
{
    stop_daemon();
    system_.stop();
}

DaemonProcess &DaemonTest::start_daemon(bool test_driver)
{
    options_.test_driver = test_driver;
    options_.log_name = "daemon" + std::to_string(starts_++);
    daemon_ = std::make_unique<DaemonProcess>(options_);
    EXPECT_TRUE(bus_.wait_for_name("com.fernwick.DeviceService", 15s))
        << "daemon did not take its name; output:\n"
        << daemon_->out() << daemon_->err();
    // The object is exported right after the name is acquired.
    EXPECT_TRUE(wait_until(
        [&] { return introspect_device(conn()).find("com.fernwick.DeviceService") != std::string::npos; },
        10s));
    return *daemon_;
}

DaemonProcess &DaemonTest::restart_daemon()
{
    const bool test_driver = options_.test_driver;
    stop_daemon();
    return start_daemon(test_driver);
}

void DaemonTest::stop_daemon()
{
    if (daemon_) {
        daemon_->kill_now();
        bus_.wait_for_name_gone("com.fernwick.DeviceService", 5s);
        daemon_.reset();
    }
}

StandInSystemService &DaemonTest::start_system_service(uint32_t scan_interval)
{
    system_.set_scan_interval(scan_interval);
    system_.start();
    return system_;
}

void DaemonTest::add_device(GVariant *device_args, const std::vector<NodeSpec> &nodes)
{
    const bool serial = g_variant_n_children(device_args) == 12;
    ASSERT_EQ(code(serial ? "SerialDeviceAdd" : "EthernetDeviceAdd", device_args), 0);
    ASSERT_EQ(code("nodeTableAddMulti", node_array(nodes)), 0);
}

int DaemonTest::code(const char *method, GVariant *params)
{
    const CallResult r = call(method, params);
    EXPECT_TRUE(r.ok) << method << ": " << r.error << " " << r.message;
    return r.response;
}

std::vector<std::string> DaemonTest::rows(const std::string &query) const
{
    return sqlite_rows(db_path(), query);
}

} // namespace dstest
