#include "screen/reports.h"
#include "topics.h"

#include <algorithm>

namespace
{

using std::to_string;

// A port's colour is also a mark, for terminals and people without colours.
constexpr const char *COLOUR_MARKS[] = {" ", "~", "!"}; // by port_status
constexpr text_style COLOUR_STYLES[] = {text_style::GREEN, text_style::YELLOW, text_style::RED};
constexpr const char *LIST_FIELDS[PORT_LISTS] = {"link_down", "ground_fault", "miswired"};

size_t port_columns(const std::vector<const node *> &nodes)
{
    size_t count = 1;
    for (const node *shown : nodes) {
        for (size_t port = 0; port < LUM_FRONT_PORTS; port++) {
            if ((shown->colours && (*shown->colours)[port] != PORT_STATUS_NONE) ||
                (shown->media && (*shown->media)[port] != LUM_TYPE_NONE)) {
                count = std::max(count, port + 1);
            }
        }
    }
    return count;
}

screen_line ports_cell(const node &shown, size_t count)
{
    const fact<std::string> &summary = shown.facts[TOPIC_PORT_SUMMARY];
    if (!shown.colours) {
        return plain(fact_text(summary, "-", ""));
    }
    screen_line cell;
    for (size_t port = 0; port < count; port++) {
        const int colour = (*shown.colours)[port];
        const bool has_media = shown.media && (*shown.media)[port] != LUM_TYPE_NONE;
        const std::string gap = port + 1 < count ? " " : "";
        if (colour != PORT_STATUS_NONE) {
            cell.push_back(
                {COLOUR_STYLES[colour], port_text(static_cast<int>(port)) + COLOUR_MARKS[colour] + gap});
        } else {
            cell.push_back(
                {text_style::DIM, (has_media ? port_text(static_cast<int>(port)) + "-" : ". ") + gap});
        }
    }
    return cell;
}

// "eth", or "AB eth, C dsl" where the ports differ.
std::string media_cell(const node &shown)
{
    if (!shown.media) {
        return fact_text(shown.facts[TOPIC_PORT_MEDIA], "-", "");
    }
    std::string text;
    int kinds = 0;
    int last = LUM_TYPE_NONE;
    for (int media = LUM_TYPE_ETH; media < LUM_TYPE_NONE; media++) {
        std::string ports;
        for (size_t port = 0; port < LUM_FRONT_PORTS; port++) {
            if ((*shown.media)[port] == media) {
                ports += port_text(static_cast<int>(port));
            }
        }
        if (!ports.empty()) {
            kinds++;
            last = media;
            text += (text.empty() ? "" : ", ") + ports + " " + hwinfo_lumtype_enum_to_str(media);
        }
    }
    if (kinds == 0) {
        return "-";
    }
    return kinds == 1 ? hwinfo_lumtype_enum_to_str(last) : text;
}

std::string job_cell(const node &shown)
{
    std::string text;
    for (const node_topic topic : {TOPIC_JOB_NAME, TOPIC_JOB_REV}) {
        const fact<std::string> &value = shown.facts[topic];
        const std::string part = fact_text(value, "", value.value.value_or(""));
        text += (text.empty() || part.empty() ? "" : " ") + part;
    }
    return text.empty() ? "-" : text;
}

std::string versions_cell(const node &shown)
{
    if (shown.versions.empty()) {
        return fact_text(shown.facts[TOPIC_SOFTWARE_VERSIONS], "-", "");
    }
    std::string text;
    for (const software_version &item : shown.versions) {
        text += (text.empty() ? "" : " / ") + (item.version.empty() ? "-" : item.version);
    }
    return text;
}

// "-", or "0 closed, 1 open".
std::string rings_cell(const network &net, const node &shown)
{
    std::string text;
    for (const auto &[ring, state] : net.rings) {
        if (net.is_local(shown.mac) && state.is_published) {
            text += (text.empty() ? "" : ", ") + to_string(ring) + " " +
                    fact_text(state, "", state.value ? ring_state_text(*state.value) : "");
        }
    }
    return text.empty() ? "-" : text;
}

const char *location(const network &net, const node &shown)
{
    if (!net.local.value) {
        return "-";
    }
    return net.is_local(shown.mac) ? "local" : "remote";
}

long long count_colour(const node &shown, int colour)
{
    return shown.colours ? std::count(shown.colours->begin(), shown.colours->end(), colour) : 0;
}

bool comes_before(const network &net, node_order order, const node &a, const node &b)
{
    switch (order) {
    case node_order::NUMBER:
        return a.number && (!b.number || *a.number < *b.number);
    case node_order::FAULTS:
        for (const int colour : {PORT_STATUS_RED, PORT_STATUS_YELLOW}) {
            if (count_colour(a, colour) != count_colour(b, colour)) {
                return count_colour(a, colour) > count_colour(b, colour);
            }
        }
        return false;
    case node_order::CHANGE:
        return a.last_change && (!b.last_change || a.last_change->steady > b.last_change->steady);
    default:
        return net.is_local(a.mac) && !net.is_local(b.mac);
    }
}

std::string port_letters(unsigned ports)
{
    std::string text;
    for (int port = 0; port < LUM_FRONT_PORTS; port++) {
        if ((ports & (1U << port)) != 0) {
            text += port_text(port);
        }
    }
    return text;
}

json port_names_json(unsigned ports)
{
    json names = json::array();
    for (const char name : port_letters(ports)) {
        names.push_back(std::string(1, name));
    }
    return names;
}

json fact_json(const fact<std::string> &value, value_kind kind)
{
    if (!value.value) {
        return malformed_or_null(value);
    }
    switch (kind) {
    case value_kind::NUMBER:
        return std::stoull(*value.value);
    case value_kind::FLAG:
        return *value.value == "on";
    default:
        return *value.value;
    }
}

json colour_json(int colour)
{
    return colour == PORT_STATUS_NONE ? json() : json(colour_name(colour));
}

json media_json(int media)
{
    return media == LUM_TYPE_NONE ? json() : json(hwinfo_lumtype_enum_to_str(media));
}

json ports_json(const node &shown)
{
    json ports = json::array();
    for (size_t port = 0; port < LUM_FRONT_PORTS; port++) {
        const json colour = shown.colours ? colour_json((*shown.colours)[port]) : json();
        const json media = shown.media ? media_json((*shown.media)[port]) : json();
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
            rings.push_back(
                {{"ring", ring},
                 {"state", state.value ? json(ring_state_text(*state.value)) : malformed_or_null(state)}});
        }
    }
    return rings;
}

json versions_json(const node &shown)
{
    json versions = json::array();
    for (const software_version &item : shown.versions) {
        versions.push_back({{"name", item.name}, {"version", item.version}});
    }
    return versions;
}

json node_topic_json(const node &shown, int topic)
{
    const fact<std::string> &value = shown.facts[static_cast<size_t>(topic)];
    const value_kind kind = node_topic_of(topic).kind;
    if (!value.value || kind != value_kind::STRUCTURE) {
        return fact_json(value, kind);
    }
    return topic == TOPIC_SOFTWARE_VERSIONS ? versions_json(shown) : ports_json(shown);
}

json port_topic_json(const node &shown, int port, std::string_view name)
{
    const auto found = shown.ports.find(port);
    if (found == shown.ports.end()) {
        return {};
    }
    const port_records &records = found->second;
    if (name == PORT_STATS) {
        return records.stats.value ? stats_json(*records.stats.value) : malformed_or_null(records.stats);
    }
    const auto slot = records.pm.find(name.substr(name.find('/') + 1));
    if (slot != records.pm.end()) {
        return slot->second.value ? pm_json(*slot->second.value) : malformed_or_null(slot->second);
    }
    const fact<std::string> &last = name == PM_LAST_DAY ? records.last_day : records.last_period;
    return last.value ? json(*last.value) : malformed_or_null(last);
}

json ring_json(const network &net)
{
    return net.ring_degraded.value ? json(*net.ring_degraded.value ? "degraded" : "normal")
                                   : malformed_or_null(net.ring_degraded);
}

json node_json(const network &net, const node &shown)
{
    json object;
    object["mac"] = mac_text(shown.mac);
    object["number"] = shown.number ? json(*shown.number) : json();
    object["location"] = net.local.value ? json(location(net, shown)) : json();
    object["last_change"] = shown.last_change ? json(utc_text(shown.last_change->wall)) : json();
    object["ports"] = node_topic_json(shown, TOPIC_PORT_SUMMARY);
    object["rings"] = net.is_local(shown.mac) ? rings_json(net) : json();
    for (int topic = 0; topic < NODE_TOPICS; topic++) {
        if (topic != TOPIC_PORT_SUMMARY && topic != TOPIC_PORT_MEDIA) {
            object[node_topic_of(topic).name] = node_topic_json(shown, topic);
        }
    }
    return object;
}

// The ports of a node that a list names.
unsigned listed_ports_of(const fact<std::vector<listed_ports>> &list, const mac_address &mac)
{
    for (const listed_ports &record : list.value.value_or(std::vector<listed_ports>{})) {
        if (record.mac == mac) {
            return record.ports;
        }
    }
    return 0;
}

json port_list_json(const fact<std::vector<listed_ports>> &list)
{
    if (!list.value) {
        return malformed_or_null(list);
    }
    json entries = json::array();
    for (const listed_ports &record : *list.value) {
        entries.push_back({{"mac", mac_text(record.mac)},
                           {"number", record.number},
                           {"ports", port_names_json(record.ports)}});
    }
    return entries;
}

json miswired_links_json(const network &net)
{
    if (net.miswired_links.is_published && !net.miswired_links.value) {
        return malformed_or_null(net.miswired_links);
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

} // namespace

json topic_json(const network &net, std::string_view topic)
{
    if (const std::optional<int> list = port_list_of_topic(topic)) {
        return port_list_json(net.lists[static_cast<size_t>(*list)]);
    }
    if (topic == MISWIRED_LINKS_TOPIC) {
        return miswired_links_json(net);
    }
    if (topic == NETWORK_STYLE7_TOPIC) {
        return ring_json(net);
    }
    const std::optional<topic_place> place = parse_topic_place(topic);
    const auto found = place ? net.nodes.find(place->mac) : net.nodes.end();
    if (found == net.nodes.end()) {
        return {};
    }
    if (place->port) {
        return port_topic_json(found->second, *place->port, place->name);
    }
    const int node_topic = node_topic_named(place->name);
    return node_topic == -1 ? json() : node_topic_json(found->second, node_topic);
}

std::vector<const node *> sorted_nodes(const network &net, node_order order)
{
    std::vector<const node *> nodes;
    for (const auto &[mac, candidate] : net.nodes) {
        if (candidate.is_present || net.is_local(mac)) {
            nodes.push_back(&candidate);
        }
    }
    std::stable_sort(nodes.begin(), nodes.end(),
                     [&](const node *a, const node *b) { return comes_before(net, order, *a, *b); });
    return nodes;
}

std::vector<screen_line> node_table(const network &net, const std::vector<const node *> &nodes,
                                    const moment &now)
{
    std::vector<std::vector<screen_line>> rows = {
        heading({"NODE", "NR", "WHERE", "PORTS", "MEDIA", "RINGS", "JOB", "CHANGED", "OS / BOOT / APP"})};
    const size_t ports = port_columns(nodes);
    for (const node *shown : nodes) {
        rows.push_back({
            plain(mac_text(shown->mac)),
            plain(shown->number ? to_string(*shown->number) : "-"),
            plain(location(net, *shown)),
            ports_cell(*shown, ports),
            plain(media_cell(*shown)),
            plain(rings_cell(net, *shown)),
            plain(job_cell(*shown)),
            plain(shown->last_change ? age_text(now.steady - shown->last_change->steady) : "-"),
            plain(versions_cell(*shown)),
        });
    }
    return columns(rows);
}

report report_nodes(const network &net, node_order order, const moment &now)
{
    const std::vector<const node *> nodes = sorted_nodes(net, order);
    report result = {node_table(net, nodes, now), {}};
    result.object["local"] =
        net.local.value ? json(mac_text(*net.local.value)) : malformed_or_null(net.local);
    result.object["nodes"] = json::array();
    for (const node *shown : nodes) {
        result.object["nodes"].push_back(node_json(net, *shown));
    }
    return result;
}

report report_node(const network &net, const node &shown)
{
    std::vector<std::vector<screen_line>> rows;
    const auto add = [&](const std::string &label, screen_line value) {
        rows.push_back({{{text_style::BOLD, label}}, std::move(value)});
    };
    add("node", plain(mac_text(shown.mac) + ", number " +
                      (shown.number ? to_string(*shown.number) : "not known (no list names the node)")));
    const bool is_here = shown.is_present || net.is_local(shown.mac);
    add("where", is_here
                     ? plain(location(net, shown))
                     : screen_line{{text_style::RED, "has left the network; this is what it left behind"}});
    add("ports", ports_cell(shown, port_columns({&shown})));
    add("media", plain(media_cell(shown)));
    if (net.is_local(shown.mac)) {
        add("rings", plain(rings_cell(net, shown)));
    }
    for (int topic = 0; topic < NODE_TOPICS; topic++) {
        const node_topic_info info = node_topic_of(topic);
        const fact<std::string> &value = shown.facts[static_cast<size_t>(topic)];
        if (info.kind != value_kind::STRUCTURE) {
            add(info.label, plain(fact_text(value, "-", value.value.value_or(""))));
        }
    }
    const char *label = "versions";
    for (const software_version &item : shown.versions) {
        add(label, plain(item.name + " " + item.version));
        label = "";
    }
    if (shown.versions.empty()) {
        add(label, plain(versions_cell(shown)));
    }

    report result = {{}, node_json(net, shown)};
    for (size_t i = 0; i < PORT_LISTS; i++) {
        const unsigned ports = listed_ports_of(net.lists[i], shown.mac);
        if (ports != 0) {
            add("listed", {{text_style::RED, std::string(LIST_TITLES[i]) + ": " + port_letters(ports)}});
        }
        result.object["faults"][LIST_FIELDS[i]] = port_names_json(ports);
    }
    add("changed", plain(shown.last_change ? date_text(*shown.last_change) : "-"));
    result.lines = columns(rows);
    return result;
}

std::vector<std::string> port_list_entries(const std::vector<listed_ports> &list)
{
    std::vector<std::string> entries;
    entries.reserve(list.size());
    for (const listed_ports &record : list) {
        entries.push_back(mac_text(record.mac) + " (" + to_string(record.number) + ") " +
                          port_letters(record.ports));
    }
    return entries;
}

std::vector<std::string> miswired_link_entries(const network &net)
{
    std::vector<std::string> entries;
    for (const miswired_link &link : net.miswired_links.value.value_or(std::vector<miswired_link>{})) {
        entries.push_back(miswired_link_text(link));
    }
    return entries;
}

std::string ring_text(const network &net)
{
    return fact_text(net.ring_degraded, "unknown",
                     net.ring_degraded.value.value_or(false) ? "DEGRADED" : "normal");
}

text_style ring_style(const network &net)
{
    if (!net.ring_degraded.value) {
        return text_style::PLAIN;
    }
    return *net.ring_degraded.value ? text_style::RED : text_style::GREEN;
}

report report_lists(const network &net)
{
    report result;
    std::vector<std::vector<screen_line>> rows;
    const auto add = [&](const std::string &title, const std::vector<std::string> &entries,
                         const std::string &other) {
        std::string label = title;
        for (const std::string &entry : entries) {
            rows.push_back({{{text_style::BOLD, label}}, {{text_style::RED, entry}}});
            label.clear();
        }
        if (entries.empty()) {
            rows.push_back({{{text_style::BOLD, label}}, plain(other)});
        }
    };
    for (size_t i = 0; i < PORT_LISTS; i++) {
        const auto &list = net.lists[i];
        add(LIST_TITLES[i], port_list_entries(list.value.value_or(std::vector<listed_ports>{})),
            fact_text(list, "unknown", "none"));
        result.object[LIST_FIELDS[i]] = port_list_json(list);
    }
    add("Miswired links", miswired_link_entries(net), fact_text(net.miswired_links, "none", "none"));
    result.object["miswired_links"] = miswired_links_json(net);
    rows.push_back({{{text_style::BOLD, "Network ring"}}, {{ring_style(net), ring_text(net)}}});
    result.object["ring"] = ring_json(net);
    result.lines = columns(rows);
    return result;
}
