// The reading loop and the system service around it, on a running daemon.
#include <gtest/gtest.h>

#include "support/daemon_fixture.h"

using namespace dstest;

class Loop : public DaemonTest {};

TEST_F(Loop, WaitsForTheSystemServiceThenEmitsEmptyCycles)
{
    NodesRecorder rec(conn());
    start_daemon();
    ASSERT_TRUE(daemon_->wait_output("waiting systemService ... \n", 5s, 2));
    EXPECT_EQ(daemon_->out().find("read nodes table :"), std::string::npos);
    EXPECT_EQ(rec.count(), 0u);

    // Its interval cannot be had: cycles are a second apart.
    system_.set_fail_calls(true);
    start_system_service(5);
    ASSERT_TRUE(rec.wait_for_count(2, 10s));
    for (size_t i = 0; i < rec.count(); ++i)
        EXPECT_EQ(g_variant_n_children(rec.cycle(i)), 0u);
    const std::string out = daemon_->out();
    EXPECT_NE(out.find("Name com.fernwick.SystemService on the session bus\n"), std::string::npos);
    EXPECT_NE(out.find("scan_interval = 1\n"), std::string::npos);
    EXPECT_NE(out.find(" M read nodes table :\n"), std::string::npos);
    // One cycle per interval: the second signal comes about a second after the first.
    EXPECT_GE(rec.times()[1] - rec.times()[0], 0.9);
    EXPECT_LT(rec.times()[1] - rec.times()[0], 4.0);
}

TEST_F(Loop, NotificationsAndServicesComingAndGoing)
{
    start_system_service(1);
    NodesRecorder rec(conn());
    start_daemon();
    ASSERT_TRUE(rec.wait_for_count(1, 10s));
    system_.set_scan_interval(3);
    system_.emit_notify("interval", "3");
    ASSERT_TRUE(daemon_->wait_output("key = interval\n"));
    EXPECT_TRUE(wait_until([&] { return system_.calls("getScanInterval") == 2; }, 5s));
    // The sleep under way finishes first; from then on cycles are 3 s apart.
    const size_t seen = rec.count();
    ASSERT_TRUE(rec.wait_for_count(seen + 3, 20s));
    const auto t = rec.times();
    EXPECT_GE(t[seen + 2] - t[seen + 1], 2.9);
    EXPECT_NE(daemon_->out().find("========================\nkey = interval\nvalue = 3\n"
                                  "========================\n"),
              std::string::npos);

    system_.emit_notify("system", "reset");
    system_.emit_notify("system", "reboot");
    system_.emit_notify("weather", "sunny");
    ASSERT_TRUE(daemon_->wait_output("key = weather\nvalue = sunny\n========================\n"));
    const std::string out = daemon_->out();
    EXPECT_NE(out.find("key = system\nvalue = reset\n========================\nsystem reset\n"),
              std::string::npos);
    EXPECT_NE(out.find("value = reboot\n========================\nsystem reboot\n"),
              std::string::npos);
    EXPECT_EQ(out.find("gateway destroy"), std::string::npos);
    EXPECT_EQ(system_.calls("getScanInterval"), 2);

    // The system service vanishes and returns.
    system_.stop();
    ASSERT_TRUE(
        daemon_->wait_output("Name com.fernwick.SystemService does not exist on the session bus\n"));
    // Once cycling, the loop does not look at the system service again.
    ASSERT_TRUE(rec.wait_for_count(rec.count() + 2, 15s));
    system_.set_scan_interval(1);
    system_.start();
    ASSERT_TRUE(daemon_->wait_output("Name com.fernwick.SystemService on the session bus\n", 10s, 2));
    ASSERT_TRUE(daemon_->wait_output("scan_interval = 1\n", 5s, 2));
    // The new proxy carries notifications again.
    system_.emit_notify("system", "reboot");
    EXPECT_TRUE(daemon_->wait_output("system reboot\n", 10s, 2));
    ASSERT_TRUE(rec.wait_for_count(rec.count() + 1, 10s)) << "cycles go on";

    // The other service's proxy follows its presence too.
    ASSERT_TRUE(daemon_->wait_output(
        "Name com.fernwick.ZorvService does not exist on the session bus\n"));
    for (int round = 0; round < 2; ++round) {
        GDBusConnection *zorv = bus_.new_connection();
        GVariant *r = g_dbus_connection_call_sync(
            zorv, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "RequestName", g_variant_new("(su)", "com.fernwick.ZorvService", 4u),
            G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
        ASSERT_NE(r, nullptr);
        g_variant_unref(r);
        EXPECT_TRUE(daemon_->wait_output("Name com.fernwick.ZorvService on the session bus\n", 10s,
                                         round + 1));
        g_dbus_connection_close_sync(zorv, nullptr, nullptr);
        g_object_unref(zorv);
        EXPECT_TRUE(daemon_->wait_output(
            "Name com.fernwick.ZorvService does not exist on the session bus\n", 10s, round + 2));
    }
    EXPECT_TRUE(daemon_->running());
}

