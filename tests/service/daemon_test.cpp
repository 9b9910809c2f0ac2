// The daemon as a process on a private bus: its contract, the single-instance
// guard and signal handling.
#include <gtest/gtest.h>

#include <csignal>
#include <unistd.h>

#include <map>
#include <tuple>

#include "support/daemon_fixture.h"

using namespace dstest;

namespace {

// "name(in:sig,...;out:sig)" per method, sorted by name.
std::vector<std::string> describe(GDBusInterfaceInfo *iface)
{
    std::vector<std::string> out;
    for (GDBusMethodInfo **m = iface->methods; m != nullptr && *m != nullptr; ++m) {
        std::string d = std::string((*m)->name) + "(";
        for (GDBusArgInfo **a = (*m)->in_args; a != nullptr && *a != nullptr; ++a)
            d += std::string((*a)->name) + ":" + (*a)->signature + ",";
        d += ";";
        for (GDBusArgInfo **a = (*m)->out_args; a != nullptr && *a != nullptr; ++a)
            d += std::string((*a)->name) + ":" + (*a)->signature + ",";
        out.push_back(d + ")");
    }
    std::sort(out.begin(), out.end());
    return out;
}

} // namespace

class Daemon : public DaemonTest {};

TEST_F(Daemon, ExportsExactlyTheDeviceServiceContract)
{
    start_daemon();
    const std::string xml = introspect_device(conn());
    GDBusNodeInfo *live = g_dbus_node_info_new_for_xml(xml.c_str(), nullptr);
    ASSERT_NE(live, nullptr) << xml;
    GDBusInterfaceInfo *iface =
        g_dbus_node_info_lookup_interface(live, "com.fernwick.DeviceService");
    ASSERT_NE(iface, nullptr);

    const std::string idl = read_file(DS_SOURCE_DIR "/src/idl/common/device_idl.xml");
    GDBusNodeInfo *want = g_dbus_node_info_new_for_xml(idl.c_str(), nullptr);
    GDBusInterfaceInfo *want_iface =
        g_dbus_node_info_lookup_interface(want, "com.fernwick.DeviceService");
    EXPECT_EQ(describe(iface), describe(want_iface));
    EXPECT_EQ(describe(iface).size(), 15u);

    std::vector<std::string> signals;
    for (GDBusSignalInfo **s = iface->signals; s != nullptr && *s != nullptr; ++s) {
        std::string d = (*s)->name;
        for (GDBusArgInfo **a = (*s)->args; a != nullptr && *a != nullptr; ++a)
            d += std::string(" ") + (*a)->signature;
        signals.push_back(d);
    }
    std::sort(signals.begin(), signals.end());
    EXPECT_EQ(signals, (std::vector<std::string>{"Beeeeeeeeep", "nodes a(usuuv)"}));
    EXPECT_TRUE(iface->properties == nullptr || iface->properties[0] == nullptr);

    // A few hand-checked signatures, so a wrong description file is caught too.
    const auto methods = describe(iface);
    auto has = [&](const std::string &d) {
        return std::find(methods.begin(), methods.end(), d) != methods.end();
    };
    EXPECT_TRUE(has("nodeTableDelMulti(node_id_multi:a(u),;response:i,)"));
    EXPECT_TRUE(has("SerialDeviceSyncMulti(dev_serial_multi:a(uuuusuuuuuuu),;response:i,)"));
    EXPECT_TRUE(has("EthernetDeviceSyncMulti(dev_ethernet_multi:a(uuuussuuu),;response:i,)"));
    EXPECT_TRUE(has("nodeTableAddMulti(node_multi:a(suussusubbuuiuuiss),;response:i,)"));
    EXPECT_TRUE(has("systemCfgReset(;response:i,)"));
    g_dbus_node_info_unref(live);
    g_dbus_node_info_unref(want);
}

TEST_F(Daemon, RunningDaemonPidFileStartupCallsAndSignals)
{
    start_daemon();
    EXPECT_EQ(read_file(options_.pid_file), std::to_string(daemon_->pid()) + std::string(1, '\0'));
    // Started over by itself at start-up, it still goes by its file's name
    // (cut to the kernel's 15 characters) in ps and the journal.
    const std::string file = options_.binary.substr(options_.binary.rfind('/') + 1);
    EXPECT_EQ(read_file("/proc/" + std::to_string(daemon_->pid()) + "/comm"), file.substr(0, 15) + "\n");
    EXPECT_NE(daemon_->out().find("M start service, ppid/pid:["), std::string::npos);
    ASSERT_TRUE(daemon_->wait_output("<init_driver_modules>: succeed to init driver modules\n"));
    EXPECT_LT(daemon_->out().find("<mitsubishi_fx1n_init> called\n"),
              daemon_->out().find("<delta_dvp32ec_init> called\n"));
    EXPECT_NE(daemon_->out().find("Name com.fernwick.ZorvService does not exist on the session bus\n"),
              std::string::npos);

    // Methods of the contract it does not serve, and arguments of the wrong shape.
    EXPECT_EQ(call("nodeTableDelOne", g_variant_new("(u)", 5u)).message,
              "Method nodeTableDelOne is not implemented on interface com.fernwick.DeviceService");
    const std::tuple<const char *, GVariant *, std::string> refused[] = {
        {"systemCfgReset", nullptr, "UnknownMethod"},
        {"nodeTableAddOne", node_tuple({1, 1, "D1"}), "UnknownMethod"},
        {"SerialDeviceDel", g_variant_new("(s)", "wrong"), "InvalidArgs"},
        {"nodeTableDelMulti", g_variant_new("(u)", 3u), "InvalidArgs"}};
    for (const auto &[method, params, error] : refused)
        EXPECT_EQ(call(method, params).error, "org.freedesktop.DBus.Error." + error) << method;

    // SIGTERM only logs.
    daemon_->signal(SIGTERM);
    EXPECT_TRUE(daemon_->wait_output(" M receive SIGTERM signal\n", 5s));
    daemon_->signal(SIGTERM);
    EXPECT_TRUE(daemon_->wait_output(" M receive SIGTERM signal\n", 5s, 2));
    EXPECT_TRUE(daemon_->running());
    EXPECT_FALSE(introspect_device(conn()).empty());

    // The user unit stops it with its KillSignal, which must not be SIGTERM.
    const std::string unit = read_file(DS_SOURCE_DIR "/packaging/device-service.service");
    EXPECT_NE(unit.find("\nBusName=com.fernwick.DeviceService\n"), std::string::npos);
    const std::map<std::string, int> signals = {{"SIGINT", SIGINT}, {"SIGKILL", SIGKILL}, {"SIGQUIT", SIGQUIT}};
    const size_t at = unit.find("\nKillSignal=");
    ASSERT_NE(at, std::string::npos);
    const std::string name = unit.substr(at + 12, unit.find('\n', at + 1) - at - 12);
    ASSERT_EQ(signals.count(name), 1u) << "KillSignal=" << name;
    daemon_->signal(signals.at(name));
    EXPECT_NE(daemon_->wait_exit(), -1) << name << " ends it";
}

TEST_F(Daemon, SecondInstanceExits255WithoutTouchingBusOrDatabase)
{
    start_daemon();
    TempDir other;
    DaemonOptions o = options_;
    o.workdir = other.path();
    o.pid_file = options_.pid_file; // the same lock
    o.log_name = "second";
    DaemonProcess second(o);
    EXPECT_EQ(second.wait_exit(10s), 255);
    const std::string err = second.err();
    EXPECT_NE(err.find(" C can't lock " + options_.pid_file + ": "), std::string::npos) << err;
    EXPECT_NE(err.find(" C the service process is started\n"), std::string::npos) << err;
    EXPECT_EQ(second.out().find("init_driver_modules"), std::string::npos);
    EXPECT_FALSE(g_file_test(other.file("my.db").c_str(), G_FILE_TEST_EXISTS));
    EXPECT_FALSE(g_file_test(other.file("plc_service.db").c_str(), G_FILE_TEST_EXISTS));
    // The first instance still holds its file and its name.
    EXPECT_EQ(read_file(options_.pid_file), std::to_string(daemon_->pid()) + std::string(1, '\0'));
    EXPECT_TRUE(bus_.name_has_owner("com.fernwick.DeviceService"));
}

TEST_F(Daemon, UnopenablePidFileOrLostBusExits255)
{
    options_.pid_file = dir_.file("no/such/dir/device-service.pid");
    options_.log_name = "nopid";
    DaemonProcess d(options_);
    EXPECT_EQ(d.wait_exit(10s), 255);
    EXPECT_NE(d.err().find("can't open " + options_.pid_file + ": "), std::string::npos);
    EXPECT_NE(d.err().find("the service process is started\n"), std::string::npos);

    options_.pid_file = dir_.file("device-service.pid");
    options_.bus_address = "unix:path=" + dir_.file("no-bus-here");
    options_.log_name = "nobus";
    DaemonProcess lost(options_);
    EXPECT_EQ(lost.wait_exit(15s), 255);
    EXPECT_NE(lost.out().find("Lost the name com.fernwick.DeviceService on the session bus,exit -1\n"),
              std::string::npos);
}
