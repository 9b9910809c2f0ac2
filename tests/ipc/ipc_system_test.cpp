// The system service client against the stand-in service on a private bus.
#include <gtest/gtest.h>

#include <functional>
#include <iterator>

#include "ipc/ipc_system.h"
#include "base/log.h"
#include "support/bus.h"
#include "support/standin_system_service.h"

using namespace dstest;

class IpcSystem : public ::testing::Test {
protected:
    IpcSystem() : standin_(bus_.address())
    {
        setenv("DBUS_SESSION_BUS_ADDRESS", bus_.address().c_str(), 1);
        log_init();
        standin_.start();
        create_systemService_proxy();
    }
    ~IpcSystem() override
    {
        destroy_systemService_proxy();
        standin_.stop();
    }
    PrivateBus bus_;
    StandInSystemService standin_;
};

TEST_F(IpcSystem, ScanIntervalRoundTripLogLinesAndResponseCode)
{
    standin_.set_scan_interval(9);
    uint32_t interval = 0;
    int r = 0;
    auto c = capture_output([&] { r = ipc_system_get_scan_interval(&interval); });
    EXPECT_EQ(r, 0);
    EXPECT_EQ(interval, 9u);
    EXPECT_NE(c.out.find(" M ipc_system_get_scan_interval called\n"), std::string::npos) << c.out;
    EXPECT_NE(c.out.find("\nscanInterval = 9\n"), std::string::npos) << c.out;

    EXPECT_EQ(ipc_system_set_scan_interval(4), 0);
    EXPECT_EQ(standin_.last_params("setScanInterval"), "(4,)");

    // A failing response code is passed through and the outs are not logged.
    standin_.set_response(3);
    uint32_t hb = 0;
    c = capture_output([&] { r = ipc_system_get_plen_heartbeat(&hb); });
    EXPECT_EQ(r, 3);
    EXPECT_EQ(c.out.find("heartbeat = "), std::string::npos);
    EXPECT_EQ(ipc_system_delete_device(12), 3);
    EXPECT_EQ(standin_.last_params("deleteDevice"), "(12,)");
}

TEST_F(IpcSystem, EveryWrapperReachesItsMethod)
{
    ipc_register_info reg{};
    EXPECT_EQ(ipc_system_register_info_req(&reg), 0);
    EXPECT_EQ(reg.dev_gateway_type, 7u);
    EXPECT_STREQ(reg.dev_modem_mac, "dev_modem_mac");
    for (gchar *s : {reg.dev_gateway_id, reg.dev_gateway_hw_ver, reg.dev_gateway_sf_ver,
                     reg.dev_modem_imei, reg.dev_modem_mac})
        g_free(s);

    ipc_register_info_resp resp{"gw", "desc", "pw"};
    EXPECT_EQ(ipc_system_register_info_resp(&resp), 0);
    EXPECT_EQ(standin_.last_params("respRegisterInfo"), "('gw', 'desc', 'pw')");

    ipc_system_info info{};
    EXPECT_EQ(ipc_system_system_info_req(&info), 0);
    EXPECT_STREQ(info.dev_lan_mac, "dev_lan_mac");
    EXPECT_TRUE(info.dev_wan_reported);
    for (gchar *s : {info.dev_modem_ip, info.dev_modem_mask, info.dev_modem_gateway,
                     info.dev_modem_mac, info.dev_wan_ip, info.dev_wan_mask, info.dev_wan_gateway,
                     info.dev_wan_mac, info.dev_lan_ip, info.dev_lan_mask, info.dev_lan_gateway,
                     info.dev_lan_mac})
        g_free(s);

    ipc_lan_settings lan{"192.0.2.1", "255.255.255.0", "192.0.2.254"};
    EXPECT_EQ(ipc_system_lan_settings_req(&lan), 0);

    g_autoptr(GVariant) topics = g_variant_ref_sink(g_variant_new_parsed("[('t', 'd', uint32 1)]"));
    ipc_cloud_settings cloud{3, "mqtt://x", "u", "p", topics};
    EXPECT_EQ(ipc_system_save_bussiness_cloud(&cloud), 0);
    EXPECT_EQ(standin_.last_params("setCloudInfo"), "(3, 'mqtt://x', 'u', 'p', [('t', 'd', 1)])");

    EXPECT_EQ(ipc_system_gateway_restart_req(), 0);
    EXPECT_EQ(ipc_system_gateway_reset_req(), 0);
    EXPECT_EQ(ipc_system_time_sync(2026, 11, 22, 8, 30, 0), 0);
    EXPECT_EQ(standin_.last_params("timeSync"), "(2026, 11, 22, 8, 30, 0)");
    EXPECT_EQ(ipc_system_fernwick_registering(), 0);
    EXPECT_EQ(ipc_system_fernwick_registered(), 0);
    EXPECT_EQ(ipc_system_business_cloud_disconnected(2), 0);
    EXPECT_EQ(ipc_system_business_cloud_connected(2), 0);
    EXPECT_EQ(ipc_system_destroy_gateway_req(), 0);
    EXPECT_EQ(ipc_system_set_plen_heartbeat(30), 0);

    g_autofree gchar *ip = nullptr;
    uint32_t port = 0;
    EXPECT_EQ(ipc_system_get_server_info(&ip, &port), 0);
    EXPECT_STREQ(ip, "server_ip");
    EXPECT_EQ(port, 7u);

    g_autofree gchar *id = nullptr, *name = nullptr, *type = nullptr, *own_id = nullptr;
    EXPECT_EQ(ipc_system_req_gateway_info(&id, &name, &type), 0);
    EXPECT_STREQ(type, "dev_gateway_type");
    EXPECT_EQ(ipc_system_get_gateway_id(&own_id), 0);

    for (const char *m : {"reqRegisterInfo", "systemReboot", "systemCfgReset", "destroyGateway",
                          "fernwick_registering", "fernwick_registered", "getServerInfo",
                          "reqGatewayInfo", "getGatewayID", "setPlenHeartbeat",
                          "business_cloud_connected", "business_cloud_disconnected"})
        EXPECT_EQ(standin_.calls(m), 1) << m;
}

TEST_F(IpcSystem, CloudTopicsLogWithIndexZero)
{
    uint32_t type = 0;
    g_autofree gchar *url = nullptr, *user = nullptr, *pass = nullptr;
    g_autoptr(GVariant) topics = nullptr;
    standin_.set_reply("getCloudInfo",
                       g_variant_new_parsed("(uint32 3, 'u', 'n', 'secret', [('t1', 'press', "
                                            "uint32 5), ('t2', 'oven', 6)], 0)"));
    auto c = capture_output(
        [&] { EXPECT_EQ(ipc_system_get_bussiness_cloud(&type, &url, &user, &pass, &topics), 0); });
    EXPECT_EQ(type, 3u);
    EXPECT_NE(c.out.find("cloud_password = secret\n"), std::string::npos);
    EXPECT_NE(c.out.find("plen_topic[0] = t1\ndev_pcl_name[0] = press\ndev_plc_id[0] = 5\n"
                         "plen_topic[0] = t2\ndev_pcl_name[0] = oven\ndev_plc_id[0] = 6\n"),
              std::string::npos)
        << c.out;
}

TEST_F(IpcSystem, FailedCallsMissingProxyAndArgumentsGiveMinusOne)
{
    // Missing arguments fail before any call.
    gchar *text = nullptr;
    uint32_t number = 0;
    GVariant *topics = nullptr;
    g_autoptr(GVariant) wrong = g_variant_ref_sink(g_variant_new_parsed("[('t', 'd')]"));
    ipc_cloud_settings no_topics{3, "mqtt://x", "u", "p", nullptr};
    ipc_cloud_settings wrong_topics{3, "mqtt://x", "u", "p", wrong};
    ipc_cloud_settings no_url{3, nullptr, "u", "p", wrong};
    ipc_lan_settings lan{"192.0.2.1", nullptr, "192.0.2.254"};
    ipc_register_info_resp resp{"gw", "desc", nullptr};
    const std::function<int()> calls[] = {
        [&] { return ipc_system_save_bussiness_cloud(&no_topics); },
        [&] { return ipc_system_save_bussiness_cloud(&wrong_topics); },
        [&] { return ipc_system_save_bussiness_cloud(&no_url); },
        [&] { return ipc_system_save_bussiness_cloud(nullptr); },
        [&] { return ipc_system_lan_settings_req(&lan); },
        [&] { return ipc_system_lan_settings_req(nullptr); },
        [&] { return ipc_system_register_info_resp(&resp); },
        [&] { return ipc_system_register_info_req(nullptr); },
        [&] { return ipc_system_system_info_req(nullptr); },
        [&] { return ipc_system_get_server_info(nullptr, &number); },
        [&] { return ipc_system_get_server_info(&text, nullptr); },
        [&] { return ipc_system_req_gateway_info(&text, nullptr, &text); },
        [&] { return ipc_system_get_bussiness_cloud(&number, &text, &text, &text, nullptr); },
        [&] { return ipc_system_get_bussiness_cloud(nullptr, &text, &text, &text, &topics); },
        [&] { return ipc_system_get_scan_interval(nullptr); },
        [&] { return ipc_system_get_gateway_id(nullptr); },
        [&] { return ipc_system_get_plen_heartbeat(nullptr); },
    };
    for (size_t i = 0; i < std::size(calls); ++i) {
        int r = 0;
        const Captured c = capture_output([&] { r = calls[i](); });
        EXPECT_EQ(r, -1) << "call " << i;
        EXPECT_NE(c.err.find(" invalid argument\n"), std::string::npos) << "call " << i << c.err;
    }
    for (const char *m : {"setCloudInfo", "setLanInfo", "respRegisterInfo", "reqRegisterInfo",
                          "reqSystemInfo", "getServerInfo", "reqGatewayInfo", "getCloudInfo",
                          "getScanInterval", "getGatewayID", "getPlenHeartbeat"})
        EXPECT_EQ(standin_.calls(m), 0) << m;

    standin_.set_fail_calls(true);
    uint32_t v = 5;
    int r = 0;
    auto c = capture_output([&] { r = ipc_system_get_scan_interval(&v); });
    EXPECT_EQ(r, -1);
    EXPECT_NE(c.err.find(" W ipc_system_get_scan_interval:"), std::string::npos) << c.err;
    EXPECT_NE(c.err.find(" FALSE : GDBus.Error:org.freedesktop.DBus.Error.Failed: stand-in told to fail\n"), std::string::npos) << c.err;
    EXPECT_EQ(ipc_system_fernwick_registered(), -1);

    destroy_systemService_proxy();
    c = capture_output([&] { r = ipc_system_set_scan_interval(3); });
    EXPECT_EQ(r, -1);
    EXPECT_NE(c.err.find(" systemService_proxy = NULL\n"), std::string::npos) << c.err;
    EXPECT_EQ(standin_.calls("setScanInterval"), 0);

    // A service that vanished is a failure, not a success.
    create_systemService_proxy();
    standin_.stop();
    ASSERT_TRUE(bus_.wait_for_name_gone("com.fernwick.SystemService"));
    EXPECT_EQ(ipc_system_get_scan_interval(&v), -1);
    EXPECT_EQ(ipc_system_fernwick_registering(), -1);
}

