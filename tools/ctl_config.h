// What device-service-ctl sends, as the operator writes it: model and data
// type names, a whole configuration in JSON, single records from
// command-line options. Everything is checked completely before anything
// is sent, and a mistake is named by its place ("plant.json: nodes[3].node_addr:
// missing field", "--baudrate: expected ...").
#pragma once

#include <glib.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ctl {

struct Model {
    const char *name; // what operators type: "FX-3U", "S7-1200", "Q-serial", ...
    uint32_t mfg;
    uint32_t type;
    uint32_t comm; // 0 serial, 1 Ethernet
};

// By name (case-insensitive) or by model number.
std::optional<Model> find_model(std::string_view name_or_number);
// The client's name of a model number; "Unknown" for a number it does not know.
const char *model_name(uint32_t type);
// Every model, in the order the client lists them.
const std::vector<Model> &models();
// By name ("U16", "Float", ...; case-insensitive) or by number.
std::optional<uint32_t> find_data_type(std::string_view name_or_number);
const char *data_type_name(uint32_t type);

// A decimal number and nothing else: no sign, blank or fraction.
std::optional<uint32_t> parse_u32(std::string_view text);
std::optional<int32_t> parse_i32(std::string_view text);

// A served method's result code in words; `method` picks the wording of
// the codes whose meaning depends on the method.
std::string result_text(std::string_view method, int code);

struct SerialDevice {
    uint32_t dev_id = 0;
    std::string dev_name;
    uint32_t dev_mfg = 0;
    uint32_t dev_type = 0;
    uint32_t station_num = 0;
    uint32_t serial_type = 0;
    uint32_t serial_number = 0;
    uint32_t baudrate = 9600;
    uint32_t data_bit = 8;
    uint32_t stop_bit = 1;
    uint32_t parity_bit = 0; // 0 none, 1 even, 2 odd
};

struct EthernetDevice {
    uint32_t dev_id = 0;
    std::string dev_name;
    uint32_t dev_mfg = 0;
    uint32_t dev_type = 0;
    std::string ip_addr;
    uint32_t port = 0;
    uint32_t rack = 0;
    uint32_t slot = 1;
};

struct Node {
    std::string dev_name;
    uint32_t dev_id = 0;
    uint32_t node_id = 0;
    std::string node_name;
    std::string node_addr;
    uint32_t node_data_type = 0;
    std::string node_unit;
    uint32_t node_permission = 0;
    bool node_report_enable = false;
    bool node_alarm_enable = false;
    uint32_t node_alarm_bit = 0;
    uint32_t node_alarm_condition_major = 0;
    int32_t node_alarm_value_major = 0;
    uint32_t node_alarm_operation_type = 0;
    uint32_t node_alarm_condition_minor = 0;
    int32_t node_alarm_value_minor = 0;
    std::string node_alarm_content;
    std::string node_description;
};

struct Config {
    std::vector<SerialDevice> serial;
    std::vector<EthernetDevice> ethernet;
    std::vector<Node> nodes;
};

// The arrays of the three bulk methods, as floating references:
// a(uuuusuuuuuuu), a(uuuussuuu) and a(suussusubbuuiuuiss).
GVariant *serial_array(const std::vector<SerialDevice> &devices);
GVariant *ethernet_array(const std::vector<EthernetDevice> &devices);
GVariant *node_array(const std::vector<Node> &nodes);

// Parses a configuration file's text. On a mistake returns false with one
// line naming the place, `file_label` first.
bool parse_config(const std::string &file_label, std::string_view text, Config &out,
                  std::string &error);

// Command-line options by name without the leading "--" ("dev-id" -> "3").
using Options = std::map<std::string, std::string>;

// One record from options named like the file's fields, with '-' for '_'
// (--dev-id, --node-addr, ...). Options that do not belong to the record
// are mistakes too.
bool serial_from_options(const Options &opts, SerialDevice &out, std::string &error);
bool ethernet_from_options(const Options &opts, EthernetDevice &out, std::string &error);
bool node_from_options(const Options &opts, Node &out, std::string &error);

} // namespace ctl
