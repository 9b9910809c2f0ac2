#include "acquisition/acquisition.h"

#include <glib.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>

#include "acquisition/node_array.h"
#include "base/handles.h"

#include "device/registry/driver.h"
#include "device/plc/plc_ethernet.h"
#include "device/plc/plc_node.h"
#include "device/plc/plc_serial.h"
#include "base/runtime.h"

namespace {

// Waits out a configuration change that is still running (flag 1). Called
// with the lock released: a handler holds it for the whole change.
void wait_change_done()
{
    while (List_Change_Flag.load() == 1)
        sleep(1);
}

plc_device *copy_device(const plc_device *dev)
{
    // dev_comm_type decides whether the device is read at all; the copy is of
    // the record itself, so a device sent with the other kind's dev_comm is
    // copied whole instead of being read in the wrong layout (its driver then
    // refuses it).
    if (dev->dev_comm_type != DEV_COMM_SERIAL && dev->dev_comm_type != DEV_COMM_ETHERNET)
        return nullptr;
    if (const serial_device *serial = as_serial(dev))
        return serial_device_copy(serial);
    return ethernet_device_copy(as_ethernet(dev));
}

enum class pass_result { done, aborted };

// What one read needs from a node, copied under the lock into buffers that
// keep their memory from node to node and cycle to cycle.
struct node_read {
    std::string name;
    std::string addr;
    uint32_t data_type = 0;
    char value[NODE_VALUE_SIZE] = {};

    void take(const node *live)
    {
        name.assign(live->node_name.c_str(), live->node_name.size());
        addr.assign(live->node_addr.c_str(), live->node_addr.size());
        data_type = live->node_data_type;
        memset(value, 0, sizeof value);
    }
};

// Reads the nodes of one opened device. Only nodes the device owns are
// copied: the per-node cost does not grow with other devices' nodes beyond
// an id comparison under the lock.
pass_result read_device_nodes(plc_device *dev, node_read &rd, node_array_writer &nodes)
{
    GList *cur = nullptr;
    bool first = true;
    for (;;) {
        bool mine = false;
        {
            std::unique_lock<std::mutex> lock(node_table_slist_mutex);
            if (List_Change_Flag.load() != 0) {
                g_print("-----------------Abort 1-------------------------\n");
                lock.unlock();
                wait_change_done();
                return pass_result::aborted;
            }
            // With the flag still 0 no handler has touched the list since the
            // cycle began, so the cell we stopped at is still linked.
            cur = first ? get_node_table_list() : cur->next;
            first = false;
            if (cur == nullptr)
                return pass_result::done;
            const auto *live = static_cast<const node *>(cur->data);
            if (live->dev_id == dev->dev_id) {
                rd.take(live);
                mine = true;
            }
        }
        if (mine) {
            if (dev->driver->read(dev, rd.addr.data(), rd.data_type, rd.value) != 0) {
                g_warning("%s:%d %s = NULL\n", "read_PLC_nodes_3", 665, rd.addr.c_str());
            } else {
                rd.value[NODE_VALUE_SIZE - 1] = '\0';
                nodes.add(rd.name.c_str(), rd.addr.c_str(), rd.data_type, rd.value);
            }
        }
        if (List_Change_Flag.load() != 0) {
            g_print("-----------------Abort 2-------------------------\n");
            wait_change_done();
            return pass_result::aborted;
        }
    }
}

// The buffers of the reading thread, reused from cycle to cycle.
struct cycle_buffers {
    node_read rd;
    node_array_writer nodes;
};

// One cycle; true when it completed and was emitted.
bool run_cycle(cycle_buffers &buf)
{
    g_message("read nodes table :\n");
    List_Change_Flag.store(0);
    gvariant_builder cycle(G_VARIANT_TYPE("a(usuuv)"));

    GSList *cur = nullptr;
    bool first = true;
    for (;;) {
        std::unique_ptr<plc_device> dev;
        {
            std::unique_lock<std::mutex> lock(node_table_slist_mutex);
            if (List_Change_Flag.load() != 0) {
                g_print("-----------------Abort 0-------------------------\n");
                lock.unlock();
                wait_change_done();
                return false;
            }
            cur = first ? get_activated_device() : cur->next;
            first = false;
            if (cur == nullptr)
                break;
            const auto *live = static_cast<const plc_device *>(cur->data);
            dev.reset(copy_device(live));
            if (dev == nullptr)
                break; // a record of unknown kind ends this cycle's walk
            dev->driver = live->driver;
        }

        buf.nodes.clear();
        if (dev->driver->open(dev.get()) == 0) {
            const pass_result pass = read_device_nodes(dev.get(), buf.rd, buf.nodes);
            dev->driver->release(dev.get());
            if (pass == pass_result::aborted)
                return false;
        }
        g_variant_builder_add(cycle.get(), "(usuu@v)", dev->dev_id, dev->dev_name.c_str(), dev->dev_mfg,
                              dev->dev_type, g_variant_new_variant(buf.nodes.end()));

        if (List_Change_Flag.load() != 0) {
            g_print("-----------------Abort 3-------------------------\n");
            wait_change_done();
            return false;
        }
    }

    const gvariant_owner value(g_variant_ref_sink(cycle.end()));
    if (GatewayDeviceService *sk = skeleton.load())
        gateway_device_service_emit_nodes(sk, value.get());
    return true;
}

} // namespace

void read_PLC_nodes_3()
{
    cycle_buffers buf;
    for (;;) {
        if (run_cycle(buf))
            sleep(scan_interval.load());
    }
}

void *thread_start(void * /*arg*/)
{
    while (device_Flag_systemService_launch.load() != 1) {
        g_print("waiting systemService ... \n");
        sleep(1);
    }
    read_PLC_nodes_3();
}
