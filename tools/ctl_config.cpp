#include "ctl_config.h"

#include <json-glib/json-glib.h>

#include <cstdlib>
#include <map>

namespace ctl {

namespace {

const Model models[] = {
    {"FX-3U", 1, 101, 0},   {"FX-1N", 1, 102, 0},        {"FX-5U", 1, 103, 1},
    {"QnA_3E", 1, 104, 1},  {"Q-serial", 1, 105, 0},     {"S7-200", 2, 1, 0},
    {"S7-200 Smart", 2, 2, 1}, {"S7-1200", 2, 3, 1},     {"S7-1500", 2, 4, 1},
    {"S7-300", 2, 5, 1},    {"S7-400", 2, 6, 1},         {"DVP-32EC", 3, 201, 0},
};

const char *const type_names[] = {"Bit",   "U8",    "S8",    "U16",   "S16",
                                  "U32",   "S32",   "BCD16", "BCD32", "Float",
                                  "HEX16", "HEX32", "BIN16", "BIN32", "String"};

std::optional<uint32_t> number_of(const std::string &s)
{
    if (s.empty())
        return std::nullopt;
    char *end = nullptr;
    const unsigned long v = strtoul(s.c_str(), &end, 10);
    if (*end != '\0' || v > 0xFFFFFFFFul)
        return std::nullopt;
    return static_cast<uint32_t>(v);
}

// Reads one object's members with the place of each in error texts.
class Fields {
public:
    Fields(JsonObject *obj, std::string where) : obj_(obj), where_(std::move(where)) {}

    bool u32(const char *name, uint32_t &out, std::string &err, std::optional<uint32_t> def = {})
    {
        JsonNode *n = json_object_get_member(obj_, name);
        if (n == nullptr) {
            if (def) {
                out = *def;
                return true;
            }
            err = where_ + "." + name + ": missing field";
            return false;
        }
        if (JSON_NODE_HOLDS_VALUE(n) && json_node_get_value_type(n) == G_TYPE_INT64) {
            const gint64 v = json_node_get_int(n);
            if (v >= 0 && v <= 0xFFFFFFFFll) {
                out = static_cast<uint32_t>(v);
                return true;
            }
        }
        err = where_ + "." + name + ": expected a whole number from 0 to 4294967295";
        return false;
    }

    bool i32(const char *name, int32_t &out, std::string &err)
    {
        JsonNode *n = json_object_get_member(obj_, name);
        if (n == nullptr) {
            out = 0;
            return true;
        }
        if (JSON_NODE_HOLDS_VALUE(n) && json_node_get_value_type(n) == G_TYPE_INT64) {
            const gint64 v = json_node_get_int(n);
            if (v >= INT32_MIN && v <= INT32_MAX) {
                out = static_cast<int32_t>(v);
                return true;
            }
        }
        err = where_ + "." + name + ": expected a whole number from -2147483648 to 2147483647";
        return false;
    }

    bool boolean(const char *name, gboolean &out, std::string &err)
    {
        JsonNode *n = json_object_get_member(obj_, name);
        if (n == nullptr) {
            out = FALSE;
            return true;
        }
        if (JSON_NODE_HOLDS_VALUE(n) && json_node_get_value_type(n) == G_TYPE_BOOLEAN) {
            out = json_node_get_boolean(n);
            return true;
        }
        err = where_ + "." + name + ": expected true or false";
        return false;
    }

    bool text(const char *name, std::string &out, std::string &err, bool required)
    {
        JsonNode *n = json_object_get_member(obj_, name);
        if (n == nullptr) {
            if (!required) {
                out.clear();
                return true;
            }
            err = where_ + "." + name + ": missing field";
            return false;
        }
        if (JSON_NODE_HOLDS_VALUE(n) && json_node_get_value_type(n) == G_TYPE_STRING) {
            out = json_node_get_string(n);
            return true;
        }
        err = where_ + "." + name + ": expected a text";
        return false;
    }

    // A name or a number, resolved by `find`.
    template <typename Find>
    bool named(const char *name, Find find, decltype(find(std::string())) &out, std::string &err,
               const char *what)
    {
        JsonNode *n = json_object_get_member(obj_, name);
        if (n == nullptr) {
            err = where_ + "." + name + ": missing field";
            return false;
        }
        std::string key;
        if (JSON_NODE_HOLDS_VALUE(n) && json_node_get_value_type(n) == G_TYPE_STRING)
            key = json_node_get_string(n);
        else if (JSON_NODE_HOLDS_VALUE(n) && json_node_get_value_type(n) == G_TYPE_INT64)
            key = std::to_string(json_node_get_int(n));
        out = find(key);
        if (!out) {
            err = where_ + "." + name + ": unknown " + what + " '" + key + "'";
            return false;
        }
        return true;
    }

private:
    JsonObject *obj_;
    std::string where_;
};

// Runs `each` on every object of an optional array member.
template <typename Each>
bool for_each_object(JsonObject *root, const char *member, const std::string &file, std::string &err,
                     Each each)
{
    JsonNode *arr = json_object_get_member(root, member);
    if (arr == nullptr)
        return true;
    if (!JSON_NODE_HOLDS_ARRAY(arr)) {
        err = file + ": " + member + ": expected an array";
        return false;
    }
    JsonArray *a = json_node_get_array(arr);
    for (guint i = 0; i < json_array_get_length(a); ++i) {
        const std::string where = file + ": " + member + "[" + std::to_string(i) + "]";
        JsonNode *el = json_array_get_element(a, i);
        if (!JSON_NODE_HOLDS_OBJECT(el)) {
            err = where + ": expected an object";
            return false;
        }
        if (!each(Fields(json_node_get_object(el), where), where))
            return false;
    }
    return true;
}

uint32_t parity_of(const std::string &s)
{
    if (s == "none" || s == "n")
        return 0;
    if (s == "even" || s == "e")
        return 1;
    if (s == "odd" || s == "o")
        return 2;
    return 99;
}

} // namespace

std::optional<Model> find_model(const std::string &name_or_number)
{
    const auto number = number_of(name_or_number);
    for (const auto &m : models) {
        if (g_ascii_strcasecmp(m.name, name_or_number.c_str()) == 0 || (number && *number == m.type))
            return m;
    }
    return std::nullopt;
}

const char *model_name(uint32_t type)
{
    for (const auto &m : models)
        if (m.type == type)
            return m.name;
    return "Unknown";
}

std::optional<uint32_t> find_data_type(const std::string &name_or_number)
{
    const auto number = number_of(name_or_number);
    for (uint32_t i = 0; i < G_N_ELEMENTS(type_names); ++i) {
        if (g_ascii_strcasecmp(type_names[i], name_or_number.c_str()) == 0 ||
            (number && *number == i + 1))
            return i + 1;
    }
    return std::nullopt;
}

const char *data_type_name(uint32_t type)
{
    return type >= 1 && type <= G_N_ELEMENTS(type_names) ? type_names[type - 1] : "Unknown";
}

const char *result_text(int code)
{
    switch (code) {
    case 0: return "done";
    case 1: return "a device with this dev_id already exists";
    case 2: return "could not be created, no driver for this model, or not every node added";
    case 3: return "bulk synchronisation incomplete";
    case 6: return "no such device or node";
    case -1: return "database failure, nothing changed";
    default: return "unknown result";
    }
}

Config::~Config()
{
    for (GVariant *v : {serial, ethernet, nodes})
        if (v != nullptr)
            g_variant_unref(v);
}

bool parse_config(const std::string &file, const std::string &text, Config &out, std::string &err)
{
    JsonParser *parser = json_parser_new();
    GError *error = nullptr;
    if (!json_parser_load_from_data(parser, text.c_str(), static_cast<gssize>(text.size()), &error)) {
        err = file + ":" + (error != nullptr ? error->message : "not JSON");
        // json-glib says "<data>:LINE:COL: Parse error: ..."; keep line and column.
        const std::string data = "<data>";
        if (err.find(data) != std::string::npos)
            err.replace(err.find(data), data.size() + 1, "");
        g_clear_error(&error);
        g_object_unref(parser);
        return false;
    }
    JsonNode *root = json_parser_get_root(parser);
    if (root == nullptr || !JSON_NODE_HOLDS_OBJECT(root)) {
        err = file + ": expected an object with serial_devices, ethernet_devices and nodes";
        g_object_unref(parser);
        return false;
    }
    JsonObject *obj = json_node_get_object(root);
    std::map<uint32_t, std::string> device_names;
    GVariantBuilder serial, ethernet, nodes;
    g_variant_builder_init(&serial, G_VARIANT_TYPE("a(uuuusuuuuuuu)"));
    g_variant_builder_init(&ethernet, G_VARIANT_TYPE("a(uuuussuuu)"));
    g_variant_builder_init(&nodes, G_VARIANT_TYPE("a(suussusubbuuiuuiss)"));

    auto device_head = [&](Fields &f, const std::string &where, uint32_t comm, uint32_t &id,
                           std::string &name, std::optional<Model> &model) {
        if (!f.u32("dev_id", id, err) || !f.text("name", name, err, true) ||
            !f.named("model", find_model, model, err, "model"))
            return false;
        if (model->comm != comm) {
            err = where + ".model: " + model->name + " is " +
                  (comm == 0 ? "an Ethernet model" : "a serial model");
            return false;
        }
        if (!device_names.emplace(id, name).second) {
            err = where + ".dev_id: " + std::to_string(id) + " is used twice";
            return false;
        }
        return true;
    };

    bool ok = for_each_object(obj, "serial_devices", file, err, [&](Fields f, const std::string &where) {
        uint32_t id, station, line_type, port, baud, data, stop, parity;
        std::string name, parity_text;
        std::optional<Model> model;
        if (!device_head(f, where, 0, id, name, model) || !f.u32("port", port, err) ||
            !f.u32("station", station, err, 0) || !f.u32("line_type", line_type, err, 0) ||
            !f.u32("baudrate", baud, err, 9600) || !f.u32("data_bits", data, err, 8) ||
            !f.u32("stop_bits", stop, err, 1) || !f.text("parity", parity_text, err, false))
            return false;
        parity = parity_text.empty() ? 0 : parity_of(parity_text);
        if (parity == 99) {
            err = where + ".parity: expected none, even or odd";
            return false;
        }
        g_variant_builder_add(&serial, "(uuuusuuuuuuu)", id, 0u, model->mfg, model->type,
                              name.c_str(), station, line_type, port, baud, data, stop, parity);
        return true;
    });
    ok = ok && for_each_object(obj, "ethernet_devices", file, err, [&](Fields f, const std::string &where) {
        uint32_t id, port, rack, slot;
        std::string name, ip;
        std::optional<Model> model;
        if (!device_head(f, where, 1, id, name, model) || !f.text("ip", ip, err, true) ||
            !f.u32("port", port, err) || !f.u32("rack", rack, err, 0) || !f.u32("slot", slot, err, 1))
            return false;
        g_variant_builder_add(&ethernet, "(uuuussuuu)", id, 1u, model->mfg, model->type,
                              name.c_str(), ip.c_str(), port, rack, slot);
        return true;
    });
    ok = ok && for_each_object(obj, "nodes", file, err, [&](Fields f, const std::string &where) {
        uint32_t node_id, dev_id, perm, alarm_bit, cmaj, op, cmin;
        int32_t vmaj, vmin;
        gboolean report, alarm;
        std::string name, addr, unit, content, desc;
        std::optional<uint32_t> type;
        if (!f.u32("node_id", node_id, err) || !f.u32("dev_id", dev_id, err) ||
            !f.text("name", name, err, true) || !f.text("address", addr, err, true) ||
            !f.named("type", find_data_type, type, err, "data type") ||
            !f.text("unit", unit, err, false) || !f.u32("permission", perm, err, 0) ||
            !f.boolean("report", report, err) || !f.boolean("alarm", alarm, err) ||
            !f.u32("alarm_bit", alarm_bit, err, 0) || !f.u32("alarm_condition_major", cmaj, err, 0) ||
            !f.i32("alarm_value_major", vmaj, err) || !f.u32("alarm_operation", op, err, 0) ||
            !f.u32("alarm_condition_minor", cmin, err, 0) || !f.i32("alarm_value_minor", vmin, err) ||
            !f.text("alarm_content", content, err, false) || !f.text("description", desc, err, false))
            return false;
        auto dev = device_names.find(dev_id);
        if (dev == device_names.end()) {
            err = where + ".dev_id: no device " + std::to_string(dev_id) + " in this file";
            return false;
        }
        g_variant_builder_add(&nodes, "(suussusubbuuiuuiss)", dev->second.c_str(), dev_id, node_id,
                              name.c_str(), addr.c_str(), *type, unit.c_str(), perm, report, alarm,
                              alarm_bit, cmaj, vmaj, op, cmin, vmin, content.c_str(), desc.c_str());
        return true;
    });
    if (ok) {
        out.serial = g_variant_ref_sink(g_variant_builder_end(&serial));
        out.ethernet = g_variant_ref_sink(g_variant_builder_end(&ethernet));
        out.nodes = g_variant_ref_sink(g_variant_builder_end(&nodes));
    } else {
        g_variant_builder_clear(&serial);
        g_variant_builder_clear(&ethernet);
        g_variant_builder_clear(&nodes);
    }
    g_object_unref(parser);
    return ok;
}

} // namespace ctl
