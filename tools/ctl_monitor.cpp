#include "ctl_monitor.h"

#include <json-glib/json-glib.h>

#include <memory>

#include "base/handles.h"
#include "ctl_config.h"

namespace ctl {

namespace {

std::string local_time(GDateTime *when, const char *format)
{
    const gchar_owner s(g_date_time_format(when, format));
    return s ? s.get() : "";
}

// Pads by characters, not bytes: names may hold any UTF-8.
std::string padded(const std::string &s, size_t width)
{
    const size_t chars = g_utf8_strlen(s.c_str(), static_cast<gssize>(s.size()));
    return s + std::string(width > chars ? width - chars : 0, ' ');
}

} // namespace

bool decode_cycle(GVariant *cycle, std::vector<DeviceValues> &out)
{
    out.clear();
    if (!g_variant_is_of_type(cycle, G_VARIANT_TYPE("a(usuuv)")))
        return false;
    GVariantIter devs;
    g_variant_iter_init(&devs, cycle);
    while (const gvariant_owner dev{g_variant_iter_next_value(&devs)}) {
        DeviceValues d;
        const gchar *name = nullptr;
        GVariant *raw = nullptr;
        g_variant_get(dev.get(), "(u&suuv)", &d.dev_id, &name, &d.dev_mfg, &d.dev_type, &raw);
        const gvariant_owner boxed(raw);
        d.dev_name = name;
        if (!g_variant_is_of_type(boxed.get(), G_VARIANT_TYPE("a(ssus)"))) {
            out.clear();
            return false;
        }
        GVariantIter nodes;
        g_variant_iter_init(&nodes, boxed.get());
        const gchar *n = nullptr, *a = nullptr, *v = nullptr;
        guint32 type = 0;
        while (g_variant_iter_next(&nodes, "(&s&su&s)", &n, &a, &type, &v))
            d.nodes.push_back({n, a, type, v});
        out.push_back(std::move(d));
    }
    return true;
}

std::string cycle_table(const std::vector<DeviceValues> &devices, unsigned number, GDateTime *when)
{
    using Row = std::vector<std::string>;
    std::vector<Row> rows = {{"DEV_ID", "DEVICE", "MODEL", "NODE", "ADDRESS", "TYPE", "VALUE"}};
    size_t values = 0;
    for (const auto &d : devices) {
        const Row head = {std::to_string(d.dev_id), d.dev_name, model_name(d.dev_type)};
        if (d.nodes.empty()) {
            // Not reached this cycle, or none of its nodes answered.
            rows.push_back({head[0], head[1], head[2], "-", "-", "-", "(no values)"});
            continue;
        }
        for (const auto &n : d.nodes)
            rows.push_back({head[0], head[1], head[2], n.node_name, n.node_addr,
                            data_type_name(n.node_data_type), n.value});
        values += d.nodes.size();
    }
    std::vector<size_t> width(rows[0].size(), 0);
    for (const auto &r : rows)
        for (size_t i = 0; i < r.size(); ++i)
            width[i] = std::max(width[i], static_cast<size_t>(g_utf8_strlen(r[i].c_str(), -1)));
    std::string out = "cycle " + std::to_string(number) + " at " +
                      local_time(when, "%Y-%m-%d %H:%M:%S") + ": " +
                      std::to_string(devices.size()) + " devices, " + std::to_string(values) +
                      " values\n";
    for (const auto &r : rows) {
        std::string line;
        for (size_t i = 0; i < r.size(); ++i)
            line += i + 1 < r.size() ? padded(r[i], width[i]) + "  " : r[i];
        out += line + "\n";
    }
    return out;
}

std::string cycle_json(const std::vector<DeviceValues> &devices, unsigned number, GDateTime *when)
{
    gobject_owner<JsonBuilder> b(json_builder_new());
    auto member = [&](const char *name) { json_builder_set_member_name(b.get(), name); };
    json_builder_begin_object(b.get());
    member("cycle");
    json_builder_add_int_value(b.get(), number);
    member("time");
    json_builder_add_string_value(b.get(), gchar_owner(g_date_time_format_iso8601(when)).get());
    member("devices");
    json_builder_begin_array(b.get());
    for (const auto &d : devices) {
        json_builder_begin_object(b.get());
        member("dev_id");
        json_builder_add_int_value(b.get(), d.dev_id);
        member("dev_name");
        json_builder_add_string_value(b.get(), d.dev_name.c_str());
        member("dev_mfg");
        json_builder_add_int_value(b.get(), d.dev_mfg);
        member("dev_type");
        json_builder_add_int_value(b.get(), d.dev_type);
        member("model");
        json_builder_add_string_value(b.get(), model_name(d.dev_type));
        member("nodes");
        json_builder_begin_array(b.get());
        for (const auto &n : d.nodes) {
            json_builder_begin_object(b.get());
            member("node_name");
            json_builder_add_string_value(b.get(), n.node_name.c_str());
            member("node_addr");
            json_builder_add_string_value(b.get(), n.node_addr.c_str());
            member("node_data_type");
            json_builder_add_int_value(b.get(), n.node_data_type);
            member("type");
            json_builder_add_string_value(b.get(), data_type_name(n.node_data_type));
            member("value");
            json_builder_add_string_value(b.get(), n.value.c_str());
            json_builder_end_object(b.get());
        }
        json_builder_end_array(b.get());
        json_builder_end_object(b.get());
    }
    json_builder_end_array(b.get());
    json_builder_end_object(b.get());

    gobject_owner<JsonGenerator> gen(json_generator_new());
    JsonNode *root = json_builder_get_root(b.get());
    json_generator_set_root(gen.get(), root);
    const gchar_owner text(json_generator_to_data(gen.get(), nullptr));
    json_node_unref(root);
    return text.get();
}

} // namespace ctl
