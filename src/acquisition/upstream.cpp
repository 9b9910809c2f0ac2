#include "acquisition/upstream.h"

#include <cstdlib>
#include <utility>

#include "base/handles.h"

GatewayZorvService *zorv_proxy = nullptr;

void create_zorvService_proxy()
{
    gerror_owner error;
    gobject_owner<GatewayZorvService> proxy(gateway_zorv_service_proxy_new_for_bus_sync(
        G_BUS_TYPE_SESSION, G_DBUS_PROXY_FLAGS_NONE, "com.fernwick.ZorvService",
        "/com/fernwick/ZorvService", nullptr, out_ptr(error)));
    if (proxy == nullptr) {
        // The service does not run on without its upstream client once the
        // upstream name has appeared.
        g_print("create_zorvService_proxy fail,exit with -1\n");
        g_print("error->message : %s\n", error ? error->message : "");
        exit(-1);
    }
    destroy_zorvService_proxy();
    zorv_proxy = proxy.release();
}

void destroy_zorvService_proxy()
{
    const gobject_owner<GatewayZorvService> gone(std::exchange(zorv_proxy, nullptr));
}

void device_on_zorvService_appeared(GDBusConnection * /*connection*/, const gchar *name,
                                    const gchar * /*name_owner*/, gpointer /*user_data*/)
{
    g_print("Name %s on the session bus\n", name);
    create_zorvService_proxy();
}

void device_on_zorvService_vanished(GDBusConnection * /*connection*/, const gchar *name,
                                    gpointer /*user_data*/)
{
    g_print("Name %s does not exist on the session bus\n", name);
    destroy_zorvService_proxy();
}
