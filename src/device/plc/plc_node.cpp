#include "device/plc/plc_node.h"

#include <new>
#include <unordered_map>

namespace {

// The list keeps order and ownership; the index beside it keeps lookups by
// node_id constant-time so that bulk requests of tens of thousands of nodes
// stay linear.
GList *node_table_slist = nullptr;
GList *node_table_tail = nullptr;
std::unordered_map<uint32_t, GList *, std::hash<uint32_t>, std::equal_to<uint32_t>,
                   node_memory_allocator<std::pair<const uint32_t, GList *>>>
    node_index;

void unlink_cell(GList *cell)
{
    if (cell == node_table_tail)
        node_table_tail = cell->prev;
    if (cell->prev != nullptr)
        cell->prev->next = cell->next;
    else
        node_table_slist = cell->next;
    if (cell->next != nullptr)
        cell->next->prev = cell->prev;
    node_memory_free(cell, sizeof *cell);
}

void print_node_del(const node *n)
{
    g_print("===> node del: dev_name:%s, dev_id:%d, node_id:%d\n", n->dev_name.c_str(), n->dev_id,
            n->node_id);
}

} // namespace

node *node_create(const char *dev_name, uint32_t dev_id, uint32_t node_id, const char *node_name,
                  const char *node_addr, uint32_t node_data_type, const char *node_unit,
                  uint32_t node_permission, int32_t node_report_enable, int32_t node_alarm_enable,
                  uint32_t node_alarm_bit, uint32_t node_alarm_condition_major,
                  int32_t node_alarm_value_major, uint32_t node_alarm_operation_type,
                  uint32_t node_alarm_condition_minor, int32_t node_alarm_value_minor,
                  const char *node_alarm_content, const char *node_description)
{
    auto text = [](const char *s) { return s != nullptr ? s : ""; };
    node *n = nullptr;
    try {
        n = new node;
        n->dev_name = text(dev_name);
        n->node_name = text(node_name);
        n->node_addr = text(node_addr);
        n->rare = node_rare_texts(node_unit, node_alarm_content, node_description);
    } catch (const std::bad_alloc &) {
        delete n;
        PLC_ERROR_REPORT(PLC_NODE_MODULE, "node create failed.");
        return nullptr;
    }
    n->dev_id = dev_id;
    n->node_id = node_id;
    n->node_data_type = node_data_type;
    n->node_permission = node_permission;
    n->node_report_enable = node_report_enable;
    n->node_alarm_enable = node_alarm_enable;
    n->node_alarm_bit = node_alarm_bit;
    n->node_alarm_condition_major = node_alarm_condition_major;
    n->node_alarm_value_major = node_alarm_value_major;
    n->node_alarm_operation_type = node_alarm_operation_type;
    n->node_alarm_condition_minor = node_alarm_condition_minor;
    n->node_alarm_value_minor = node_alarm_value_minor;
    return n;
}

node *node_copy(const node *src)
{
    if (src == nullptr)
        return nullptr;
    return node_create(src->dev_name.c_str(), src->dev_id, src->node_id, src->node_name.c_str(),
                       src->node_addr.c_str(), src->node_data_type, src->rare.unit(),
                       src->node_permission, src->node_report_enable, src->node_alarm_enable,
                       src->node_alarm_bit, src->node_alarm_condition_major,
                       src->node_alarm_value_major, src->node_alarm_operation_type,
                       src->node_alarm_condition_minor, src->node_alarm_value_minor,
                       src->rare.alarm_content(), src->rare.description());
}

void node_free(node *n)
{
    delete n;
}

void node_show(const node *n)
{
    if (n == nullptr)
        return;
    g_print("\t ================================================================================\n");
    g_print("\t dev_name: %s\n\t dev_id: %d\n\t node_id: %d\n\t node_ame: %s\n\t node_addr: %s\n\t "
            "node_data_type: %d\n\t node_unit: %s\n\t node_permission: %d\n\t node_report_enable: "
            "%d\n\t node_alarm_enable: %d\n\t node_alarm_bit: %d\n\t node_alarm_condition_major: "
            "%d\n\t node_alarm_value_major: %d\n\t node_alarm_operation_type: %d\n\t "
            "node_alarm_condition_minor: %d\n\t node_alarm_value_minor: %d\n\t "
            "node_alarm_content: %s\n\t node_description: %s\n",
            n->dev_name.c_str(), n->dev_id, n->node_id, n->node_name.c_str(), n->node_addr.c_str(),
            n->node_data_type, n->rare.unit(), n->node_permission, n->node_report_enable,
            n->node_alarm_enable, n->node_alarm_bit, n->node_alarm_condition_major,
            n->node_alarm_value_major, n->node_alarm_operation_type,
            n->node_alarm_condition_minor, n->node_alarm_value_minor,
            n->rare.alarm_content(), n->rare.description());
}

GList *get_node_table_list()
{
    return node_table_slist;
}

int node_table_add_one(node *n)
{
    if (n == nullptr)
        return -1;
    if (node_index.count(n->node_id) != 0) {
        PLC_ERROR_REPORT(PLC_NODE_MODULE, "same node id.");
        return -1;
    }
    GList *cell = nullptr;
    try {
        cell = static_cast<GList *>(node_memory_alloc(sizeof *cell));
        node_index.emplace(n->node_id, cell);
    } catch (const std::bad_alloc &) {
        node_memory_free(cell, sizeof *cell);
        return -1;
    }
    cell->data = n;
    cell->prev = node_table_tail;
    cell->next = nullptr;
    if (node_table_tail != nullptr)
        node_table_tail->next = cell;
    else
        node_table_slist = cell;
    node_table_tail = cell;
    return 0;
}

int node_table_del_one(uint32_t node_id)
{
    auto it = node_index.find(node_id);
    if (it == node_index.end()) {
        PLC_ERROR_REPORT(PLC_NODE_MODULE, "node not exist.");
        return -1;
    }
    GList *cell = it->second;
    node *n = static_cast<node *>(cell->data);
    print_node_del(n);
    node_index.erase(it);
    unlink_cell(cell);
    node_free(n);
    return 0;
}

void node_table_del_all()
{
    while (node_table_slist != nullptr) {
        GList *cell = node_table_slist;
        node *n = static_cast<node *>(cell->data);
        print_node_del(n);
        node_index.erase(n->node_id);
        unlink_cell(cell);
        node_free(n);
    }
}

node *node_table_find(uint32_t node_id)
{
    auto it = node_index.find(node_id);
    return it == node_index.end() ? nullptr : static_cast<node *>(it->second->data);
}

size_t node_table_length()
{
    return node_index.size();
}
