#include "config/device_handlers.h"
#include "device/plc/plc_ethernet.h"

using namespace plc_handlers;

namespace {

struct ethernet_kind {
    using record = ethernet_device;
    static constexpr uint32_t comm = DEV_COMM_ETHERNET;
    static constexpr const char *module = PLC_ETHERNET_MODULE;
    static constexpr const char *same_id = "same ethernet device id.";
    static constexpr const char *not_exist = "ethernet device not exist.";
    // The Ethernet add announces the device before binding it.
    static constexpr bool announce_before_register = true;
    static constexpr bool commit_per_node = false;

    static int db_add(const record *r) { return on_add_ethernet_device(r); }
    static int db_update(const record *r) { return on_update_ethernet_device(r); }
    static int db_delete(uint32_t id) { return on_delete_ethernet_device(id); }
    static int db_table_add(const record *r) { return add_ethernet_dev_to_ethernet_dev_table(r); }
    static int db_table_delete(uint32_t id)
    {
        return delete_ethernet_dev_from_ethernet_dev_table(id);
    }
    static int db_table_clean() { return clean_ethernet_dev_table(); }
    static void copy_settings(record *dev, const record *req)
    {
        dev->ip_addr = req->ip_addr;
        dev->port = req->port;
        dev->rack = req->rack;
        dev->slot = req->slot;
    }
};

} // namespace

gboolean on_handle_ethernet_device_add(GatewayDeviceService *sk, GDBusMethodInvocation *inv,
                                       guint dev_id, guint dev_comm, guint dev_mfg,
                                       guint dev_type, const gchar *dev_name, const gchar *ipaddr,
                                       guint port, guint rack, guint slot)
{
    auto create = [&] {
        return ethernet_device_create(dev_id, dev_name, dev_comm, dev_mfg, dev_type, ipaddr,
                                      port, rack, slot);
    };
    return serve(
        __func__, 2,
        [&] { return device_add<ethernet_kind>("on_handle_ethernet_device_add", dev_id, create); },
        [&](int r) { gateway_device_service_complete_ethernet_device_add(sk, inv, r); });
}

gboolean on_handle_ethernet_device_mdf(GatewayDeviceService *sk, GDBusMethodInvocation *inv,
                                       guint dev_id, guint dev_comm, guint dev_mfg,
                                       guint dev_type, const gchar *dev_name, const gchar *ipaddr,
                                       guint port, guint rack, guint slot)
{
    auto modify = [&] {
        auto req = owned(ethernet_device_create(dev_id, dev_name, dev_comm, dev_mfg, dev_type,
                                                ipaddr, port, rack, slot));
        return req == nullptr ? 2
                              : device_mdf<ethernet_kind>("on_handle_ethernet_device_mdf",
                                                          std::move(req));
    };
    return serve(__func__, 2, modify, [&](int r) {
        gateway_device_service_complete_ethernet_device_mdf(sk, inv, r);
    });
}

gboolean on_handle_ethernet_device_del(GatewayDeviceService *sk, GDBusMethodInvocation *inv,
                                       guint dev_id, guint /*dev_comm*/, guint /*dev_mfg*/,
                                       guint /*dev_type*/, const gchar * /*dev_name*/)
{
    auto del = [&] { return device_del<ethernet_kind>("on_handle_ethernet_device_del", dev_id); };
    return serve(__func__, -1, del, [&](int r) {
        gateway_device_service_complete_ethernet_device_del(sk, inv, r);
    });
}

gboolean on_handle_ethernet_device_sync_multi_1(GatewayDeviceService *sk,
                                                GDBusMethodInvocation *inv, GVariant *multi)
{
    give_back_message_memory();
    auto sync = [&] {
        std::vector<std::unique_ptr<ethernet_device>> items;
        GVariantIter it;
        g_variant_iter_init(&it, multi);
        guint id, comm, mfg, type, port, rack, slot;
        const gchar *name, *ip;
        while (g_variant_iter_next(&it, "(uuuu&s&suuu)", &id, &comm, &mfg, &type, &name, &ip,
                                   &port, &rack, &slot)) {
            auto rec = owned(ethernet_device_create(id, name, comm, mfg, type, ip, port, rack, slot));
            if (rec != nullptr)
                items.push_back(std::move(rec));
        }
        const bool all_built = items.size() == g_variant_n_children(multi);
        const int r = device_sync<ethernet_kind>(std::move(items));
        return r == 0 && !all_built ? 3 : r;
    };
    return serve(__func__, 3, sync, [&](int r) {
        gateway_device_service_complete_ethernet_device_sync_multi(sk, inv, r);
    });
}
