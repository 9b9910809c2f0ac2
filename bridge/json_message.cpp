#include "json_message.h"

#include <json-glib/json-glib.h>

#include <charconv>
#include <cmath>
#include <memory>
#include <unordered_set>

#include "values.h"

namespace bridge {

namespace {

struct GObjectUnref {
    void operator()(gpointer p) const
    {
        if (p != nullptr)
            g_object_unref(p);
    }
};
struct JsonNodeFree {
    void operator()(JsonNode *n) const
    {
        if (n != nullptr)
            json_node_unref(n);
    }
};
struct GFree {
    void operator()(gchar *p) const { g_free(p); }
};

// The double a reader should get for a PLC's float: the one nearest to the
// float's shortest decimal form (21.1f gives 21.1, not 21.100000381469727).
double as_decimal(float f)
{
    char buf[32];
    const auto [end, ec] = std::to_chars(buf, buf + sizeof buf, f);
    double d = static_cast<double>(f);
    if (ec == std::errc())
        std::from_chars(buf, end, d);
    return d;
}

void add_value(JsonBuilder *b, const NodeValue &v)
{
    const sp::Value &x = v.value;
    if (const auto *u = std::get_if<uint32_t>(&x))
        json_builder_add_int_value(b, integer_of(v.datatype, *u));
    else if (const auto *f = std::get_if<float>(&x); f != nullptr && std::isfinite(*f))
        json_builder_add_double_value(b, as_decimal(*f));
    else if (const auto *t = std::get_if<bool>(&x))
        json_builder_add_boolean_value(b, *t);
    else if (const auto *s = std::get_if<std::string>(&x))
        json_builder_add_string_value(b, s->c_str());
    else
        json_builder_add_null_value(b);
}

} // namespace

std::string json_message(const DeviceReading &device, uint64_t timestamp_ms, uint64_t *unparsable)
{
    std::unique_ptr<JsonBuilder, GObjectUnref> b(json_builder_new());
    json_builder_begin_object(b.get());
    json_builder_set_member_name(b.get(), "timestamp");
    json_builder_add_int_value(b.get(), static_cast<gint64>(timestamp_ms));
    json_builder_set_member_name(b.get(), "dev_id");
    json_builder_add_int_value(b.get(), device.dev_id);
    json_builder_set_member_name(b.get(), "dev_name");
    json_builder_add_string_value(b.get(), device.dev_name.c_str());
    json_builder_set_member_name(b.get(), "dev_mfg");
    json_builder_add_int_value(b.get(), device.dev_mfg);
    json_builder_set_member_name(b.get(), "dev_type");
    json_builder_add_int_value(b.get(), device.dev_type);
    json_builder_set_member_name(b.get(), "values");
    json_builder_begin_object(b.get());
    std::unordered_set<std::string> taken;
    for (const NodeReading &n : device.nodes) {
        std::string name = n.name;
        if (!taken.insert(name).second) {
            name += " (" + n.addr + ")";
            taken.insert(name);
        }
        const NodeValue v = node_value(n.data_type, n.value);
        if (!v.parsed && unparsable != nullptr)
            ++*unparsable;
        json_builder_set_member_name(b.get(), name.c_str());
        add_value(b.get(), v);
    }
    json_builder_end_object(b.get());
    json_builder_end_object(b.get());

    std::unique_ptr<JsonNode, JsonNodeFree> root(json_builder_get_root(b.get()));
    std::unique_ptr<JsonGenerator, GObjectUnref> gen(json_generator_new());
    json_generator_set_root(gen.get(), root.get());
    std::unique_ptr<gchar, GFree> text(json_generator_to_data(gen.get(), nullptr));
    return text ? std::string(text.get()) : std::string();
}

} // namespace bridge
