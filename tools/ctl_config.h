// A whole device configuration as the operator writes it in JSON, checked
// completely before anything is sent, and the names the client accepts for
// models and data types.
#pragma once

#include <glib.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ctl {

struct Model {
    const char *name; // what operators type: "FX-3U", "S7-1200", "Q-serial", ...
    uint32_t mfg;
    uint32_t type;
    uint32_t comm; // 0 serial, 1 Ethernet
};

// By name (case-insensitive) or by model number.
std::optional<Model> find_model(const std::string &name_or_number);
const char *model_name(uint32_t type);
// By name ("U16", "Float", ...) or number.
std::optional<uint32_t> find_data_type(const std::string &name_or_number);
const char *data_type_name(uint32_t type);
// The result code in words.
const char *result_text(int code);

struct Config {
    GVariant *serial = nullptr;   // a(uuuusuuuuuuu)
    GVariant *ethernet = nullptr; // a(uuuussuuu)
    GVariant *nodes = nullptr;    // a(suussusubbuuiuuiss)
    Config() = default;
    Config(const Config &) = delete;
    Config &operator=(const Config &) = delete;
    ~Config();
};

// Parses a configuration file's text; on error returns false with one line
// naming the place ("FILE: nodes[3].node_addr: missing field").
bool parse_config(const std::string &file_label, const std::string &text, Config &out,
                  std::string &error);

} // namespace ctl
