#include "config/device_handlers.h"

#include <malloc.h>

#include "device/plc/plc_ethernet.h"
#include "device/plc/plc_serial.h"

void give_back_message_memory()
{
    // The invocation, and with it the message, is released once the handler
    // has answered and its dispatch is over: the next idle turn of the main
    // loop comes after that.
    g_idle_add(
        [](gpointer) -> gboolean {
            malloc_trim(0);
            return G_SOURCE_REMOVE;
        },
        nullptr);
}

void delete_nodes_of_device(uint32_t dev_id)
{
    std::vector<uint32_t> ids;
    for (GList *l = get_node_table_list(); l != nullptr; l = l->next) {
        const auto *n = static_cast<const node *>(l->data);
        if (n->dev_id == dev_id)
            ids.push_back(n->node_id);
    }
    for (uint32_t id : ids)
        node_table_del_one(id);
}

void remove_device(plc_device *dev, const plc_device *named)
{
    delete_nodes_of_device(dev->dev_id);
    const plc_device *shown = named != nullptr ? named : dev;
    g_print("===> dev del: dev_name:%s, dev_id:%d\n", shown->dev_name.c_str(), shown->dev_id);
    device_unregister(dev);
    delete dev;
}
