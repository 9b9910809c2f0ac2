// The bridge's options: the command line, and a key file (--config) with the
// same keys in its [bridge] group. A key given on the command line wins.
#pragma once

#include <cstdint>
#include <string>

#include "edge_node.h"

namespace bridge {

enum class Mode { Sparkplug, Json };

struct Options {
    std::string broker_host = "127.0.0.1";
    uint16_t broker_port = 1883;
    std::string client_id;          // default: device-service-bridge-<edge node>
    std::string username;
    std::string password;           // the first line of --password-file
    std::string tls_ca, tls_cert, tls_key;
    Mode mode = Mode::Sparkplug;
    EdgeNodeConfig node;            // group, edge node (the host name by default), device ids
    std::string topic_prefix = "device-service";
    std::string state_dir;          // where bdSeq and the store are kept
    // Cap of the store of messages waiting for the broker or the primary
    // host, in MiB; 0: no store (what cannot be sent is lost).
    double store_max_mb = 64;
    std::string primary_host;       // Sparkplug host id whose STATE gates our births; empty: none
    std::string bus_address;        // empty: the session bus
    bool watch = false;             // print what reaches the broker instead of bridging
};

// Fills `out` from argv (argv[0] is the program). False with one line in
// `error` on an unknown or bad option, an unreadable file, an id holding
// '+', '/' or '#', or TLS files given without a CA.
bool parse_options(int argc, char **argv, Options &out, std::string &error);

// The state directory when none is given: $XDG_STATE_HOME/device-service-bridge,
// else ~/.local/state/device-service-bridge.
std::string default_state_dir();

} // namespace bridge
