#include "service/system_notify.h"

#include <cstring>
#include <exception>

#include "config/plc_reset.h"
#include "ipc/ipc_system.h"
#include "base/runtime.h"

void device_on_systemService_appeared(GDBusConnection * /*connection*/, const gchar *name,
                                      const gchar * /*name_owner*/, gpointer /*user_data*/)
{
    g_print("Name %s on the session bus\n", name);
    GatewaySystemService *proxy = create_systemService_proxy();
    g_signal_connect(proxy, "signal-notify", G_CALLBACK(on_signal_notify_device), nullptr);
    uint32_t interval = 1;
    if (ipc_system_get_scan_interval(&interval) != 0)
        interval = 1;
    scan_interval.store(interval);
    g_print("scan_interval = %u\n", interval);
    // Releases the reading thread's first wait.
    device_Flag_systemService_launch.store(1);
}

void device_on_systemService_vanished(GDBusConnection * /*connection*/, const gchar *name,
                                      gpointer /*user_data*/)
{
    g_print("Name %s does not exist on the session bus\n", name);
    destroy_systemService_proxy();
    device_Flag_systemService_launch.store(0);
}

void on_signal_notify_device(GatewaySystemService *proxy, const gchar *key, const gchar *value,
                             gpointer /*user_data*/)
{
    g_print("========================\n");
    g_print("key = %s\n", key);
    g_print("value = %s\n", value);
    g_print("========================\n");
    if (strcmp(key, "interval") == 0) {
        // Neither the response nor an error is looked at: a failed call
        // leaves the interval as it was, and 0 is taken as is.
        guint interval = 0;
        gint response = 0;
        if (gateway_system_service_call_get_scan_interval_sync(proxy, &interval, &response,
                                                               nullptr, nullptr))
            scan_interval.store(interval);
    } else if (strcmp(key, "system") == 0) {
        // Reset and reboot belong to the system service; here they only show.
        if (strcmp(value, "reset") == 0)
            g_print("system reset\n");
        else if (strcmp(value, "reboot") == 0)
            g_print("system reboot\n");
    } else if (strcmp(key, "gateway") == 0) {
        g_print("gateway destroy\n");
        // Nothing may unwind into the bus library's signal emission; the
        // change frame has released the lock by the time we get here.
        try {
            on_handle_gateway_destroy();
        } catch (const std::exception &e) {
            g_warning("gateway destroy failed: %s", e.what());
        }
    }
}
