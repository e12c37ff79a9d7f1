// What the page reads, as JSON text: the objects of docs/json.md with what only a page that stays open knows.
#pragma once

#include "network/model.h"

using wall_time = std::chrono::system_clock::time_point;

std::string quoted_json(const std::string &text);
bool is_json_object(const std::string &text);
std::string time_json(const std::optional<wall_time> &when); // to the millisecond; null where it isn't known

// left: when the node was seen to leave.
std::string page_node_json(const network &net, const node &shown, const std::optional<wall_time> &left);

// Everything of a network but its nodes, each under its name.
using json_parts = std::vector<std::pair<std::string, std::string>>;
json_parts page_parts_json(const network &net, const std::optional<wall_time> &ring_since);

std::string page_change_json(const network &net, const change &item, uint64_t id, wall_time when);

// The last day's quarter hours and the last week's days of a port; nothing where none of its records is published.
std::optional<std::string> page_performance_json(const network &net, const mac_address &mac, int port,
                                                 wall_time now);
