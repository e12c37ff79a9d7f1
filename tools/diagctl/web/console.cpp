#include "web/console.h"

#include "topics.h"
#include "web/page_json.h"

#include <fmt/core.h>

#include <algorithm>
#include <utility>

namespace
{

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr size_t MAX_CHANGES = 10000;
// What comes together is told together, and no more than ten times a second.
constexpr milliseconds GATHER_TIME(10);
constexpr milliseconds FLUSH_INTERVAL(100);
constexpr milliseconds SNAPSHOT_AGE(500); // it tells the time

std::string joined(const std::map<mac_address, std::string> &nodes)
{
    std::string text;
    for (const auto &[mac, node] : nodes) {
        text += text.empty() ? "" : ",";
        text += node;
    }
    return text;
}

std::string members(const json_parts &parts)
{
    std::string text;
    for (const auto &[name, value] : parts) {
        text += fmt::format(R"("{}":{},)", name, value);
    }
    return text;
}

} // namespace

console::console(console_info about, network named, wall_time now, event_sender to)
    : info(std::move(about)), started(time_json(now)), sender(std::move(to)), live_since(started)
{
    shown.net = std::move(named);
}

void console::take(std::string_view topic, bytes payload, bool is_retained, const moment &now)
{
    const std::optional<port_list> list = port_list_of_topic(topic);
    if (list) {
        mark_listed(*list);
    }
    const changes found = network_apply(shown.net, topic, payload, is_retained, now);
    if (list) {
        mark_listed(*list);
    }
    if (const std::optional<topic_place> place = parse_topic_place(topic)) {
        shown.dirty.insert(place->mac);
    } else {
        shown.is_view_dirty = true;
    }
    if (topic == LOCAL_NODE_TOPIC) {
        for (const auto &[mac, known] : shown.net.nodes) {
            shown.dirty.insert(mac);
        }
    }
    if (!dirty_since) {
        dirty_since = steady_clock::now(); // a recording has a time of its own
    }
    for (const change &item : found) {
        note(item, now);
    }
}

void console::mark_listed(port_list list)
{
    for (const listed_ports &record : shown.net.lists[list].value.value_or(port_list_value{})) {
        shown.dirty.insert(record.mac);
    }
}

void console::note(const change &item, const moment &now)
{
    if (item.kind == change_kind::NETWORK_RING) {
        shown.ring_since = now.wall;
    } else if (item.kind == change_kind::LEFT) {
        shown.left[*item.node] = now.wall;
    } else if (item.kind == change_kind::APPEARED) {
        shown.left.erase(*item.node);
    }
    last_id++;
    add_to_log(page_change_json(shown.net, item, last_id, now.wall));
}

void console::add_to_log(const std::string &object)
{
    changes_kept.push_back({last_id, object});
    if (changes_kept.size() > MAX_CHANGES) {
        changes_kept.pop_front();
    }
    send("change", object);
}

void console::send(const char *event, const std::string &data)
{
    if (!is_quiet) {
        sender(fmt::format("id: {}\nevent: {}\ndata: {}\n\n", last_id, event, data));
    }
}

void console::set_connection(bool is_live, const std::string &reason, wall_time now)
{
    if (live == is_live) {
        return;
    }
    live = is_live;
    live_since = time_json(now);
    last_snapshot.reset();
    last_id++;
    const std::string text = live ? "connected to " + info.broker : reason;
    add_to_log(fmt::format(
        R"({{"id":{},"time":{},"network":0,"node":null,"port":null,"kind":"connection","what":null,)"
        R"("old":"{}","new":"{}","text":{}}})",
        last_id, live_since, live ? "lost" : "live", live ? "live" : "lost", quoted_json(text)));
    send("connection",
         fmt::format(R"({{"connection":"{}","since":{}}})", live ? "live" : "lost", live_since));
}

void console::replace(network other)
{
    if (other.ring_degraded.value != shown.net.ring_degraded.value) {
        shown.ring_since.reset();
    }
    shown.net = std::move(other);
    show_anew();
}

void console::rewind(network other, uint64_t last)
{
    is_quiet = true;
    shown = {};
    shown.net = std::move(other);
    changes_kept.clear();
    last_id = last;
}

void console::show_anew()
{
    is_quiet = true;
    for (const auto &[mac, known] : shown.net.nodes) {
        shown.dirty.insert(mac);
    }
    shown.is_view_dirty = true;
    flush();
    is_quiet = false;
    send("reset", "{}");
}

std::optional<steady_clock::time_point> console::due() const
{
    return dirty_since ? std::optional(std::max(*dirty_since + GATHER_TIME, flushed + FLUSH_INTERVAL))
                       : std::nullopt;
}

// "nodes" and "gone" of what has changed, empty where nothing has.
std::string console::changed_nodes()
{
    std::string nodes;
    std::string gone;
    for (const mac_address &mac : std::exchange(shown.dirty, {})) {
        const auto found = shown.net.nodes.find(mac);
        if (found == shown.net.nodes.end()) {
            continue;
        }
        const auto left = shown.left.find(mac);
        std::string text = page_node_json(
            shown.net, found->second, left == shown.left.end() ? std::nullopt : std::optional(left->second));
        std::string &told = shown.nodes[mac];
        if (text != told) {
            nodes += (nodes.empty() ? "" : ",") + text;
            told = std::move(text);
        }
    }
    std::erase_if(shown.nodes, [&](const auto &entry) {
        const bool is_gone = !shown.net.nodes.contains(entry.first);
        if (is_gone) {
            gone += fmt::format(R"({}"{}")", gone.empty() ? "" : ",", mac_text(entry.first));
            shown.left.erase(entry.first);
        }
        return is_gone;
    });
    return (nodes.empty() ? "" : fmt::format(R"("nodes":[{}],)", nodes)) +
           (gone.empty() ? "" : fmt::format(R"("gone":[{}],)", gone));
}

std::string console::changed_parts()
{
    if (!std::exchange(shown.is_view_dirty, false)) {
        return "";
    }
    json_parts parts = page_parts_json(shown.net, shown.ring_since);
    json_parts changed;
    for (const auto &part : parts) {
        if (std::find(shown.parts.begin(), shown.parts.end(), part) == shown.parts.end()) {
            changed.push_back(part);
        }
    }
    shown.parts = std::move(parts);
    return members(changed);
}

void console::flush()
{
    dirty_since.reset();
    flushed = steady_clock::now();
    told_id = last_id;
    std::string changed = changed_nodes() + changed_parts();
    if (!changed.empty()) {
        changed.pop_back();
        last_snapshot.reset();
        send("network", fmt::format(R"({{"id":{},"network":0,{}}})", told_id, changed));
    }
}

std::shared_ptr<const std::string> console::snapshot(wall_time now)
{
    if (!last_snapshot || steady_clock::now() - snapshot_made > SNAPSHOT_AGE) {
        snapshot_made = steady_clock::now();
        last_snapshot = std::make_shared<const std::string>(fmt::format(
            R"({{"version":{},"kind":"card","broker":{},"connection":"{}","connection_since":{},"started":{},"time":{},)"
            R"("replay":{},"layout":{},"id":{},"networks":[{{{}"differs":[],"nodes":[{}]}}]}})",
            quoted_json(info.version), quoted_json(info.broker), live ? "live" : "lost", live_since, started,
            time_json(now), info.is_replay, info.has_layout, told_id, members(shown.parts),
            joined(shown.nodes)));
    }
    return last_snapshot;
}

std::string console::log(uint64_t after) const
{
    std::string text = R"({"changes":[)";
    const auto first = std::upper_bound(changes_kept.begin(), changes_kept.end(), after,
                                        [](uint64_t id, const logged_change &item) { return id < item.id; });
    for (auto item = first; item != changes_kept.end(); ++item) {
        text += (item == first ? "" : ",") + item->text;
    }
    return text + "]}";
}

std::optional<std::string> console::performance(const std::string &mac, const std::string &port,
                                                wall_time now) const
{
    const std::optional<mac_address> known = parse_topic_mac(mac);
    const std::optional<int> number = parse_port(port);
    return known && number ? page_performance_json(shown.net, *known, *number, now) : std::nullopt;
}
