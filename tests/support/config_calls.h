// Argument builders for the device service's configuration methods.
#pragma once

#include <glib.h>

#include <cstdint>
#include <string>
#include <vector>

namespace dstest {

struct NodeSpec {
    uint32_t dev_id;
    uint32_t node_id;
    std::string addr;
    uint32_t data_type = 4;
    std::string name = "";      // defaults to "n<node_id>"
    std::string dev_name = "dev";
};

// (suussusubbuuiuuiss) of one node.
GVariant *node_tuple(const NodeSpec &n);
// (a(suussusubbuuiuuiss)) of several, for nodeTableAddMulti/SyncMulti.
GVariant *node_array(const std::vector<NodeSpec> &nodes);
// (a(u)) for nodeTableDelMulti.
GVariant *node_id_array(const std::vector<uint32_t> &ids);
// The 9 arguments of EthernetDeviceAdd/Mdf (dev_comm 1 unless told).
GVariant *ethernet_args(uint32_t dev_id, uint32_t mfg, uint32_t type, const std::string &name,
                        const std::string &ip = "127.0.0.1", uint32_t port = 0, uint32_t rack = 0,
                        uint32_t slot = 1, uint32_t comm = 1);
// The 12 arguments of SerialDeviceAdd/Mdf (dev_comm 0 unless told).
GVariant *serial_args(uint32_t dev_id, uint32_t mfg, uint32_t type, const std::string &name,
                      uint32_t station = 1, uint32_t serial_number = 1, uint32_t baud = 9600,
                      uint32_t data_bit = 8, uint32_t stop_bit = 1, uint32_t parity = 0,
                      uint32_t comm = 0);

} // namespace dstest
