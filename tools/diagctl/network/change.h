// One thing that has changed in the network, as data: sentences are made of it in screen/changes.h, JSON in
// network/json.h.
#pragma once

#include "network/payloads.h"

#include <utility>
#include <variant>

enum class change_kind {
    LOCAL_NODE,      // the broker's own node; after: its MAC address as text
    APPEARED,        // a node
    LEFT,            // a node
    COLOURS,         // the colours of all ports with which a node appears; after: port_codes
    COLOUR,          // of a port, as text
    MEDIA,           // of a port, as text
    FACT,            // another topic of a node, by its value_kind; what: the topic's name
    LISTED,          // a port in one of the network's lists, as bool; what: the list's name
    MISWIRED_LINK,   // between node and peer, as bool
    RING,            // of the local node, as text; what: its number
    NETWORK_RING,    // "normal" or "degraded"
    STATISTICS,      // of a port: the fields that have changed
    RECORD,          // a performance record of a port: the fields that aren't 0; what: its slot
    PERIOD_CLOSED,   // of a port; after: the slot
    RECORDS_CLEARED, // of a port
    REQUEST,         // of any client to the daemon, as text
    RESPONSE,        // of the daemon, as text
    MESSAGE,         // on a topic that isn't decoded, or of a value that is known already, as text
};

// A value of the wrong form.
struct malformed_value {
    size_t size;
};

using named_numbers = std::vector<std::pair<std::string_view, uint64_t>>;
using change_value =
    std::variant<std::monostate, malformed_value, bool, uint64_t, std::string, port_codes, named_numbers>;

// An end of a miswired link; mac is known while one node alone has the number.
struct link_end {
    std::optional<mac_address> mac;
    uint8_t number;
    int port;
};

struct change {
    change_kind kind;
    std::optional<mac_address> node = {};
    std::optional<uint8_t> number = {}; // of the node, where it is known
    std::optional<int> port = {};
    std::string what = {};
    change_value before = {};
    change_value after = {};
    std::optional<link_end> peer = {};
};
using changes = std::vector<change>;
