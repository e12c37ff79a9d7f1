// What the page reads, as JSON text: the objects of docs/json.md with what only a page that stays open knows.
#pragma once

#include "network/model.h"

using wall_time = std::chrono::system_clock::time_point;

std::string quoted_json(const std::string &text);
bool is_json_object(const std::string &text);
std::string time_json(const std::optional<wall_time> &when); // to the millisecond; null where it isn't known

// What a node's own topics don't say of it.
struct node_standing {
    bool is_reachable = true;
    std::optional<wall_time> since = {};    // it has left or is unreachable; empty: not seen
    std::optional<uint8_t> number = {};     // where the node doesn't have it
    std::vector<std::string> problems = {}; // beside those of its own
    bool with_statistics = true;
};
// The lists are those of the network.
std::string page_node_json(const network &net, const node &shown, const node_standing &standing);

// Everything of a network but its nodes, each under its name; as a card of it knows it.
using json_parts = std::vector<std::pair<std::string, std::string>>;
json_parts page_parts_json(const network &net, const std::optional<wall_time> &ring_since);

// Without its id and time. network: none where none is concerned.
std::string page_change_json(const network &net, const change &item, std::optional<size_t> network_index);

// The last day's quarter hours and the last week's days of a port; nothing where none of its records is published.
std::optional<std::string> page_performance_json(const network &net, const mac_address &mac, int port,
                                                 wall_time now);
