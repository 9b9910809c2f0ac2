#include "ctl_config.h"

#include <arpa/inet.h>
#include <json-glib/json-glib.h>

#include <cstring>
#include <initializer_list>
#include <memory>
#include <set>

#include "base/handles.h"

namespace ctl {

namespace {

// Model 105 has no display text of its own in the daemon ("Unknown"), so
// the client gives it one.
const std::vector<Model> model_table = {
    {"FX-3U", 1, 101, 0},         {"FX-1N", 1, 102, 0},   {"FX-5U", 1, 103, 1},
    {"QnA_3E", 1, 104, 1},        {"Q-serial", 1, 105, 0}, {"S7-200", 2, 1, 0},
    {"S7-200 Smart", 2, 2, 1},    {"S7-1200", 2, 3, 1},   {"S7-1500", 2, 4, 1},
    {"S7-300", 2, 5, 1},          {"S7-400", 2, 6, 1},    {"DVP-32EC", 3, 201, 0},
};

const char *const type_names[] = {"Bit",   "U8",    "S8",    "U16",   "S16",
                                  "U32",   "S32",   "BCD16", "BCD32", "Float",
                                  "HEX16", "HEX32", "BIN16", "BIN32", "String"};

// The port a model's protocol listens on unless the PLC was set otherwise;
// 0 where there is no such convention (the MC protocol port is configured
// in the CPU's parameters).
uint32_t usual_port(uint32_t type)
{
    if (type == 103)
        return 502;
    if (type >= 2 && type <= 6)
        return 102;
    return 0;
}

bool same_text(std::string_view a, const char *b)
{
    return a.size() == strlen(b) && g_ascii_strncasecmp(a.data(), b, a.size()) == 0;
}

std::optional<int64_t> parse_integer(std::string_view s)
{
    const bool negative = !s.empty() && s[0] == '-';
    if (negative)
        s.remove_prefix(1);
    if (s.empty() || s.size() > 10)
        return std::nullopt;
    int64_t v = 0;
    for (char c : s) {
        if (c < '0' || c > '9')
            return std::nullopt;
        v = v * 10 + (c - '0');
    }
    return negative ? -v : v;
}

template <typename List>
std::string joined(const List &items)
{
    std::string s;
    for (const auto &i : items)
        s += (s.empty() ? "" : ", ") + std::string(i);
    return s;
}

std::string model_list()
{
    std::vector<const char *> names;
    for (const auto &m : model_table)
        names.push_back(m.name);
    return joined(names);
}

// The members of one JSON object, or the options of one command, read by
// name; each reader leaves one line naming the place in `err_` when it fails.
class Fields {
public:
    Fields(JsonObject *obj, std::string prefix, std::string &err)
        : obj_(obj), prefix_(std::move(prefix)), err_(err)
    {
    }
    Fields(const Options &opts, std::string &err) : opts_(&opts), err_(err) {}

    // Fields outside `keys` are mistakes (a misspelt name must not fall
    // back silently to a default).
    bool only(const std::vector<const char *> &keys)
    {
        std::set<std::string> known;
        for (const char *k : keys)
            known.insert(opts_ != nullptr ? dashed(k) : k);
        std::vector<std::string> present;
        if (opts_ != nullptr) {
            for (const auto &[name, value] : *opts_)
                present.push_back(name);
        } else {
            GList *members = json_object_get_members(obj_);
            for (GList *m = members; m != nullptr; m = m->next)
                present.push_back(static_cast<const char *>(m->data));
            g_list_free(members);
        }
        for (const auto &p : present) {
            if (known.count(p) == 0) {
                err_ = opts_ != nullptr ? "--" + p + ": unknown option" : prefix_ + p + ": unknown field";
                return false;
            }
        }
        return true;
    }

    bool u32(const char *key, uint32_t &out, std::optional<uint32_t> def = {}, uint32_t lo = 0,
             uint32_t hi = UINT32_MAX)
    {
        std::optional<int64_t> v;
        if (!integer(key, v, def.has_value()))
            return false;
        if (!v) {
            out = *def;
            return true;
        }
        if (*v < lo || *v > hi)
            return range_error(key, lo, hi);
        out = static_cast<uint32_t>(*v);
        return true;
    }

    bool i32(const char *key, int32_t &out)
    {
        std::optional<int64_t> v;
        if (!integer(key, v, true))
            return false;
        if (v && (*v < INT32_MIN || *v > INT32_MAX))
            return range_error(key, INT32_MIN, INT32_MAX);
        out = v ? static_cast<int32_t>(*v) : 0;
        return true;
    }

    bool flag(const char *key, bool &out)
    {
        if (!present(key)) {
            out = false;
            return true;
        }
        if (JsonNode *n = member(key)) {
            if (JSON_NODE_HOLDS_VALUE(n) && json_node_get_value_type(n) == G_TYPE_BOOLEAN) {
                out = json_node_get_boolean(n) != FALSE;
                return true;
            }
        } else {
            const std::string &t = option(key);
            for (const char *word : {"true", "yes", "1", "false", "no", "0"}) {
                if (same_text(t, word)) {
                    out = word[0] == 't' || word[0] == 'y' || word[0] == '1';
                    return true;
                }
            }
        }
        return fail(key, "expected true or false");
    }

    bool text(const char *key, std::string &out, bool required)
    {
        if (!present(key)) {
            out.clear();
            return !required || fail(key, "missing field");
        }
        if (JsonNode *n = member(key)) {
            if (!(JSON_NODE_HOLDS_VALUE(n) && json_node_get_value_type(n) == G_TYPE_STRING))
                return fail(key, "expected a text");
            out = json_node_get_string(n);
        } else {
            out = option(key);
        }
        return true;
    }

    bool model(const char *key, uint32_t comm, Model &out)
    {
        std::string name;
        if (!name_or_number(key, name))
            return false;
        auto m = find_model(name);
        if (!m)
            return fail(key, "unknown model '" + name + "'; known: " + model_list());
        if (m->comm != comm)
            return fail(key, std::string(m->name) +
                                 (m->comm == 0 ? " is a serial model" : " is an Ethernet model"));
        out = *m;
        return true;
    }

    bool data_type(const char *key, uint32_t &out)
    {
        std::string name;
        if (!name_or_number(key, name))
            return false;
        auto t = find_data_type(name);
        if (!t)
            return fail(key, "unknown data type '" + name + "'; known: " + joined(type_names));
        out = *t;
        return true;
    }

    bool parity(const char *key, uint32_t &out)
    {
        if (!present(key)) {
            out = 0;
            return true;
        }
        std::string name;
        if (!name_or_number(key, name))
            return false;
        const char *const words[] = {"none", "even", "odd"};
        for (uint32_t i = 0; i < 3; ++i) {
            if (same_text(name, words[i]) || name == std::to_string(i)) {
                out = i;
                return true;
            }
        }
        return fail(key, "expected none, even or odd");
    }

    bool ipv4(const char *key, std::string &out)
    {
        if (!text(key, out, true))
            return false;
        in_addr a{};
        if (inet_pton(AF_INET, out.c_str(), &a) != 1)
            return fail(key, "expected an IPv4 address such as 192.168.1.10, not '" + out + "'");
        return true;
    }

    std::string place(const char *key) const
    {
        return opts_ != nullptr ? "--" + dashed(key) : prefix_ + key;
    }

    bool fail(const char *key, const std::string &msg)
    {
        err_ = place(key) + ": " + msg;
        return false;
    }

private:
    static std::string dashed(const char *key)
    {
        std::string s = key;
        for (char &c : s)
            if (c == '_')
                c = '-';
        return s;
    }

    bool present(const char *key) const
    {
        return opts_ != nullptr ? opts_->count(dashed(key)) != 0
                                : json_object_has_member(obj_, key) != FALSE;
    }
    JsonNode *member(const char *key) const
    {
        return opts_ != nullptr ? nullptr : json_object_get_member(obj_, key);
    }
    const std::string &option(const char *key) const { return opts_->at(dashed(key)); }

    // An absent field leaves `out` empty when it may be absent.
    bool integer(const char *key, std::optional<int64_t> &out, bool optional)
    {
        out.reset();
        if (!present(key))
            return optional || fail(key, "missing field");
        if (JsonNode *n = member(key)) {
            if (JSON_NODE_HOLDS_VALUE(n) && json_node_get_value_type(n) == G_TYPE_INT64)
                out = json_node_get_int(n);
        } else {
            out = parse_integer(option(key));
        }
        return out.has_value() || fail(key, "expected a whole number");
    }

    bool range_error(const char *key, int64_t lo, int64_t hi)
    {
        return fail(key, "expected a whole number from " + std::to_string(lo) + " to " +
                             std::to_string(hi));
    }

    // Model, data type and parity are given by name or by number.
    bool name_or_number(const char *key, std::string &out)
    {
        if (!present(key))
            return fail(key, "missing field");
        if (JsonNode *n = member(key)) {
            if (JSON_NODE_HOLDS_VALUE(n) && json_node_get_value_type(n) == G_TYPE_STRING)
                out = json_node_get_string(n);
            else if (JSON_NODE_HOLDS_VALUE(n) && json_node_get_value_type(n) == G_TYPE_INT64)
                out = std::to_string(json_node_get_int(n));
            else
                return fail(key, "expected a name or a number");
        } else {
            out = option(key);
        }
        return true;
    }

    JsonObject *obj_ = nullptr;
    const Options *opts_ = nullptr;
    std::string prefix_;
    std::string &err_;
};

bool read_serial(Fields &f, SerialDevice &d)
{
    Model m{};
    if (!f.only({"dev_id", "dev_name", "model", "serial_number", "station_num", "serial_type",
                 "baudrate", "data_bit", "stop_bit", "parity_bit"}) ||
        !f.u32("dev_id", d.dev_id) || !f.text("dev_name", d.dev_name, true) ||
        !f.model("model", 0, m) || !f.u32("serial_number", d.serial_number, {}, 1, 2) ||
        !f.u32("station_num", d.station_num, 0u) || !f.u32("serial_type", d.serial_type, 0u) ||
        !f.u32("baudrate", d.baudrate, 9600u, 1) || !f.u32("data_bit", d.data_bit, 8u, 5, 8) ||
        !f.u32("stop_bit", d.stop_bit, 1u, 1, 2) || !f.parity("parity_bit", d.parity_bit))
        return false;
    d.dev_mfg = m.mfg;
    d.dev_type = m.type;
    return true;
}

bool read_ethernet(Fields &f, EthernetDevice &d)
{
    Model m{};
    if (!f.only({"dev_id", "dev_name", "model", "ip_addr", "port", "rack", "slot"}) ||
        !f.u32("dev_id", d.dev_id) || !f.text("dev_name", d.dev_name, true) ||
        !f.model("model", 1, m) || !f.ipv4("ip_addr", d.ip_addr))
        return false;
    const uint32_t port = usual_port(m.type);
    if (!f.u32("port", d.port, port != 0 ? std::optional<uint32_t>(port) : std::nullopt, 1, 65535) ||
        !f.u32("rack", d.rack, 0u) || !f.u32("slot", d.slot, 1u))
        return false;
    d.dev_mfg = m.mfg;
    d.dev_type = m.type;
    return true;
}

// The node fields after its identity, common to files and options.
bool read_node_body(Fields &f, Node &n)
{
    return f.text("node_name", n.node_name, true) && f.text("node_addr", n.node_addr, true) &&
           f.data_type("node_data_type", n.node_data_type) &&
           f.text("node_unit", n.node_unit, false) &&
           f.u32("node_permission", n.node_permission, 0u) &&
           f.flag("node_report_enable", n.node_report_enable) &&
           f.flag("node_alarm_enable", n.node_alarm_enable) &&
           f.u32("node_alarm_bit", n.node_alarm_bit, 0u) &&
           f.u32("node_alarm_condition_major", n.node_alarm_condition_major, 0u) &&
           f.i32("node_alarm_value_major", n.node_alarm_value_major) &&
           f.u32("node_alarm_operation_type", n.node_alarm_operation_type, 0u) &&
           f.u32("node_alarm_condition_minor", n.node_alarm_condition_minor, 0u) &&
           f.i32("node_alarm_value_minor", n.node_alarm_value_minor) &&
           f.text("node_alarm_content", n.node_alarm_content, false) &&
           f.text("node_description", n.node_description, false);
}

// The fields of a node: its identity (`head`) and what `read_node_body` reads.
std::vector<const char *> node_keys(std::initializer_list<const char *> head)
{
    std::vector<const char *> keys(head);
    for (const char *k :
         {"node_name", "node_addr", "node_data_type", "node_unit", "node_permission",
          "node_report_enable", "node_alarm_enable", "node_alarm_bit", "node_alarm_condition_major",
          "node_alarm_value_major", "node_alarm_operation_type", "node_alarm_condition_minor",
          "node_alarm_value_minor", "node_alarm_content", "node_description"})
        keys.push_back(k);
    return keys;
}

// Runs `each` on every object of the array member `key` of the file's root.
template <typename Each>
bool for_each_object(Fields &root, JsonObject *obj, const std::string &file, const char *key,
                     Each each)
{
    JsonNode *arr = json_object_get_member(obj, key);
    if (arr == nullptr)
        return root.fail(key, "missing field (an empty list is [])");
    if (!JSON_NODE_HOLDS_ARRAY(arr))
        return root.fail(key, "expected a list");
    JsonArray *a = json_node_get_array(arr);
    for (guint i = 0; i < json_array_get_length(a); ++i) {
        const std::string where = file + ": " + key + "[" + std::to_string(i) + "]";
        JsonNode *el = json_array_get_element(a, i);
        if (!JSON_NODE_HOLDS_OBJECT(el))
            return root.fail((std::string(key) + "[" + std::to_string(i) + "]").c_str(),
                             "expected an object");
        if (!each(json_node_get_object(el), where))
            return false;
    }
    return true;
}

} // namespace

const std::vector<Model> &models()
{
    return model_table;
}

std::optional<Model> find_model(std::string_view name_or_number)
{
    const auto number = parse_u32(name_or_number);
    for (const auto &m : model_table) {
        if (same_text(name_or_number, m.name) || (number && *number == m.type))
            return m;
    }
    return std::nullopt;
}

const char *model_name(uint32_t type)
{
    for (const auto &m : model_table)
        if (m.type == type)
            return m.name;
    return "Unknown";
}

std::optional<uint32_t> find_data_type(std::string_view name_or_number)
{
    const auto number = parse_u32(name_or_number);
    for (uint32_t i = 0; i < G_N_ELEMENTS(type_names); ++i) {
        if (same_text(name_or_number, type_names[i]) || (number && *number == i + 1))
            return i + 1;
    }
    return std::nullopt;
}

const char *data_type_name(uint32_t type)
{
    return type >= 1 && type <= G_N_ELEMENTS(type_names) ? type_names[type - 1] : "Unknown";
}

std::optional<uint32_t> parse_u32(std::string_view text)
{
    auto v = parse_integer(text);
    if (!v || *v < 0 || *v > UINT32_MAX || (!text.empty() && text[0] == '-'))
        return std::nullopt;
    return static_cast<uint32_t>(*v);
}

std::optional<int32_t> parse_i32(std::string_view text)
{
    auto v = parse_integer(text);
    if (!v || *v < INT32_MIN || *v > INT32_MAX)
        return std::nullopt;
    return static_cast<int32_t>(*v);
}

std::string result_text(std::string_view method, int code)
{
    const bool node_method = method.substr(0, 4) == "node";
    switch (code) {
    case 0:
        return "done";
    case 1:
        return "a device with this dev_id already exists";
    case 2:
        return method == "nodeTableAddMulti"
                   ? "not every node was added"
                   : "the device could not be created, or no driver matches its model";
    case 3:
        return "not every entry was applied, or the database step failed";
    case 6:
        return node_method ? "no such device or node" : "no such device";
    case -1:
        return "the database step failed";
    default:
        return "unexpected result code";
    }
}

GVariant *serial_array(const std::vector<SerialDevice> &devices)
{
    gvariant_builder b(G_VARIANT_TYPE("a(uuuusuuuuuuu)"));
    for (const auto &d : devices)
        g_variant_builder_add(b.get(), "(uuuusuuuuuuu)", d.dev_id, 0u, d.dev_mfg, d.dev_type,
                              d.dev_name.c_str(), d.station_num, d.serial_type, d.serial_number,
                              d.baudrate, d.data_bit, d.stop_bit, d.parity_bit);
    return b.end();
}

GVariant *ethernet_array(const std::vector<EthernetDevice> &devices)
{
    gvariant_builder b(G_VARIANT_TYPE("a(uuuussuuu)"));
    for (const auto &d : devices)
        g_variant_builder_add(b.get(), "(uuuussuuu)", d.dev_id, 1u, d.dev_mfg, d.dev_type,
                              d.dev_name.c_str(), d.ip_addr.c_str(), d.port, d.rack, d.slot);
    return b.end();
}

GVariant *node_array(const std::vector<Node> &nodes)
{
    gvariant_builder b(G_VARIANT_TYPE("a(suussusubbuuiuuiss)"));
    for (const auto &n : nodes)
        g_variant_builder_add(
            b.get(), "(suussusubbuuiuuiss)", n.dev_name.c_str(), n.dev_id, n.node_id,
            n.node_name.c_str(), n.node_addr.c_str(), n.node_data_type, n.node_unit.c_str(),
            n.node_permission, static_cast<gboolean>(n.node_report_enable),
            static_cast<gboolean>(n.node_alarm_enable), n.node_alarm_bit,
            n.node_alarm_condition_major, n.node_alarm_value_major, n.node_alarm_operation_type,
            n.node_alarm_condition_minor, n.node_alarm_value_minor, n.node_alarm_content.c_str(),
            n.node_description.c_str());
    return b.end();
}

bool parse_config(const std::string &file, std::string_view text, Config &out, std::string &err)
{
    gobject_owner<JsonParser> parser(json_parser_new());
    gerror_owner error;
    if (!json_parser_load_from_data(parser.get(), text.data(), static_cast<gssize>(text.size()),
                                    out_ptr(error))) {
        // json-glib names the place as "<data>:LINE:COLUMN: ..."; the file's
        // name takes the place of "<data>".
        std::string msg = error ? error->message : "not JSON";
        if (msg.rfind("<data>", 0) == 0)
            msg.erase(0, 6);
        else
            msg = ": " + msg;
        for (char &c : msg)
            if (c == '\n')
                c = ' ';
        err = file + msg;
        return false;
    }
    JsonNode *root_node = json_parser_get_root(parser.get());
    if (root_node == nullptr || !JSON_NODE_HOLDS_OBJECT(root_node)) {
        err = file + ": expected an object with serial_devices, ethernet_devices and nodes";
        return false;
    }
    JsonObject *obj = json_node_get_object(root_node);
    Fields root(obj, file + ": ", err);
    if (!root.only({"serial_devices", "ethernet_devices", "nodes"}))
        return false;

    Config cfg;
    std::map<uint32_t, std::string> device_place; // dev_id -> where it was defined
    std::map<uint32_t, std::string> device_name;
    auto unique_device = [&](Fields &f, uint32_t id, const std::string &name,
                             const std::string &where) {
        auto [it, fresh] = device_place.emplace(id, where);
        if (!fresh)
            return f.fail("dev_id", std::to_string(id) + " is also the dev_id of " +
                                        it->second.substr(file.size() + 2));
        device_name[id] = name;
        return true;
    };
    bool ok = for_each_object(root, obj, file, "serial_devices", [&](JsonObject *o, const std::string &where) {
        Fields f(o, where + ".", err);
        SerialDevice d;
        if (!read_serial(f, d) || !unique_device(f, d.dev_id, d.dev_name, where))
            return false;
        cfg.serial.push_back(std::move(d));
        return true;
    });
    ok = ok && for_each_object(root, obj, file, "ethernet_devices", [&](JsonObject *o, const std::string &where) {
        Fields f(o, where + ".", err);
        EthernetDevice d;
        if (!read_ethernet(f, d) || !unique_device(f, d.dev_id, d.dev_name, where))
            return false;
        cfg.ethernet.push_back(std::move(d));
        return true;
    });
    std::map<uint32_t, std::string> node_place;
    ok = ok && for_each_object(root, obj, file, "nodes", [&](JsonObject *o, const std::string &where) {
        Fields f(o, where + ".", err);
        Node n;
        if (!f.only(node_keys({"dev_id", "node_id"})) || !f.u32("dev_id", n.dev_id) ||
            !f.u32("node_id", n.node_id) || !read_node_body(f, n))
            return false;
        auto dev = device_name.find(n.dev_id);
        if (dev == device_name.end())
            return f.fail("dev_id", "no device " + std::to_string(n.dev_id) + " in this file");
        auto [it, fresh] = node_place.emplace(n.node_id, where);
        if (!fresh)
            return f.fail("node_id", std::to_string(n.node_id) + " is also the node_id of " +
                                         it->second.substr(file.size() + 2));
        n.dev_name = dev->second;
        cfg.nodes.push_back(std::move(n));
        return true;
    });
    if (ok)
        out = std::move(cfg);
    return ok;
}

bool serial_from_options(const Options &opts, SerialDevice &out, std::string &err)
{
    Fields f(opts, err);
    return read_serial(f, out);
}

bool ethernet_from_options(const Options &opts, EthernetDevice &out, std::string &err)
{
    Fields f(opts, err);
    return read_ethernet(f, out);
}

bool node_from_options(const Options &opts, Node &out, std::string &err)
{
    Fields f(opts, err);
    return f.only(node_keys({"dev_id", "dev_name", "node_id"})) &&
           f.u32("dev_id", out.dev_id) && f.text("dev_name", out.dev_name, true) &&
           f.u32("node_id", out.node_id) && read_node_body(f, out);
}

} // namespace ctl
