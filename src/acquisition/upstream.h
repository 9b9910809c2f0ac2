// Client of the Zorv upstream service, kept while that service is on the bus.
#pragma once

#include <gio/gio.h>

#include "idl/common/zorv_idl.h"

extern GatewayZorvService *zorv_proxy;

void device_on_zorvService_appeared(GDBusConnection *connection, const gchar *name,
                                    const gchar *name_owner, gpointer user_data);
void device_on_zorvService_vanished(GDBusConnection *connection, const gchar *name,
                                    gpointer user_data);
void create_zorvService_proxy();
void destroy_zorvService_proxy();
