// What the reading commands show of the network: the same facts as lines for people and as JSON for programs. The JSON
// fields are documented in diagctl(1). Nothing here talks to a broker or a terminal.
//
// In JSON a value that isn't published is null, one that can't be decoded {"malformed_bytes": SIZE}.
#pragma once

#include "screen/text.h"

#include <nlohmann/json.hpp>

using json = nlohmann::ordered_json;

// NOLINTNEXTLINE(bugprone-exception-escape): moving JSON checks itself by assertions
struct report {
    std::vector<screen_line> lines;
    nlohmann::ordered_json object;
};

template <typename T>
json malformed_or_null(const fact<T> &value)
{
    return value.is_published ? json{{"malformed_bytes", value.size}} : json();
}

// The present nodes, the local one among them.
enum class node_order {
    MAC, // the local node first
    NUMBER,
    FAULTS, // most red ports first, then most yellow ones
    CHANGE, // the latest first
};
std::vector<const node *> sorted_nodes(const network &net, node_order order);

std::vector<screen_line> node_table(const network &net, const std::vector<const node *> &nodes,
                                    const moment &now);
report report_nodes(const network &net, node_order order, const moment &now);

// One node, with the lists that name it.
report report_node(const network &net, const node &shown);

// The lists of the network.
constexpr const char *LIST_TITLES[PORT_LISTS] = {"Link down", "Ground fault", "Miswired"};
std::vector<std::string> port_list_entries(const std::vector<listed_ports> &list);
std::vector<std::string> miswired_link_entries(const network &net);
std::string ring_text(const network &net);
text_style ring_style(const network &net);
report report_lists(const network &net);

// What a topic says now; null for what isn't decoded.
json topic_json(const network &net, std::string_view topic);

// The statistics of a node's ports, or of one of them, since the last reset, with rates.
report report_ports(const node &shown, std::optional<int> port);
json stats_json(const stats_record &record);

// Performance records of a port in the order in which they were closed, with sparklines of what isn't always 0.
enum class pm_kind {
    PERIODS,
    DAYS,
};
struct pm_style {
    bool is_utf8; // what the terminal shows
    size_t width;
};
report report_pm(const node &shown, int port, pm_kind kind, const pm_style &style);
std::vector<screen_line> pm_csv(const node &shown, int port, pm_kind kind);
json pm_json(const pm_record &record);
