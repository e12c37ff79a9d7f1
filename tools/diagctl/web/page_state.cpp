#include "web/page_state.h"

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
constexpr milliseconds TELL_INTERVAL(100);
constexpr milliseconds SNAPSHOT_AGE(500); // it tells the time

void append(std::string &list, const std::string &item)
{
    list += list.empty() ? "" : ",";
    list += item;
}

std::string event_text(uint64_t id, const char *event, const std::string &data)
{
    return fmt::format("id: {}\nevent: {}\ndata: {}\n\n", id, event, data);
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

page_state::page_state(console_info about, wall_time now, event_sender to)
    : info(std::move(about)), started(time_json(now)), sender(std::move(to)), networks(info.is_site ? 0 : 1),
      live_since(started)
{
}

void page_state::send(const char *event, const std::string &data)
{
    send_changes();
    if (!is_quiet) {
        sender(event_text(last_id, event, data));
    }
}

void page_state::send_changes()
{
    if (!unsent.empty()) {
        sender(std::exchange(unsent, {}));
    }
}

std::string page_state::connection_json() const
{
    return fmt::format(R"("connection":"{}","reason":{},)", live ? "live" : "lost",
                       live ? "null" : quoted_json(live_reason)) +
           (brokers.empty() ? "" : fmt::format(R"("brokers":{},)", brokers));
}

void page_state::set_connection(bool is_live, const std::string &reason, wall_time now)
{
    if (std::exchange(live_reason, reason) != reason) {
        last_snapshot.reset();
    }
    if (live == is_live) {
        return;
    }
    live = is_live;
    live_since = time_json(now);
    last_snapshot.reset();
    const std::string text = live ? "connected to " + info.broker : reason;
    add_change(now, fmt::format(R"({{"network":null,"node":null,"port":null,"kind":"connection","what":null,)"
                                R"("old":"{}","new":"{}","text":{}}})",
                                live ? "lost" : "live", live ? "live" : "lost", quoted_json(text)));
    send("connection", fmt::format(R"({{{}"since":{}}})", connection_json(), live_since));
}

void page_state::set_brokers(std::string array)
{
    if (array == brokers) {
        return;
    }
    brokers = std::move(array);
    last_snapshot.reset();
    send("connection", fmt::format(R"({{{}"since":{}}})", connection_json(), live_since));
}

void page_state::add_change(wall_time when, const std::string &object)
{
    last_id++;
    changes_kept.push_back(
        {last_id, fmt::format(R"({{"id":{},"time":{},{})", last_id, time_json(when), object.substr(1))});
    if (changes_kept.size() > MAX_CHANGES) {
        changes_kept.pop_front();
    }
    if (!is_quiet) {
        unsent += event_text(last_id, "change", changes_kept.back().text);
        mark();
    }
}

std::string page_state::log(uint64_t after) const
{
    std::string text = R"({"changes":[)";
    const auto first = std::upper_bound(changes_kept.begin(), changes_kept.end(), after,
                                        [](uint64_t id, const logged_change &item) { return id < item.id; });
    for (auto item = first; item != changes_kept.end(); ++item) {
        text += (item == first ? "" : ",") + item->text;
    }
    return text + "]}";
}

void page_state::mark()
{
    if (!dirty_since) {
        dirty_since = steady_clock::now(); // a recording has a time of its own
    }
}

std::optional<steady_clock::time_point> page_state::due() const
{
    return dirty_since ? std::optional(std::max(*dirty_since + GATHER_TIME, told_at + TELL_INTERVAL))
                       : std::nullopt;
}

void page_state::begin_telling()
{
    dirty_since.reset();
    told_at = steady_clock::now();
    told_id = last_id;
    send_changes();
}

void page_state::tell(size_t network, node_texts nodes, json_parts parts)
{
    told_network &told = networks[network];
    std::string changed;
    std::string gone;
    for (auto &[mac, text] : nodes) {
        const auto known = told.nodes.find(mac);
        if (!text) {
            if (known != told.nodes.end()) {
                append(gone, fmt::format(R"("{}")", mac_text(mac)));
                told.nodes.erase(known);
            }
        } else if (known == told.nodes.end() || known->second != *text) {
            append(changed, *text);
            told.nodes[mac] = std::move(*text);
        }
    }
    std::string object = (changed.empty() ? "" : fmt::format(R"("nodes":[{}],)", changed)) +
                         (gone.empty() ? "" : fmt::format(R"("gone":[{}],)", gone));
    if (!parts.empty()) {
        json_parts different;
        for (const auto &part : parts) {
            if (std::find(told.parts.begin(), told.parts.end(), part) == told.parts.end()) {
                different.push_back(part);
            }
        }
        object += members(different);
        told.parts = std::move(parts);
    }
    if (!object.empty()) {
        object.pop_back();
        last_snapshot.reset();
        send("network", fmt::format(R"({{"id":{},"network":{},{}}})", told_id, network, object));
    }
}

void page_state::begin_anew(size_t count)
{
    is_quiet = true;
    networks.clear();
    networks.resize(count);
    last_snapshot.reset();
}

void page_state::end_anew()
{
    is_quiet = false;
    send("reset", "{}");
}

void page_state::rewind(uint64_t changes)
{
    begin_anew(0);
    changes_kept.clear();
    unsent.clear();
    last_id = changes;
}

std::shared_ptr<const std::string> page_state::snapshot(wall_time now)
{
    if (!last_snapshot || steady_clock::now() - snapshot_made > SNAPSHOT_AGE) {
        snapshot_made = steady_clock::now();
        std::string all;
        for (const told_network &told : networks) {
            std::string nodes;
            for (const auto &[mac, node] : told.nodes) {
                append(nodes, node);
            }
            append(all, fmt::format(R"({{{}"nodes":[{}]}})", members(told.parts), nodes));
        }
        last_snapshot = std::make_shared<const std::string>(fmt::format(
            R"({{"version":{},"kind":"{}","broker":{},{}"connection_since":{},"started":{},"time":{},)"
            R"("replay":{},"layout":{},"id":{},"networks":[{}]}})",
            quoted_json(info.version), info.is_site ? "site" : "card", quoted_json(info.broker),
            connection_json(), live_since, started, time_json(now), info.is_replay, info.has_layout, told_id,
            all));
    }
    return last_snapshot;
}
