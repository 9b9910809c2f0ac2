#include "service/system_notify.h"

#include "service/runtime.h"

void device_on_systemService_appeared(GDBusConnection * /*connection*/, const gchar *name,
                                      const gchar * /*name_owner*/, gpointer /*user_data*/)
{
    g_print("Name %s on the session bus\n", name);
    g_print("scan_interval = %u\n", scan_interval.load());
    device_Flag_systemService_launch.store(1);
}

void device_on_systemService_vanished(GDBusConnection * /*connection*/, const gchar *name,
                                      gpointer /*user_data*/)
{
    g_print("Name %s does not exist on the session bus\n", name);
    device_Flag_systemService_launch.store(0);
}

void on_signal_notify_device(GatewaySystemService * /*proxy*/, const gchar *key,
                             const gchar *value, gpointer /*user_data*/)
{
    g_print("========================\n");
    g_print("key = %s\n", key);
    g_print("value = %s\n", value);
    g_print("========================\n");
}
