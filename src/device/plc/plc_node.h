// Node (data point) record and the node table list.
#pragma once

#include <glib.h>

#include "device/plc/node_memory.h"
#include "device/plc/node_text.h"
#include "device/plc/plc_device.h"

// Texts are node_text: 24 bytes each, no heap block up to 23 characters;
// unit, alarm content and description are node_rare_texts.
struct node {
    node_text dev_name;
    uint32_t dev_id = 0;
    uint32_t node_id = 0;
    node_text node_name;
    node_text node_addr;
    node_rare_texts rare; // node_unit, node_alarm_content, node_description
    uint32_t node_data_type = 0;
    uint32_t node_permission = 0;
    int32_t node_report_enable = 0;
    int32_t node_alarm_enable = 0;
    uint32_t node_alarm_bit = 0;
    uint32_t node_alarm_condition_major = 0;
    int32_t node_alarm_value_major = 0;
    uint32_t node_alarm_operation_type = 0;
    uint32_t node_alarm_condition_minor = 0;
    int32_t node_alarm_value_minor = 0;

    // Records live apart from the heap: see node_memory.h.
    static void *operator new(size_t size) { return node_memory_alloc(size); }
    static void operator delete(void *p, size_t size) noexcept { node_memory_free(p, size); }
};

// What a node costs: the README counts on it.
static_assert(sizeof(node) == 128);

inline constexpr const char PLC_NODE_MODULE[] = "device/plc/plc_node";

node *node_create(const char *dev_name, uint32_t dev_id, uint32_t node_id, const char *node_name,
                  const char *node_addr, uint32_t node_data_type, const char *node_unit,
                  uint32_t node_permission, int32_t node_report_enable, int32_t node_alarm_enable,
                  uint32_t node_alarm_bit, uint32_t node_alarm_condition_major,
                  int32_t node_alarm_value_major, uint32_t node_alarm_operation_type,
                  uint32_t node_alarm_condition_minor, int32_t node_alarm_value_minor,
                  const char *node_alarm_content, const char *node_description);
// A new record with the same fields.
node *node_copy(const node *src);
void node_free(node *n);
void node_show(const node *n);

// The node table list, in insertion order; it owns its nodes and its cells
// (which are not GLib's: nobody but this table links or frees them). Every caller
// holds node_table_slist_mutex or runs before the reading thread exists.
// Elements are node pointers.
GList *get_node_table_list();
int node_table_add_one(node *n);
int node_table_del_one(uint32_t node_id);
void node_table_del_all();
// Index lookup beside the list: the node with this id, or null.
node *node_table_find(uint32_t node_id);
size_t node_table_length();
