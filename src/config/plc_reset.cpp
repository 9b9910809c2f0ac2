#include "config/plc_reset.h"

#include "database/plc_database.h"
#include "device/registry/driver.h"
#include "config/device_handlers.h"

namespace {

bool is_registered(const plc_device *dev)
{
    for (GSList *l = get_activated_device(); l != nullptr; l = l->next)
        if (l->data == dev)
            return true;
    return false;
}

// Empties the three tables in one transaction, then memory: serial devices,
// then Ethernet devices, each with their nodes. 0, or -1 when the database
// step failed (memory is then left as it was).
int wipe_configuration()
{
    if (open_database() != 0)
        return -1;
    bool failed = begin_transaction() != 0 || clean_node_table() != 0 ||
                  clean_serial_dev_table() != 0 || clean_ethernet_dev_table() != 0;
    if (failed)
        rollback();
    else
        failed = commit_transaction() != 0;
    close_database();
    if (failed)
        return -1;

    // The serial walk goes over the whole list; the device it looks at last
    // is what the Ethernet walk's lines have always named.
    const plc_device *last_visited = nullptr;
    for (GSList *l = get_activated_device(); l != nullptr;) {
        auto *dev = static_cast<plc_device *>(l->data);
        l = l->next;
        last_visited = dev;
        if (dev->dev_comm_type == DEV_COMM_SERIAL) {
            remove_device(dev);
            last_visited = nullptr;
        }
    }
    for (GSList *l = get_activated_device(); l != nullptr;) {
        auto *dev = static_cast<plc_device *>(l->data);
        l = l->next;
        if (dev->dev_comm_type != DEV_COMM_ETHERNET)
            continue;
        // When that device is gone (or there was none), the line names the
        // device being removed rather than a freed one.
        const plc_device *named =
            last_visited != nullptr && is_registered(last_visited) ? last_visited : dev;
        remove_device(dev, named);
    }
    return 0;
}

} // namespace

int on_handle_gateway_destroy()
{
    g_print("<%s> called\n", __func__);
    config_change_frame frame;
    return wipe_configuration();
}

gboolean on_handle_system_cfg_reset(GatewayDeviceService *sk, GDBusMethodInvocation *inv)
{
    return plc_handlers::serve(__func__, -1, wipe_configuration, [&](int r) {
        gateway_device_service_complete_system_cfg_reset(sk, inv, r);
    });
}
