#include "web/page_json.h"

#include "network/json.h"
#include "screen/changes.h"
#include "screen/text.h"

#include <fmt/core.h>
#include <nlohmann/json.hpp>

#include <algorithm>

namespace
{

constexpr size_t MAX_TEXT = 500; // of a value: a client's request may be of any length

struct fault {
    port_list list;
    const char *part;  // name of the list
    const char *name;  // in a port's faults
    const char *words; // for people
};
constexpr fault FAULTS[] = {
    {LIST_LINK_DOWN, "link_down", "link-down", "link down"},
    {LIST_GROUND, "ground", "ground", "ground fault"},
    {LIST_MISWIRED, "miswired", "miswired", "miswired"},
};

bool is_listed(const network &net, const fault &wanted, const mac_address &mac, int port)
{
    return (net.listed(wanted.list, mac) & (1U << static_cast<unsigned>(port))) != 0;
}

json &port_entry(json &ports, const std::string &port)
{
    const auto found =
        std::find_if(ports.begin(), ports.end(), [&](const json &entry) { return entry["port"] == port; });
    if (found != ports.end()) {
        return *found;
    }
    ports.push_back({{"port", port}, {"colour", nullptr}, {"media", nullptr}});
    return ports.back();
}

// Front ports in their order, and the CPU port behind them where it has statistics.
json page_ports(const network &net, const node &shown, json ports, bool with_statistics)
{
    if (ports.is_object()) {
        return ports; // malformed
    }
    ports = ports.is_null() ? json::array() : std::move(ports);
    const auto listed = net.listed(LIST_LINK_DOWN, shown.mac) | net.listed(LIST_GROUND, shown.mac) |
                        net.listed(LIST_MISWIRED, shown.mac);
    for (const char letter : port_letters(listed)) {
        port_entry(ports, std::string(1, letter));
    }
    json known = with_statistics ? ports_json(net, shown) : json({{"ports", json::array()}});
    for (json &measured : known["ports"]) {
        json &entry = port_entry(ports, measured["port"]);
        entry["stats"] = std::move(measured["statistics"]);
        if (!measured["rates_per_second"].is_null()) {
            entry["rates"] = std::move(measured["rates_per_second"]);
        }
    }
    const auto place = [](const json &entry) { return parse_port(entry["port"].get<std::string>()).value(); };
    std::sort(ports.begin(), ports.end(), [&](const json &a, const json &b) { return place(a) < place(b); });
    for (json &entry : ports) {
        entry["faults"] = json::array();
        for (const fault &each : FAULTS) {
            if (place(entry) < LUM_FRONT_PORTS && is_listed(net, each, shown.mac, place(entry))) {
                entry["faults"].push_back(each.name);
            }
        }
    }
    return ports;
}

// What is wrong with a node, in words.
json problems_of(const network &net, const node &shown)
{
    json problems = json::array();
    for (int port = 0; port < LUM_FRONT_PORTS; port++) {
        std::string words;
        for (const fault &each : FAULTS) {
            if (is_listed(net, each, shown.mac, port)) {
                words += (words.empty() ? "" : ", ") + std::string(each.words);
            }
        }
        const bool is_red = shown.colours && (*shown.colours)[static_cast<size_t>(port)] == PORT_STATUS_RED;
        if (words.empty() && is_red) {
            words = "in trouble";
        }
        if (!words.empty()) {
            problems.push_back(fmt::format("port {}: {}", port_text(port), words));
        }
    }
    for (size_t topic = 0; topic < NODE_TOPICS; topic++) {
        const fact<std::string> &value = shown.facts[topic];
        const node_topic_info &known = NODE_TOPIC_INFOS[topic];
        if (value.is_malformed()) {
            problems.push_back(fmt::format("{} {}", known.label, malformed_text(value.size)));
        } else if (topic != TOPIC_DOWNLOAD_PENDING && known.kind == value_kind::FLAG && value.value == "on") {
            problems.push_back(known.label);
        }
    }
    return problems;
}

std::string shortened(const std::string &text)
{
    return text.size() <= MAX_TEXT ? text : text.substr(0, MAX_TEXT) + " ...";
}

void shorten(change_value &value)
{
    if (auto *const text = std::get_if<std::string>(&value)) {
        *text = shortened(*text);
    }
}

// --- performance records

struct record_kind {
    pm_kind kind;
    int64_t seconds;
    size_t count;
    std::string_view prefix; // of a slot
};

// As many as are kept, the newest last; null where none is known of that time. The ends of the known ones stand a whole
// number of periods apart, give or take what the daemon's clock was set by.
json records_of(const network &net, const node &shown, int port, const record_kind &wanted, int64_t now)
{
    json slots(wanted.count, nullptr);
    const std::vector<closed_record> closed = closed_records(shown, port, wanted.kind);
    json objects = pm_json(net, shown, port, wanted.kind)["records"];
    const auto newest = std::find_if(closed.rbegin(), closed.rend(),
                                     [](const closed_record &item) { return item.record.value.has_value(); });
    if (newest == closed.rend()) {
        return slots;
    }
    const int64_t last = closing_time(*newest->record.value);
    const auto count = static_cast<int64_t>(wanted.count);
    const int64_t missing = now > last ? (now - last) / wanted.seconds : 0; // since the newest
    const auto slot_number = [&](const std::string &slot) {
        return std::stoll(slot.substr(wanted.prefix.size()));
    };
    for (size_t i = 0; i < closed.size(); i++) {
        const closed_record &item = closed[i];
        const int64_t age =
            item.record.value
                ? (last - closing_time(*item.record.value) + wanted.seconds / 2) / wanted.seconds
                : (slot_number(newest->slot) - slot_number(item.slot) + count) % count;
        const int64_t index = count - 1 - missing - age;
        if (index < 0 || index >= count) {
            continue;
        }
        json entry = {{"slot", item.slot}};
        json &object = objects[i];
        if (item.record.value) {
            entry["end"] = utc_text(item.time());
            object.erase("slot");
            object.erase("time");
            entry["values"] = std::move(object);
        } else {
            entry.update(object);
        }
        slots[static_cast<size_t>(index)] = std::move(entry);
    }
    return slots;
}

json fields_of_records()
{
    constexpr std::pair<std::string_view, const char *> UNITS[] = {{"_seconds", "s"}, {"_ppm", "ppm"}};
    json fields = json::array();
    for (const pm_field &field : PM_FIELDS) {
        if (field.treatment == pm_treatment::CLOSING_TIME) {
            continue;
        }
        std::string label = field.name;
        json unit;
        for (const auto &[ending, name] : UNITS) {
            if (label.ends_with(ending)) {
                label.resize(label.size() - ending.size());
                unit = name;
            }
        }
        std::replace(label.begin(), label.end(), '_', ' ');
        fields.push_back({{"name", field.name}, {"label", label}, {"unit", unit}});
    }
    return fields;
}

} // namespace

std::string quoted_json(const std::string &text)
{
    return json_text(text);
}

bool is_json_object(const std::string &text)
{
    return json::parse(text, nullptr, false).is_object();
}

std::string time_json(const std::optional<wall_time> &when)
{
    if (!when) {
        return "null";
    }
    const auto part =
        std::chrono::duration_cast<std::chrono::milliseconds>(when->time_since_epoch()).count() % 1000;
    std::string text = utc_text(*when);
    text.pop_back();
    return fmt::format("\"{}.{:03}Z\"", text, part);
}

std::string page_node_json(const network &net, const node &shown, const node_standing &standing)
{
    json object = node_json(net, shown);
    object.erase("location");
    object.erase("faults");
    object.erase("rings");
    if (standing.number && !shown.number) {
        object["number"] = *standing.number;
    }
    object["local"] = net.is_local(shown.mac);
    object["reachable"] = standing.is_reachable;
    object["since"] = standing.since ? json(utc_text(*standing.since)) : json();
    object["ports"] = page_ports(net, shown, std::move(object["ports"]), standing.with_statistics);
    object["problems"] = problems_of(net, shown);
    for (const std::string &problem : standing.problems) {
        object["problems"].push_back(problem);
    }
    return json_text(object);
}

json_parts page_parts_json(const network &net, const std::optional<wall_time> &ring_since)
{
    const json lists = lists_json(net);
    json rings = json::array();
    json local;
    if (net.local.value) {
        local = mac_text(*net.local.value);
        const auto found = net.nodes.find(*net.local.value);
        if (found != net.nodes.end()) {
            rings = node_json(net, found->second)["rings"];
        }
    }
    json_parts parts = {{"name", "null"},
                        {"local", json_text(local)},
                        {"ring", json_text(lists["ring"])},
                        {"since", time_json(ring_since)},
                        {"rings", json_text(rings)},
                        {"differs", "[]"},
                        {"miswired_links", json_text(lists["miswired_links"])}};
    for (const fault &each : FAULTS) {
        parts.emplace_back(each.part, json_text(lists[PORT_LIST_INFOS[each.list].name]));
    }
    return parts;
}

std::string page_change_json(const network &net, const change &item, std::optional<size_t> network_index)
{
    change told = item;
    shorten(told.before);
    shorten(told.after);
    const json known = change_json(net, told, "", {}, change_text(net, told));
    std::string kind = known["kind"];
    for (const fault &each : FAULTS) {
        if (item.kind == change_kind::LISTED && item.what == PORT_LIST_INFOS[each.list].name) {
            kind = each.part;
        }
    }
    const json object = {{"network", network_index ? json(*network_index) : json()},
                         {"node", known["mac"]},
                         {"port", known["port"]},
                         {"kind", kind},
                         {"what", known["what"]},
                         {"old", known["old"]},
                         {"new", known["new"]},
                         {"text", known["change"]}};
    return json_text(object);
}

std::optional<std::string> page_performance_json(const network &net, const mac_address &mac, int port,
                                                 wall_time now)
{
    const auto found = net.nodes.find(mac);
    if (found == net.nodes.end() || !found->second.ports.contains(port)) {
        return {};
    }
    const node &shown = found->second;
    const int64_t seconds = std::chrono::system_clock::to_time_t(now);
    json object = {
        {"mac", mac_text(mac)}, {"port", port_text(port)}, {"now", utc_text(now)}, {"stats", nullptr}};
    json known = ports_json(net, shown);
    for (json &measured : known["ports"]) {
        if (measured["port"] == port_text(port)) {
            object["stats"] = std::move(measured["statistics"]);
        }
    }
    object["fields"] = fields_of_records();
    object["periods"] = records_of(net, shown, port, {pm_kind::PERIODS, 900, PM_PERIODS, "period"}, seconds);
    object["days"] = records_of(net, shown, port, {pm_kind::DAYS, 86400, PM_DAYS, "day"}, seconds);
    return json_text(object);
}
