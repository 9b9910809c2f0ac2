#include "support/config_calls.h"

namespace dstest {

GVariant *node_tuple(const NodeSpec &n)
{
    const std::string name = n.name.empty() ? "n" + std::to_string(n.node_id) : n.name;
    return g_variant_new("(suussusubbuuiuuiss)", n.dev_name.c_str(), n.dev_id, n.node_id,
                         name.c_str(), n.addr.c_str(), n.data_type, "", 0u, FALSE, FALSE, 0u, 0u,
                         0, 0u, 0u, 0, "", "");
}

GVariant *node_array(const std::vector<NodeSpec> &nodes)
{
    GVariantBuilder b;
    g_variant_builder_init(&b, G_VARIANT_TYPE("a(suussusubbuuiuuiss)"));
    for (const auto &n : nodes)
        g_variant_builder_add_value(&b, node_tuple(n));
    return g_variant_new("(@a(suussusubbuuiuuiss))", g_variant_builder_end(&b));
}

GVariant *node_id_array(const std::vector<uint32_t> &ids)
{
    GVariantBuilder b;
    g_variant_builder_init(&b, G_VARIANT_TYPE("a(u)"));
    for (uint32_t id : ids)
        g_variant_builder_add(&b, "(u)", id);
    return g_variant_new("(@a(u))", g_variant_builder_end(&b));
}

GVariant *ethernet_args(uint32_t dev_id, uint32_t mfg, uint32_t type, const std::string &name,
                        const std::string &ip, uint32_t port, uint32_t rack, uint32_t slot,
                        uint32_t comm)
{
    return g_variant_new("(uuuussuuu)", dev_id, comm, mfg, type, name.c_str(), ip.c_str(), port,
                         rack, slot);
}

GVariant *serial_args(uint32_t dev_id, uint32_t mfg, uint32_t type, const std::string &name,
                      uint32_t station, uint32_t serial_number, uint32_t baud, uint32_t data_bit,
                      uint32_t stop_bit, uint32_t parity, uint32_t comm)
{
    return g_variant_new("(uuuusuuuuuuu)", dev_id, comm, mfg, type, name.c_str(), station, 0u,
                         serial_number, baud, data_bit, stop_bit, parity);
}

} // namespace dstest
