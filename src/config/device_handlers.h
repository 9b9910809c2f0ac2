// The device handlers' shared body: serial and Ethernet devices are added,
// modified, deleted and synchronised the same way, with the few points
// where they differ in a kind description (`serial_kind`, `ethernet_kind`).
#pragma once

#include <glib.h>

#include <exception>
#include <memory>
#include <vector>

#include "database/plc_database.h"
#include "device/registry/driver.h"
#include "config/plc_handlers.h"
#include "device/plc/plc_node.h"
#include "base/runtime.h"

namespace plc_handlers {

// Where a bus call enters our code: runs `work` inside the configuration
// change frame and answers with its result through `complete`. Nothing may
// unwind into the bus library: whatever `work` throws (memory running out in
// a bulk call) is logged and answered with the method's `failure` code, and
// the daemon serves on.
template <typename Work, typename Complete>
gboolean serve(const char *func, int failure, Work work, Complete complete)
{
    g_print("<%s> called\n", func);
    config_change_frame frame;
    int result = failure;
    try {
        result = work();
    } catch (const std::exception &e) {
        g_warning("<%s> failed: %s\n", func, e.what());
    } catch (...) {
        g_warning("<%s> failed\n", func);
    }
    complete(result);
    return TRUE;
}

// A record just made, held until the device list or the node list takes it.
template <typename T> std::unique_ptr<T> owned(T *record)
{
    return std::unique_ptr<T>(record);
}

// The device list takes the record (it is freed if that throws); the
// pointer stays valid for the caller.
template <typename T> T *register_owned(std::unique_ptr<T> &rec)
{
    device_register(rec.get());
    return rec.release();
}

template <typename Kind> typename Kind::record *find_of_kind(uint32_t dev_id)
{
    // By the record's own kind, whatever dev_comm_type says.
    return dynamic_cast<typename Kind::record *>(device_find(dev_id));
}

// Answers 1 for an id any device already has (of either kind); otherwise
// builds the record with `create` and binds and registers it.
template <typename Kind, typename Create>
int device_add(const char *func, uint32_t dev_id, Create create)
{
    if (device_find(dev_id) != nullptr) {
        plc_error_report(Kind::module, func, __LINE__, Kind::same_id);
        return 1;
    }
    std::unique_ptr<typename Kind::record> rec(create());
    if (rec == nullptr)
        return 2;
    rec->driver = device_driver_match(rec.get());
    if (rec->driver == nullptr)
        return 2;
    if (Kind::announce_before_register)
        g_print("===> dev add: dev_name:%s, dev_id:%d\n", rec->dev_name.c_str(), rec->dev_id);
    auto *dev = register_owned(rec);
    Kind::db_add(dev); // memory wins: a row that cannot be written is not fatal
    if (!Kind::announce_before_register)
        g_print("===> dev add: dev_name:%s, dev_id:%d\n", dev->dev_name.c_str(), dev->dev_id);
    return 0;
}

// `req` is the record built from the request.
template <typename Kind> int device_mdf(const char *func, std::unique_ptr<typename Kind::record> req)
{
    auto *dev = find_of_kind<Kind>(req->dev_id);
    if (dev == nullptr) {
        plc_error_report(Kind::module, func, __LINE__, Kind::not_exist);
        return 6;
    }
    if (dev->dev_mfg != req->dev_mfg || dev->dev_type != req->dev_type) {
        // A new model is a new device: the old one goes with its nodes, in
        // memory and in the database, even if the new one cannot be bound.
        for (GList *l = get_node_table_list(); l != nullptr;) {
            auto *n = static_cast<node *>(l->data);
            l = l->next;
            if (n->dev_id == dev->dev_id) {
                on_delete_node_table(n->node_id);
                node_table_del_one(n->node_id);
            }
        }
        g_print("===> dev del: dev_name:%s, dev_id:%d\n", dev->dev_name.c_str(), dev->dev_id);
        Kind::db_delete(dev->dev_id);
        device_unregister(dev);
        delete dev;
        req->driver = device_driver_match(req.get());
        if (req->driver == nullptr)
            return 2;
        g_print("===> dev add: dev_name:%s, dev_id:%d\n", req->dev_name.c_str(), req->dev_id);
        Kind::db_add(register_owned(req));
        return 0;
    }
    g_print("===> dev mdf: dev_name:%s, dev_id:%d\n", dev->dev_name.c_str(), dev->dev_id);
    dev->dev_comm_type = req->dev_comm_type;
    dev->dev_name = req->dev_name;
    // Nodes carry their device's name; renamed in memory only, the rows
    // keep the old name until the nodes are written again.
    for (GList *l = get_node_table_list(); l != nullptr; l = l->next) {
        auto *n = static_cast<node *>(l->data);
        if (n->dev_id == dev->dev_id)
            n->dev_name = req->dev_name;
    }
    Kind::copy_settings(dev, req.get());
    Kind::db_update(dev);
    return 0;
}

template <typename Kind> int device_del(const char *func, uint32_t dev_id)
{
    if (open_database() != 0)
        return -1;
    bool failed = begin_transaction() != 0;
    if (!failed && Kind::db_table_delete(dev_id) != 0) {
        rollback();
        failed = true;
    }
    if (!failed) {
        for (GList *l = get_node_table_list(); l != nullptr; l = l->next) {
            auto *n = static_cast<node *>(l->data);
            if (n->dev_id == dev_id && delete_node_from_node_table(n->node_id) != 0) {
                rollback();
                failed = true;
                break;
            }
            if (Kind::commit_per_node)
                commit_transaction(); // after the first, each only reports "no transaction"
        }
        if (!failed && !Kind::commit_per_node)
            failed = commit_transaction() != 0;
        // Serial: with no node at all there is no commit, and closing the
        // database discards the row's deletion; the row comes back at restart.
    }
    close_database();
    if (failed)
        return -1;

    auto *dev = find_of_kind<Kind>(dev_id);
    if (dev == nullptr) {
        plc_error_report(Kind::module, func, __LINE__, Kind::not_exist);
        return 6;
    }
    remove_device(dev);
    return 0;
}

// `items` are records built from the request's elements, in order.
template <typename Kind> int device_sync(std::vector<std::unique_ptr<typename Kind::record>> items)
{
    bool failed = open_database() != 0;
    if (!failed) {
        if (begin_transaction() != 0 || Kind::db_table_clean() != 0) {
            rollback();
            failed = true;
        } else {
            for (const auto &rec : items) {
                if (Kind::db_table_add(rec.get()) != 0) {
                    rollback();
                    failed = true;
                    break;
                }
            }
            if (!failed)
                failed = commit_transaction() != 0;
        }
        close_database();
    }
    if (failed)
        return 3;
    for (GSList *l = get_activated_device(); l != nullptr;) {
        auto *dev = static_cast<plc_device *>(l->data);
        l = l->next;
        if (dev->dev_comm_type == Kind::comm)
            remove_device(dev); // nodes go from memory only: their rows stay
    }
    size_t added = 0;
    for (auto &rec : items) {
        if (device_find(rec->dev_id) != nullptr)
            continue;
        rec->driver = device_driver_match(rec.get());
        if (rec->driver == nullptr)
            continue;
        g_print("===> dev add: dev_name:%s, dev_id:%d\n", rec->dev_name.c_str(), rec->dev_id);
        register_owned(rec);
        ++added;
    }
    return added == items.size() ? 0 : 3;
}

} // namespace plc_handlers
