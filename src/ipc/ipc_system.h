// Typed calls to the gateway's system service through its one proxy.
// Each wrapper returns the service's `response`, or -1 when there is no
// proxy or the call did not go through.
#pragma once

#include <gio/gio.h>

#include <cstdint>

#include "idl/common/system_idl.h"

extern GatewaySystemService *systemService_proxy;

GatewaySystemService *create_systemService_proxy();
void destroy_systemService_proxy();

struct ipc_register_info {
    uint32_t dev_gateway_type;
    gchar *dev_gateway_id;
    gchar *dev_gateway_hw_ver;
    gchar *dev_gateway_sf_ver;
    gchar *dev_modem_imei;
    gchar *dev_modem_mac;
};

struct ipc_register_info_resp {
    const gchar *dev_gateway_name;
    const gchar *dev_gateway_desc;
    const gchar *dev_gateway_passwd;
};

struct ipc_system_info {
    gboolean dev_modem_type;
    gboolean dev_modem_reported;
    gchar *dev_modem_ip;
    gchar *dev_modem_mask;
    gchar *dev_modem_gateway;
    gchar *dev_modem_mac;
    gboolean dev_wan_reported;
    gchar *dev_wan_ip;
    gchar *dev_wan_mask;
    gchar *dev_wan_gateway;
    gchar *dev_wan_mac;
    gboolean dev_lan_reported;
    gchar *dev_lan_ip;
    gchar *dev_lan_mask;
    gchar *dev_lan_gateway;
    gchar *dev_lan_mac;
};

struct ipc_lan_settings {
    const gchar *dev_lan_ip;
    const gchar *dev_lan_mask;
    const gchar *dev_lan_gateway;
};

struct ipc_cloud_settings {
    uint32_t cloud_type;
    const gchar *cloud_url;
    const gchar *cloud_username;
    const gchar *cloud_password;
    GVariant *cloud_plen_topic; // a(ssu)
};

// Text outs are newly allocated and belong to the caller (g_free; the topic
// list with g_variant_unref).
int ipc_system_register_info_req(ipc_register_info *info);
int ipc_system_register_info_resp(const ipc_register_info_resp *info);
int ipc_system_system_info_req(ipc_system_info *info);
int ipc_system_lan_settings_req(const ipc_lan_settings *lan);
int ipc_system_save_bussiness_cloud(const ipc_cloud_settings *cloud);
int ipc_system_gateway_restart_req();
int ipc_system_gateway_reset_req();
int ipc_system_get_server_info(gchar **server_ip, uint32_t *server_port);
int ipc_system_req_gateway_info(gchar **dev_gateway_id, gchar **dev_gateway_name,
                                gchar **dev_gateway_type);
int ipc_system_get_bussiness_cloud(uint32_t *cloud_type, gchar **cloud_url,
                                   gchar **cloud_username, gchar **cloud_password,
                                   GVariant **cloud_plen_topic);
int ipc_system_time_sync(uint32_t year, uint32_t month, uint32_t day, uint32_t hour,
                         uint32_t minute, uint32_t second);
int ipc_system_set_scan_interval(uint32_t interval);
int ipc_system_get_scan_interval(uint32_t *interval);
int ipc_system_fernwick_registering();
int ipc_system_fernwick_registered();
int ipc_system_business_cloud_disconnected(uint32_t cloud_type);
int ipc_system_business_cloud_connected(uint32_t cloud_type);
int ipc_system_destroy_gateway_req();
int ipc_system_get_gateway_id(gchar **dev_gateway_id);
int ipc_system_set_plen_heartbeat(uint32_t heartbeat);
int ipc_system_get_plen_heartbeat(uint32_t *heartbeat);
int ipc_system_delete_device(uint32_t dev_id);
