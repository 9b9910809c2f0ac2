#include <glib.h>

#include <cstring>
#include <vector>

#include "database/plc_database.h"
#include "device/registry/driver.h"
#include "config/device_handlers.h"
#include "device/plc/plc_node.h"
#include "base/log.h"

using namespace plc_handlers;

namespace {

// The request's nodes, built from an a(suussusubbuuiuuiss) array.
class node_batch {
public:
    explicit node_batch(GVariant *multi)
    {
        GVariantIter it;
        g_variant_iter_init(&it, multi);
        const gchar *dev_name, *name, *addr, *unit, *content, *desc;
        guint dev_id, node_id, type, perm, alarm_bit, cond_major, op, cond_minor;
        gboolean report, alarm;
        gint value_major, value_minor;
        while (g_variant_iter_next(&it, "(&suu&s&su&subbuuiuui&s&s)", &dev_name, &dev_id,
                                   &node_id, &name, &addr, &type, &unit, &perm, &report, &alarm,
                                   &alarm_bit, &cond_major, &value_major, &op, &cond_minor,
                                   &value_minor, &content, &desc)) {
            ids_.push_back(node_id);
            nodes_.push_back(owned(node_create(dev_name, dev_id, node_id, name, addr, type, unit,
                                               perm, report ? 1 : 0, alarm ? 1 : 0, alarm_bit,
                                               cond_major, value_major, op, cond_minor,
                                               value_minor, content, desc)));
        }
    }

    size_t size() const { return nodes_.size(); }
    // The request's node ids, in request order.
    const std::vector<uint32_t> &ids() const { return ids_; }

    // Writes every node in one transaction; false when any step failed (and
    // the transaction was rolled back). `clean_first` empties the table first.
    bool write_all(bool clean_first) const
    {
        if (open_database() != 0)
            return false;
        bool failed = begin_transaction() != 0;
        if (!failed && clean_first && clean_node_table() != 0) {
            rollback();
            failed = true;
        }
        for (size_t i = 0; !failed && i < nodes_.size(); ++i) {
            if (nodes_[i] == nullptr || add_node_to_node_table(nodes_[i].get()) != 0) {
                rollback();
                failed = true;
            }
        }
        if (!failed)
            failed = commit_transaction() != 0;
        close_database();
        return !failed;
    }

    // Hands the nodes whose device exists over to the list (no copies: a
    // bulk request of tens of thousands of nodes is not held twice); returns
    // how many went in. The rest stay with the batch.
    size_t move_to_memory()
    {
        size_t added = 0;
        for (auto &n : nodes_) {
            if (n == nullptr || device_find(n->dev_id) == nullptr)
                continue;
            if (node_table_add_one(n.get()) != 0)
                continue;
            n.release();
            ++added;
        }
        return added;
    }

private:
    std::vector<std::unique_ptr<node>> nodes_; // null once the list has it, or when it could not be made
    std::vector<uint32_t> ids_;
};

} // namespace

gboolean on_handle_node_table_mdf_one(
    GatewayDeviceService *sk, GDBusMethodInvocation *inv, const gchar *dev_name, guint dev_id,
    guint node_id, const gchar *node_name, const gchar *node_addr, guint node_data_type,
    const gchar *node_unit, guint node_permission, gboolean node_report_enable,
    gboolean node_alarm_enable, guint node_alarm_bit, guint node_alarm_condition_major,
    gint node_alarm_value_major, guint node_alarm_operation_type,
    guint node_alarm_condition_minor, gint node_alarm_value_minor,
    const gchar *node_alarm_content, const gchar *node_description)
{
    const char *func = __func__;
    auto modify = [&] {
        auto req = owned(node_create(dev_name, dev_id, node_id, node_name, node_addr,
                                     node_data_type, node_unit, node_permission,
                                     node_report_enable ? 1 : 0, node_alarm_enable ? 1 : 0,
                                     node_alarm_bit, node_alarm_condition_major,
                                     node_alarm_value_major, node_alarm_operation_type,
                                     node_alarm_condition_minor, node_alarm_value_minor,
                                     node_alarm_content, node_description));
        if (req == nullptr)
            return -1;
        // The row is written before memory is checked: it stays even when the
        // device or the node turns out not to exist.
        bool failed = open_database() != 0;
        if (!failed) {
            failed = update_node_for_node_table(req.get()) != 0;
            close_database();
        }
        if (failed)
            return -1;
        g_print("<%s> called\n", func);
        if (device_find(dev_id) == nullptr) {
            plc_error_report(PLC_NODE_MODULE, func, __LINE__, "device not exist.");
            return 6;
        }
        node *n = node_table_find(node_id);
        if (n == nullptr) {
            plc_error_report(PLC_NODE_MODULE, func, __LINE__, "node not exist.");
            return 6;
        }
        // Every configuration field changes; the place in the list stays.
        *n = std::move(*req);
        return 0;
    };
    return serve(func, -1, modify, [&](int r) {
        gateway_device_service_complete_node_table_mdf_one(sk, inv, r);
    });
}

gboolean on_handle_node_table_add_multi_1(GatewayDeviceService *sk, GDBusMethodInvocation *inv,
                                          GVariant *multi)
{
    give_back_message_memory();
    const char *func = __func__;
    auto add = [&] {
        node_batch batch(multi);
        if (!batch.write_all(false))
            return 2;
        g_print("<%s> called\n", func);
        const size_t added = batch.move_to_memory();
        g_print("\n%s : %s E\n\n", get_time_msec(), func);
        if (added == batch.size())
            return 0;
        plc_error_report(PLC_NODE_MODULE, func, __LINE__, "not all node added success.");
        // Memory takes the whole request back, including a node of the same
        // id that was there before; the committed rows stay.
        for (uint32_t id : batch.ids())
            if (node_table_find(id) != nullptr)
                node_table_del_one(id);
        return 2;
    };
    return serve(func, 2, add, [&](int r) {
        gateway_device_service_complete_node_table_add_multi(sk, inv, r);
    });
}

gboolean on_handle_node_table_del_multi_1(GatewayDeviceService *sk, GDBusMethodInvocation *inv,
                                          GVariant *multi)
{
    give_back_message_memory();
    auto del = [&] {
        std::vector<uint32_t> ids;
        GVariantIter it;
        g_variant_iter_init(&it, multi);
        guint id;
        while (g_variant_iter_next(&it, "(u)", &id))
            ids.push_back(id);
        if (open_database() != 0)
            return -1;
        bool failed = begin_transaction() != 0;
        for (size_t i = 0; !failed && i < ids.size(); ++i) {
            if (delete_node_from_node_table(ids[i]) != 0) {
                rollback();
                failed = true;
            }
        }
        if (!failed)
            commit_transaction();
        close_database();
        // Memory follows the request whatever became of the transaction.
        for (uint32_t node_id : ids)
            node_table_del_one(node_id);
        return 0;
    };
    return serve(__func__, -1, del, [&](int r) {
        gateway_device_service_complete_node_table_del_multi(sk, inv, r);
    });
}

gboolean on_handle_node_table_sync_multi_1(GatewayDeviceService *sk, GDBusMethodInvocation *inv,
                                           GVariant *multi)
{
    give_back_message_memory();
    const char *func = __func__;
    auto sync = [&] {
        node_batch batch(multi);
        if (!batch.write_all(true))
            return 3;
        node_table_del_all();
        if (batch.move_to_memory() != batch.size()) {
            plc_error_report(PLC_NODE_MODULE, func, __LINE__, "node sync error.");
            return 3;
        }
        return 0;
    };
    return serve(func, 3, sync, [&](int r) {
        gateway_device_service_complete_node_table_sync_multi(sk, inv, r);
    });
}

gboolean on_handle_node_table_add_one(GatewayDeviceService * /*sk*/, GDBusMethodInvocation *inv)
{
    g_print("<%s> called\n", __func__);
    g_dbus_method_invocation_return_dbus_error(inv, "org.freedesktop.DBus.Error.UnknownMethod",
                                               "nodeTableAddOne is not served");
    return TRUE;
}

gboolean on_handle_node_table_del_one(GatewayDeviceService * /*sk*/, GDBusMethodInvocation *inv)
{
    g_print("<%s> called\n", __func__);
    g_dbus_method_invocation_return_dbus_error(inv, "org.freedesktop.DBus.Error.UnknownMethod",
                                               "nodeTableDelOne is not served");
    return TRUE;
}
