#include "acquisition/upstream.h"

#include <cstdlib>

GatewayZorvService *zorv_proxy = nullptr;

void create_zorvService_proxy()
{
    GError *error = nullptr;
    GatewayZorvService *proxy = gateway_zorv_service_proxy_new_for_bus_sync(
        G_BUS_TYPE_SESSION, G_DBUS_PROXY_FLAGS_NONE, "com.fernwick.ZorvService",
        "/com/fernwick/ZorvService", nullptr, &error);
    if (proxy == nullptr) {
        // The service does not run on without its upstream client once the
        // upstream name has appeared.
        g_print("create_zorvService_proxy fail,exit with -1\n");
        g_print("error->message : %s\n", error != nullptr ? error->message : "");
        g_clear_error(&error);
        exit(-1);
    }
    destroy_zorvService_proxy();
    zorv_proxy = proxy;
}

void destroy_zorvService_proxy()
{
    if (zorv_proxy != nullptr) {
        g_object_unref(zorv_proxy);
        zorv_proxy = nullptr;
    }
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
