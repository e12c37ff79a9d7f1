// The model and its changes as JSON, field by field as in docs/json.md. A value that isn't published is null,
// one that can't be decoded {"malformed_bytes": SIZE}. Only who takes values apart or prints them needs
// <nlohmann/json.hpp>.
#pragma once

#include "network/model.h"

#include <nlohmann/json_fwd.hpp>

using json = nlohmann::ordered_json;

// "2024-05-01T08:15:03Z".
std::string utc_text(std::chrono::system_clock::time_point when);

json nodes_json(const network &net, node_order order);
json node_json(const network &net, const node &shown); // with the lists that name it
json ports_json(const network &net, const node &shown);
json pm_json(const network &net, const node &shown, int port, pm_kind kind);
json lists_json(const network &net);

// What a topic says now; null for what isn't decoded.
json topic_json(const network &net, std::string_view topic);

// A change that a message on this topic meant; text is it as a sentence.
json change_json(const network &net, const change &item, std::string_view topic,
                 std::chrono::system_clock::time_point when, const std::string &text);

// On one line, or indented by so many blanks. Text that isn't UTF-8 is mended.
std::string json_text(const json &value, int indent = -1);
