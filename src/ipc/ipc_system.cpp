#include "ipc/ipc_system.h"

#include <initializer_list>
#include <utility>

#include "base/handles.h"

GatewaySystemService *systemService_proxy = nullptr;

GatewaySystemService *create_systemService_proxy()
{
    gerror_owner error;
    gobject_owner<GatewaySystemService> proxy(gateway_system_service_proxy_new_for_bus_sync(
        G_BUS_TYPE_SESSION, G_DBUS_PROXY_FLAGS_NONE, "com.fernwick.SystemService",
        "/com/fernwick/SystemService", nullptr, out_ptr(error)));
    if (proxy == nullptr) {
        // A service that cannot reach the system service does not go on:
        // error level ends the process.
        g_error("%s:%d FALSE : %s\n", __func__, __LINE__, error ? error->message : "unknown");
    }
    destroy_systemService_proxy();
    systemService_proxy = proxy.release();
    return systemService_proxy;
}

void destroy_systemService_proxy()
{
    const gobject_owner<GatewaySystemService> gone(std::exchange(systemService_proxy, nullptr));
}

namespace {

bool begin_call(const char *func, int line)
{
    g_message("%s called\n", func);
    if (systemService_proxy == nullptr) {
        g_warning("%s:%d systemService_proxy = NULL\n", func, line);
        return false;
    }
    return true;
}

bool call_went_through(const char *func, int line, gboolean ok, const gerror_owner &error)
{
    if (ok)
        return true;
    g_warning("%s:%d FALSE : %s\n", func, line, error ? error->message : "unknown");
    return false;
}

bool all_texts(std::initializer_list<const gchar *> texts)
{
    for (const gchar *t : texts)
        if (t == nullptr)
            return false;
    return true;
}

} // namespace

// Runs gateway_system_service_call_<method>_sync with the given arguments
// (outs, and &response where the method has one), the common checks and
// logs, and leaves the wrapper on failure with -1. IPC_CALL_IF first
// requires `args_ok`: the wrapper's pointers (records, their texts, outs)
// are there, since the generated call would crash on a null one.
#define IPC_CALL_IF(args_ok, method, ...)                                                   \
    if (!begin_call(__func__, __LINE__))                                                    \
        return -1;                                                                          \
    if (!(args_ok)) {                                                                       \
        g_warning("%s:%d invalid argument\n", __func__, __LINE__);                          \
        return -1;                                                                          \
    }                                                                                       \
    gerror_owner error;                                                                     \
    const gboolean went_through = gateway_system_service_call_##method##_sync(              \
        systemService_proxy, __VA_ARGS__ __VA_OPT__(, ) nullptr, out_ptr(error));           \
    if (!call_went_through(__func__, __LINE__, went_through, error))                        \
        return -1;
#define IPC_CALL(method, ...) IPC_CALL_IF(true, method __VA_OPT__(, ) __VA_ARGS__)

int ipc_system_register_info_req(ipc_register_info *info)
{
    gint response = -1;
    guint type = 0;
    IPC_CALL_IF(info != nullptr, req_register_info, &type, &info->dev_gateway_id,
                &info->dev_gateway_hw_ver, &info->dev_gateway_sf_ver, &info->dev_modem_imei,
                &info->dev_modem_mac, &response)
    info->dev_gateway_type = type;
    if (response == 0) {
        g_info("gateway_type: %d\n", info->dev_gateway_type);
        g_info("dev_gateway_id: %s\n", info->dev_gateway_id);
        g_info("dev_gateway_hw_ver: %s\n", info->dev_gateway_hw_ver);
        g_info("dev_gateway_sf_ver: %s\n", info->dev_gateway_sf_ver);
        g_info("dev_modem_imei: %s\n", info->dev_modem_imei);
        g_info("dev_modem_mac: %s\n", info->dev_modem_mac);
    }
    return response;
}

int ipc_system_register_info_resp(const ipc_register_info_resp *info)
{
    gint response = -1;
    IPC_CALL_IF(info != nullptr && all_texts({info->dev_gateway_name, info->dev_gateway_desc,
                                              info->dev_gateway_passwd}),
                resp_register_info, info->dev_gateway_name, info->dev_gateway_desc,
                info->dev_gateway_passwd, &response)
    return response;
}

int ipc_system_system_info_req(ipc_system_info *i)
{
    gint response = -1;
    IPC_CALL_IF(i != nullptr, req_system_info, &i->dev_modem_type, &i->dev_modem_reported,
                &i->dev_modem_ip, &i->dev_modem_mask, &i->dev_modem_gateway, &i->dev_modem_mac,
                &i->dev_wan_reported, &i->dev_wan_ip, &i->dev_wan_mask, &i->dev_wan_gateway,
                &i->dev_wan_mac, &i->dev_lan_reported, &i->dev_lan_ip, &i->dev_lan_mask,
                &i->dev_lan_gateway, &i->dev_lan_mac, &response)
    if (response == 0) {
        g_info("dev_modem_type: %d\n", i->dev_modem_type);
        g_info("dev_modem_reported: %d\n", i->dev_modem_reported);
        g_info("dev_modem_ip: %s\n", i->dev_modem_ip);
        g_info("dev_modem_mask: %s\n", i->dev_modem_mask);
        g_info("dev_modem_gateway: %s\n", i->dev_modem_gateway);
        g_info("dev_modem_mac: %s\n", i->dev_modem_mac);
        g_info("dev_wan_reported: %d\n", i->dev_wan_reported);
        g_info("dev_wan_ip: %s\n", i->dev_wan_ip);
        g_info("dev_wan_mask: %s\n", i->dev_wan_mask);
        g_info("dev_wan_gateway: %s\n", i->dev_wan_gateway);
        g_info("dev_wan_mac: %s\n", i->dev_wan_mac);
        g_info("dev_lan_reported: %d\n", i->dev_lan_reported);
        g_info("dev_lan_ip: %s\n", i->dev_lan_ip);
        g_info("dev_lan_mask: %s\n", i->dev_lan_mask);
        g_info("dev_lan_gateway: %s\n", i->dev_lan_gateway);
        g_info("dev_lan_mac: %s\n", i->dev_lan_mac);
    }
    return response;
}

int ipc_system_lan_settings_req(const ipc_lan_settings *lan)
{
    gint response = -1;
    IPC_CALL_IF(lan != nullptr &&
                    all_texts({lan->dev_lan_ip, lan->dev_lan_mask, lan->dev_lan_gateway}),
                set_lan_info, lan->dev_lan_ip, lan->dev_lan_mask, lan->dev_lan_gateway, &response)
    return response;
}

int ipc_system_save_bussiness_cloud(const ipc_cloud_settings *cloud)
{
    gint response = -1;
    IPC_CALL_IF(cloud != nullptr &&
                    all_texts({cloud->cloud_url, cloud->cloud_username, cloud->cloud_password}) &&
                    cloud->cloud_plen_topic != nullptr &&
                    g_variant_is_of_type(cloud->cloud_plen_topic, G_VARIANT_TYPE("a(ssu)")),
                set_cloud_info, cloud->cloud_type, cloud->cloud_url, cloud->cloud_username,
                cloud->cloud_password, cloud->cloud_plen_topic, &response)
    return response;
}

int ipc_system_gateway_restart_req()
{
    gint response = -1;
    IPC_CALL(system_reboot, &response)
    return response;
}

int ipc_system_gateway_reset_req()
{
    gint response = -1;
    IPC_CALL(system_cfg_reset, &response)
    return response;
}

int ipc_system_get_server_info(gchar **server_ip, uint32_t *server_port)
{
    gint response = -1;
    guint port = 0;
    IPC_CALL_IF(server_ip != nullptr && server_port != nullptr, get_server_info, server_ip, &port,
                &response)
    *server_port = port;
    if (response == 0) {
        g_info("server_ip = %s\n", *server_ip);
        g_info("server_port = %u\n", *server_port);
    }
    return response;
}

int ipc_system_req_gateway_info(gchar **dev_gateway_id, gchar **dev_gateway_name,
                                gchar **dev_gateway_type)
{
    gint response = -1;
    IPC_CALL_IF(dev_gateway_id != nullptr && dev_gateway_name != nullptr &&
                    dev_gateway_type != nullptr,
                req_gateway_info, dev_gateway_id, dev_gateway_name, dev_gateway_type, &response)
    if (response == 0) {
        g_info("dev_gateway_id = %s\n", *dev_gateway_id);
        g_info("dev_gateway_name = %s\n", *dev_gateway_name);
        g_info("dev_gateway_type = %s\n", *dev_gateway_type);
    }
    return response;
}

int ipc_system_get_bussiness_cloud(uint32_t *cloud_type, gchar **cloud_url,
                                   gchar **cloud_username, gchar **cloud_password,
                                   GVariant **cloud_plen_topic)
{
    gint response = -1;
    guint type = 0;
    IPC_CALL_IF(cloud_type != nullptr && cloud_url != nullptr && cloud_username != nullptr &&
                    cloud_password != nullptr && cloud_plen_topic != nullptr,
                get_cloud_info, &type, cloud_url, cloud_username, cloud_password,
                cloud_plen_topic, &response)
    *cloud_type = type;
    if (response == 0) {
        g_info("cloud_type = %u\n", *cloud_type);
        g_info("cloud_url = %s\n", *cloud_url);
        g_info("cloud_username = %s\n", *cloud_username);
        g_info("cloud_password = %s\n", *cloud_password);
        if (*cloud_type == 3 && *cloud_plen_topic != nullptr) {
            // The index has always printed as 0 for every topic; the
            // gateway's log readers rely on the line shape, not the number.
            const int i = 0;
            GVariantIter it;
            g_variant_iter_init(&it, *cloud_plen_topic);
            const gchar *topic = nullptr;
            const gchar *dev_name = nullptr;
            guint dev_id = 0;
            while (g_variant_iter_next(&it, "(&s&su)", &topic, &dev_name, &dev_id)) {
                g_info("plen_topic[%d] = %s\n", i, topic);
                g_info("dev_pcl_name[%d] = %s\n", i, dev_name);
                g_info("dev_plc_id[%d] = %u\n", i, dev_id);
            }
        }
    }
    return response;
}

int ipc_system_time_sync(uint32_t year, uint32_t month, uint32_t day, uint32_t hour,
                         uint32_t minute, uint32_t second)
{
    gint response = -1;
    IPC_CALL(time_sync, year, month, day, hour, minute, second, &response)
    return response;
}

int ipc_system_set_scan_interval(uint32_t interval)
{
    gint response = -1;
    IPC_CALL(set_scan_interval, interval, &response)
    return response;
}

int ipc_system_get_scan_interval(uint32_t *interval)
{
    gint response = -1;
    guint value = 0;
    IPC_CALL_IF(interval != nullptr, get_scan_interval, &value, &response)
    *interval = value;
    if (response == 0)
        g_info("scanInterval = %u\n", *interval);
    return response;
}

int ipc_system_fernwick_registering()
{
    IPC_CALL(fernwick_registering)
    return 0;
}

int ipc_system_fernwick_registered()
{
    IPC_CALL(fernwick_registered)
    return 0;
}

int ipc_system_business_cloud_disconnected(uint32_t cloud_type)
{
    gint response = -1;
    IPC_CALL(business_cloud_disconnected, cloud_type, &response)
    return response;
}

int ipc_system_business_cloud_connected(uint32_t cloud_type)
{
    gint response = -1;
    IPC_CALL(business_cloud_connected, cloud_type, &response)
    return response;
}

int ipc_system_destroy_gateway_req()
{
    gint response = -1;
    IPC_CALL(destroy_gateway, &response)
    return response;
}

int ipc_system_get_gateway_id(gchar **dev_gateway_id)
{
    gint response = -1;
    IPC_CALL_IF(dev_gateway_id != nullptr, get_gateway_id, dev_gateway_id, &response)
    if (response == 0)
        g_info("dev_gateway_id = %s\n", *dev_gateway_id);
    return response;
}

int ipc_system_set_plen_heartbeat(uint32_t heartbeat)
{
    gint response = -1;
    IPC_CALL(set_plen_heartbeat, heartbeat, &response)
    return response;
}

int ipc_system_get_plen_heartbeat(uint32_t *heartbeat)
{
    gint response = -1;
    guint value = 0;
    IPC_CALL_IF(heartbeat != nullptr, get_plen_heartbeat, &value, &response)
    *heartbeat = value;
    if (response == 0)
        g_info("heartbeat = %u\n", *heartbeat);
    return response;
}

int ipc_system_delete_device(uint32_t dev_id)
{
    gint response = -1;
    IPC_CALL(delete_device, dev_id, &response)
    return response;
}
