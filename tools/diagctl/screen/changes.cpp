#include "screen/changes.h"

#include "network/json.h"
#include "screen/terminal.h"

#include <fmt/core.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>

namespace
{

bool is_nothing(const change_value &value)
{
    return std::holds_alternative<std::monostate>(value);
}

struct value_text {
    std::string operator()(std::monostate) const { return "none"; }
    std::string operator()(const malformed_value &value) const { return malformed_text(value.size); }
    std::string operator()(bool is_on) const { return is_on ? "on" : "off"; }
    std::string operator()(uint64_t value) const { return std::to_string(value); }
    std::string operator()(const std::string &text) const { return text; }
    std::string operator()(const port_codes &colours) const
    {
        std::string all;
        for (size_t port = 0; port < colours.size(); port++) {
            if (colours[port] != PORT_STATUS_NONE) {
                all += fmt::format("{}{} {}", all.empty() ? "" : ", ", port_text(static_cast<int>(port)),
                                   colour_name(colours[port]));
            }
        }
        return all;
    }
    std::string operator()(const named_numbers &values) const
    {
        std::string all;
        for (const auto &[name, value] : values) {
            all += fmt::format("{}{} {}", all.empty() ? "" : ", ", name, value);
        }
        return all.empty() ? "all 0" : all;
    }
};

std::string text_of(const change_value &value)
{
    return std::visit(value_text{}, value);
}

// "red (was green)".
std::string now_and_before(const change &item, const char *quote)
{
    const auto quoted = [&](const change_value &value) {
        return is_nothing(value) ? text_of(value) : quote + text_of(value) + quote;
    };
    return quoted(item.after) +
           (is_nothing(item.before) ? "" : fmt::format(" (was {})", quoted(item.before)));
}

// What has come since; the values themselves where there is nothing to compare with, or a counter began
// again.
std::string statistics_text(const change &item)
{
    const auto &after = std::get<named_numbers>(item.after);
    const auto *const before = std::get_if<named_numbers>(&item.before);
    std::string text;
    for (size_t i = 0; i < after.size(); i++) {
        const auto &[name, value] = after[i];
        const auto field =
            std::find_if(STATS_FIELDS.begin(), STATS_FIELDS.end(),
                         [&name = name](const stats_field &candidate) { return name == candidate.name; });
        const bool is_growth =
            before != nullptr && value > (*before)[i].second && field->treatment != stats_treatment::PASSED;
        text += text.empty() ? "" : ", ";
        text += is_growth ? fmt::format("{} +{}", name, value - (*before)[i].second)
                          : fmt::format("{} {}", name, value);
    }
    return text;
}

const port_list_info &list_of(const change &item)
{
    return *std::find_if(PORT_LIST_INFOS.begin(), PORT_LIST_INFOS.end(),
                         [&](const port_list_info &info) { return item.what == info.name; });
}

// What of a node, port or network couldn't be decoded.
std::string malformed_change_text(const change &item, const std::string &who)
{
    const std::string text = text_of(item.after).substr(std::string_view("malformed ").size());
    switch (item.kind) {
    case change_kind::LOCAL_NODE:
        return "malformed local_node " + text;
    case change_kind::LISTED:
        return fmt::format("malformed {} {}", list_of(item).label, text);
    case change_kind::MISWIRED_LINK:
        return "malformed miswired links " + text;
    case change_kind::NETWORK_RING:
        return "malformed network_style7 " + text;
    case change_kind::RING:
        return fmt::format("local ring {} malformed status {}", item.what, text);
    case change_kind::RECORD:
        return fmt::format("{} malformed pm/{} {}", who, item.what, text);
    default:
        return fmt::format("{} malformed {} {}", who, item.what, text);
    }
}

const char *label_of(const change &item)
{
    return NODE_TOPIC_INFOS[node_topic_named(item.what).value()].label;
}

std::string list_text(const change &item, const std::string &who)
{
    const char *const verb = std::get<bool>(item.after) ? "gained" : "lost";
    if (item.kind == change_kind::LISTED) {
        return fmt::format("{} {} {}", list_of(item).label, verb, who);
    }
    return fmt::format("miswired links {} {}/{} to {}/{}", verb, *item.number, port_text(*item.port),
                       item.peer->number, port_text(item.peer->port));
}

std::string network_change_text(const network &net, const change &item, const std::string &who)
{
    switch (item.kind) {
    case change_kind::LOCAL_NODE:
        return is_nothing(item.after) ? "local node withdrawn"
                                      : "local node is " + node_text(net, *item.node);
    case change_kind::NETWORK_RING:
        return "network ring status " + (is_nothing(item.after) ? "withdrawn" : text_of(item.after));
    case change_kind::RING:
        return fmt::format("local ring {} {}", item.what,
                           is_nothing(item.after) ? "withdrawn" : text_of(item.after));
    case change_kind::REQUEST:
        return "command request " + text_of(item.after);
    case change_kind::RESPONSE:
        return "command response " + text_of(item.after);
    default:
        return list_text(item, who);
    }
}

} // namespace

std::string change_text(const network &net, const change &item)
{
    std::string who = item.node ? node_label(net, *item.node, item.number) : "";
    if (item.port) {
        who += " port " + port_text(*item.port);
    }
    if (std::holds_alternative<malformed_value>(item.after)) {
        return malformed_change_text(item, who);
    }
    switch (item.kind) {
    case change_kind::APPEARED:
        return who + " appeared";
    case change_kind::LEFT:
        return who + " left";
    case change_kind::COLOURS:
        return who + " ports " + text_of(item.after);
    case change_kind::COLOUR:
        return who + " " + now_and_before(item, "");
    case change_kind::MEDIA:
        return who + " media " + now_and_before(item, "");
    case change_kind::FACT:
        return fmt::format("{} {} {}", who, label_of(item), now_and_before(item, "'"));
    case change_kind::STATISTICS:
        return who + " statistics " + statistics_text(item);
    case change_kind::RECORD:
        return fmt::format("{} {} {}", who, item.what, text_of(item.after));
    case change_kind::PERIOD_CLOSED:
        return who + " closed " + text_of(item.after);
    case change_kind::RECORDS_CLEARED:
        return who + " performance records cleared";
    default:
        return network_change_text(net, item, who);
    }
}

namespace
{

void print(const network &net, const change &item, std::string_view topic, const std::string &text,
           const moment &now, bool is_json)
{
    if (is_json) {
        puts(json_text(change_json(net, item, topic, now.wall, text)).c_str());
    } else {
        terminal_print(plain(date_text(now) + " " + text));
    }
}

} // namespace

void print_change(const network &net, const change &item, std::string_view topic, const moment &now,
                  bool is_json)
{
    print(net, item, topic, change_text(net, item), now, is_json);
}

void print_message(const network &net, std::string_view topic, const std::string &text, const moment &now,
                   bool is_json)
{
    change item = {.kind = change_kind::MESSAGE, .after = text};
    if (const std::optional<topic_place> place = parse_topic_place(topic)) {
        const auto found = net.nodes.find(place->mac);
        item.node = place->mac;
        item.number = found == net.nodes.end() ? std::nullopt : found->second.number;
        item.port = place->port;
    }
    print(net, item, topic, fmt::format("{} {}", printable(topic), text), now, is_json);
}
