#include "network/json.h"

#include "topics.h"

#include <fmt/chrono.h>
#include <nlohmann/json.hpp>

namespace
{

// By change_kind.
constexpr const char *KIND_NAMES[] = {
    "local_node",      "appeared",      "left",     "colours",      "colour",     "media",  "fact",
    "listed",          "miswired_link", "ring",     "network_ring", "statistics", "record", "period_closed",
    "records_cleared", "request",       "response", "message",
};
static_assert(std::size(KIND_NAMES) == static_cast<size_t>(change_kind::MESSAGE) + 1);

json malformed_json(size_t size)
{
    return {{"malformed_bytes", size}};
}

// What value_of makes of the value, where there is one.
template <typename T, typename Function>
json fact_json(const fact<T> &value, Function value_of)
{
    if (value.value) {
        return value_of(*value.value);
    }
    return value.is_published ? malformed_json(value.size) : json();
}

template <typename T>
json optional_json(const std::optional<T> &value)
{
    return value ? json(*value) : json();
}

json name_json(const network &net, const std::optional<mac_address> &mac)
{
    const std::string *const name = mac ? net.names.of(*mac) : nullptr;
    return name == nullptr ? json() : json(*name);
}

json mac_json(const std::optional<mac_address> &mac)
{
    return mac ? json(mac_text(*mac)) : json();
}

json port_names(unsigned ports)
{
    json names = json::array();
    for (const char name : port_letters(ports)) {
        names.push_back(std::string(1, name));
    }
    return names;
}

json colour_json(const node &shown, size_t port)
{
    const int colour = shown.colours ? (*shown.colours)[port] : PORT_STATUS_NONE;
    return colour == PORT_STATUS_NONE ? json() : json(colour_name(colour));
}

json media_json(const node &shown, size_t port)
{
    const int media = shown.media ? (*shown.media)[port] : LUM_TYPE_NONE;
    return media == LUM_TYPE_NONE ? json() : json(hwinfo_lumtype_enum_to_str(media));
}

json port_states(const node &shown)
{
    json ports = json::array();
    for (size_t port = 0; port < LUM_FRONT_PORTS; port++) {
        const json colour = colour_json(shown, port);
        const json media = media_json(shown, port);
        if (!colour.is_null() || !media.is_null()) {
            ports.push_back(
                {{"port", port_text(static_cast<int>(port))}, {"colour", colour}, {"media", media}});
        }
    }
    return ports;
}

json rings_json(const network &net)
{
    json rings = json::array();
    for (const auto &[ring, state] : net.rings) {
        if (state.is_published) {
            rings.push_back({{"ring", ring}, {"state", fact_json(state, ring_state_text)}});
        }
    }
    return rings;
}

json node_topic_json(const node &shown, node_topic topic)
{
    const fact<std::string> &value = shown.facts[topic];
    switch (NODE_TOPIC_INFOS[topic].kind) {
    case value_kind::NUMBER:
        return fact_json(value, [](const std::string &text) { return json(std::stoull(text)); });
    case value_kind::FLAG:
        return fact_json(value, [](const std::string &text) { return json(text == "on"); });
    case value_kind::TEXT:
        return fact_json(value, [](const std::string &text) { return json(text); });
    default:
        break;
    }
    return fact_json(value, [&](const std::string &) {
        if (topic != TOPIC_SOFTWARE_VERSIONS) {
            return port_states(shown);
        }
        json versions = json::array();
        for (const software_version &item : shown.versions) {
            versions.push_back({{"name", item.name}, {"version", item.version}});
        }
        return versions;
    });
}

json stats_json(const stats_record &record)
{
    json object = json::object();
    for (const stats_field &field : STATS_FIELDS) {
        object[field.name] = field_value(record, field);
    }
    return object;
}

json rates_json(const port_records &records)
{
    json rates;
    for (const stats_field &field : STATS_FIELDS) {
        if (const std::optional<double> rate = field_rate(records, field)) {
            rates[field.name] = *rate;
        }
    }
    return rates;
}

json pm_record_json(const pm_record &record)
{
    json object = json::object();
    for (const pm_field &field : PM_FIELDS) {
        const uint64_t value = field_value(record, field);
        if (field.treatment == pm_treatment::CLOSING_TIME) {
            object[field.name] = utc_text(std::chrono::system_clock::from_time_t(static_cast<time_t>(value)));
        } else {
            object[field.name] = value;
        }
    }
    return object;
}

json port_topic_json(const node &shown, int port, std::string_view name)
{
    const auto found = shown.ports.find(port);
    if (found == shown.ports.end()) {
        return {};
    }
    const port_records &records = found->second;
    if (name == PORT_STATS) {
        return fact_json(records.stats, stats_json);
    }
    const auto slot = records.pm.find(name.substr(name.find('/') + 1));
    if (slot != records.pm.end()) {
        return fact_json(slot->second, pm_record_json);
    }
    return fact_json(name == PM_LAST_DAY ? records.last_day : records.last_period,
                     [](const std::string &text) { return json(text); });
}

json ring_json(const network &net)
{
    return fact_json(net.ring_degraded,
                     [](bool is_degraded) { return json(is_degraded ? "degraded" : "normal"); });
}

json port_list_json(const network &net, port_list which)
{
    return fact_json(net.lists[which], [&](const port_list_value &list) {
        json entries = json::array();
        for (const listed_ports &record : list) {
            entries.push_back({{"mac", mac_text(record.mac)},
                               {"name", name_json(net, record.mac)},
                               {"number", record.number},
                               {"ports", port_names(record.ports)}});
        }
        return entries;
    });
}

json miswired_links_json(const network &net)
{
    if (net.miswired_links.is_malformed()) {
        return malformed_json(net.miswired_links.size);
    }
    json links = json::array();
    for (const miswired_link &link : net.miswired_links.value.value_or(std::vector<miswired_link>{})) {
        links.push_back({{"number", link.number},
                         {"port", port_text(link.port)},
                         {"peer_number", link.peer_number},
                         {"peer_port", port_text(link.peer_port)}});
    }
    return links;
}

json plain_node_json(const network &net, const node &shown)
{
    json object;
    object["mac"] = mac_text(shown.mac);
    object["name"] = name_json(net, shown.mac);
    object["number"] = optional_json(shown.number);
    object["location"] = net.local.value ? json(net.is_local(shown.mac) ? "local" : "remote") : json();
    object["present"] = net.has(shown);
    object["last_change"] = shown.last_change ? json(utc_text(shown.last_change->wall)) : json();
    object["ports"] = node_topic_json(shown, TOPIC_PORT_SUMMARY);
    object["rings"] = net.is_local(shown.mac) ? rings_json(net) : json();
    for (int topic = 0; topic < NODE_TOPICS; topic++) {
        if (topic != TOPIC_PORT_SUMMARY && topic != TOPIC_PORT_MEDIA) {
            object[NODE_TOPIC_INFOS[static_cast<size_t>(topic)].name] =
                node_topic_json(shown, static_cast<node_topic>(topic));
        }
    }
    return object;
}

json head_json(const network &net, const node &shown)
{
    return {{"mac", mac_text(shown.mac)},
            {"name", name_json(net, shown.mac)},
            {"number", optional_json(shown.number)}};
}

struct change_value_json {
    json operator()(std::monostate) const { return {}; }
    json operator()(const malformed_value &value) const { return malformed_json(value.size); }
    json operator()(const port_codes &colours) const
    {
        json object = json::object();
        for (size_t port = 0; port < colours.size(); port++) {
            if (colours[port] != PORT_STATUS_NONE) {
                object[port_text(static_cast<int>(port))] = colour_name(colours[port]);
            }
        }
        return object;
    }
    json operator()(const named_numbers &values) const
    {
        json object = json::object();
        for (const auto &[name, value] : values) {
            object[std::string(name)] = value;
        }
        return object;
    }
    json operator()(const auto &value) const { return value; }
};

} // namespace

std::string utc_text(std::chrono::system_clock::time_point when)
{
    return fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(std::chrono::system_clock::to_time_t(when)));
}

json nodes_json(const network &net, node_order order)
{
    json nodes = json::array();
    for (const node *shown : sorted_nodes(net, order)) {
        nodes.push_back(plain_node_json(net, *shown));
    }
    return {{"local", fact_json(net.local, [](const mac_address &mac) { return json(mac_text(mac)); })},
            {"nodes", std::move(nodes)}};
}

json node_json(const network &net, const node &shown)
{
    json object = plain_node_json(net, shown);
    for (int list = 0; list < PORT_LISTS; list++) {
        const auto which = static_cast<port_list>(list);
        object["faults"][PORT_LIST_INFOS[which].name] = port_names(net.listed(which, shown.mac));
    }
    return object;
}

json ports_json(const network &net, const node &shown)
{
    json object = head_json(net, shown);
    object["ports"] = json::array();
    for (const auto &[number, records] : shown.ports) {
        if (records.stats.is_published) {
            object["ports"].push_back({{"port", port_text(number)},
                                       {"statistics", fact_json(records.stats, stats_json)},
                                       {"rates_per_second", rates_json(records)}});
        }
    }
    return object;
}

json pm_json(const network &net, const node &shown, int port, pm_kind kind)
{
    json records = json::array();
    for (const closed_record &item : closed_records(shown, port, kind)) {
        json entry = {{"slot", item.slot}};
        entry.update(fact_json(item.record, pm_record_json));
        records.push_back(std::move(entry));
    }
    json object = head_json(net, shown);
    object["port"] = port_text(port);
    object["kind"] = kind == pm_kind::DAYS ? "days" : "periods";
    object["records"] = std::move(records);
    return object;
}

json lists_json(const network &net)
{
    json object;
    for (int list = 0; list < PORT_LISTS; list++) {
        const auto which = static_cast<port_list>(list);
        object[PORT_LIST_INFOS[which].name] = port_list_json(net, which);
    }
    object["miswired_links"] = miswired_links_json(net);
    object["ring"] = ring_json(net);
    return object;
}

json topic_json(const network &net, std::string_view topic)
{
    if (const std::optional<port_list> list = port_list_of_topic(topic)) {
        return port_list_json(net, *list);
    }
    if (topic == MISWIRED_LINKS_TOPIC) {
        return miswired_links_json(net);
    }
    if (topic == NETWORK_STYLE7_TOPIC) {
        return ring_json(net);
    }
    for (const auto &[ring, state] : net.rings) {
        if (topic == fmt::format("{}{}{}", RING_PREFIX, ring, RING_SUFFIX)) {
            return fact_json(state, ring_state_text);
        }
    }
    const std::optional<topic_place> place = parse_topic_place(topic);
    const auto found = place ? net.nodes.find(place->mac) : net.nodes.end();
    if (found == net.nodes.end()) {
        return {};
    }
    if (place->port) {
        return port_topic_json(found->second, *place->port, place->name);
    }
    const std::optional<node_topic> known = node_topic_named(place->name);
    return known ? node_topic_json(found->second, *known) : json();
}

json change_json(const network &net, const change &item, std::string_view topic,
                 std::chrono::system_clock::time_point when, const std::string &text)
{
    json object = {
        {"time", utc_text(when)},
        {"topic", std::string(topic)},
        {"kind", KIND_NAMES[static_cast<size_t>(item.kind)]},
        {"what", item.what.empty() ? json() : json(item.what)},
        {"mac", mac_json(item.node)},
        {"name", name_json(net, item.node)},
        {"number", optional_json(item.number)},
        {"port", item.port ? json(port_text(*item.port)) : json()},
    };
    if (item.peer) {
        object["peer_mac"] = mac_json(item.peer->mac);
        object["peer_name"] = name_json(net, item.peer->mac);
        object["peer_number"] = item.peer->number;
        object["peer_port"] = port_text(item.peer->port);
    }
    object["old"] = std::visit(change_value_json{}, item.before);
    object["new"] = std::visit(change_value_json{}, item.after);
    object["change"] = text;
    object["value"] = topic_json(net, topic);
    return object;
}

std::string json_text(const json &value, int indent)
{
    return value.dump(indent, ' ', false, json::error_handler_t::replace);
}
