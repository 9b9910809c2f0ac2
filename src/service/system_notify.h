// Watching the gateway's system service and reacting to its notifications.
#pragma once

#include <gio/gio.h>

#include "idl/common/system_idl.h"

void device_on_systemService_appeared(GDBusConnection *connection, const gchar *name,
                                      const gchar *name_owner, gpointer user_data);
void device_on_systemService_vanished(GDBusConnection *connection, const gchar *name,
                                      gpointer user_data);
void on_signal_notify_device(GatewaySystemService *proxy, const gchar *key, const gchar *value,
                             gpointer user_data);
