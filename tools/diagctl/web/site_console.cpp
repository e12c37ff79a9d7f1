#include "web/site_console.h"

#include "network/json.h"
#include "screen/site_reports.h"
#include "screen/text.h"

#include <fmt/core.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <utility>

namespace
{

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds COMPARE_INTERVAL(1000); // a change comes to all cards within seconds
constexpr size_t PENDING_MAX = 20000;          // more than the page keeps

std::string without_since(const site &all, view_difference item)
{
    item.since.reset();
    return difference_text(all, item);
}

// The ring's state is not bridged. A network of which a link is down, or a part is not heard, is degraded; where no connected
// card lists its links, it isn't known.
std::optional<bool> is_degraded(const card_view &view, const std::vector<view_difference> &differences)
{
    const fact<port_list_value> &down = view.lists[LIST_LINK_DOWN];
    const bool is_parted =
        std::any_of(differences.begin(), differences.end(),
                    [](const view_difference &item) { return item.kind == view_difference::PARTS; });
    if (is_parted || (down.value && !down.value->empty())) {
        return true;
    }
    return down.value ? std::optional(false) : std::nullopt;
}

bool have_same_cards(const site_network &one, const std::vector<mac_address> &cards)
{
    return one.cards == cards;
}

std::string change_object(std::optional<size_t> network, const json &node, const json &port, const char *kind,
                          const json &before, const json &after, const std::string &text)
{
    return json_text({{"network", network ? json(*network) : json()},
                      {"node", node},
                      {"port", port},
                      {"kind", kind},
                      {"what", nullptr},
                      {"old", before},
                      {"new", after},
                      {"text", text}});
}

} // namespace

site_console::site_console(page_state &told, size_t brokers, const node_names &names)
    : page(told), all(brokers)
{
    for (size_t broker = 0; broker < brokers; broker++) {
        all.account(broker).net.names = names;
    }
}

// --- what comes

void site_console::take(size_t broker, std::string_view topic, bytes payload, bool is_retained,
                        const moment &now)
{
    site_changes items = site_apply(all.account(broker), topic, payload, is_retained, now);
    if (!items.card) {
        return;
    }
    const mac_address &mac = *items.card;
    const std::optional<topic_place> place = items.is_view ? std::nullopt : parse_topic_place(topic);
    if (!place || !place->port) { // statistics and records are asked for one by one
        mark(mac, items.is_view);
    }
    if (items.is_view || !places.contains(mac)) {
        is_compare_due = true;
    }
    // What both brokers tell is told once.
    const bool is_told = all.best(mac) == broker;
    for (change &item : items.nodes) {
        if (is_told) {
            pending.push_back({now, mac, std::move(item)});
        }
    }
    for (const site_change &item : items.cards) {
        const bool is_connection =
            item.event == site_event::CONNECTED || item.event == site_event::DISCONNECTED;
        if (is_connection || is_told) {
            pending.push_back({now, mac, item});
        }
    }
    while (pending.size() > PENDING_MAX) {
        pending.pop_front();
    }
}

void site_console::forget(size_t broker)
{
    all.clear(broker);
    is_compared_anew = is_compare_due = true;
}

void site_console::set_there(size_t broker, bool is)
{
    all.set_there(broker, is);
    is_compared_anew = is_compare_due = true;
}

void site_console::mark(const mac_address &card, bool is_view)
{
    if (const std::optional<size_t> place = network_of(card)) {
        networks[*place].dirty.insert(card);
        networks[*place].is_view_dirty |= is_view;
        page.mark();
    }
}

std::optional<size_t> site_console::network_of(const mac_address &mac) const
{
    const auto found = places.find(mac);
    return found == places.end() ? std::nullopt : std::optional(found->second);
}

// --- what is told

milliseconds site_console::look(const moment &now)
{
    looked = now;
    const auto age = now.steady - compared;
    if (is_compare_due && (is_compared_anew || age >= COMPARE_INTERVAL)) {
        compared = now.steady;
        compare_networks(now);
    }
    for (const pending_change &item : std::exchange(pending, {})) {
        note_change(item);
    }
    return is_compare_due ? std::chrono::ceil<milliseconds>(std::max(COMPARE_INTERVAL - age, {}))
                          : COMPARE_INTERVAL;
}

void site_console::play(const recorded_message &message, const moment &when)
{
    if (!message.was_retained()) {
        pass(when);
    }
    take(0, message.topic, message.payload, message.was_retained(), when);
    if (!message.was_retained()) {
        look(when);
    }
}

// The networks are compared when that was due and not when somebody looks.
void site_console::pass(const moment &until)
{
    const auto due = compared + COMPARE_INTERVAL;
    if (is_compared_anew) {
        look(until);
    } else if (is_compare_due && due <= until.steady) {
        const auto ago = std::chrono::duration_cast<std::chrono::system_clock::duration>(until.steady - due);
        look({due, until.wall - ago});
    }
    looked = until;
}

void site_console::show_anew()
{
    build(all.networks());
    tell_anew();
}

void site_console::note_change(const pending_change &item)
{
    if (const auto *const what = std::get_if<site_change>(&item.item)) {
        note_card_change(item, *what);
        return;
    }
    const auto &what = std::get<change>(item.item);
    if (what.kind == change_kind::LEFT) {
        left[item.card] = item.when.wall;
    } else if (what.kind == change_kind::APPEARED) {
        left.erase(item.card);
    }
    page.add_change(item.when.wall, page_change_json(all.net(item.card), what, network_of(item.card)));
}

void site_console::note_card_change(const pending_change &item, const site_change &what)
{
    const std::optional<size_t> place = network_of(item.card);
    const json node = mac_text(item.card);
    switch (what.event) {
    case site_event::CONNECTED:
    case site_event::DISCONNECTED: {
        // A card that one broker has lost may still be connected to the other.
        const std::optional<bool> is = all.is_connected(item.card);
        const std::optional<bool> was = std::exchange(connected[item.card], is);
        if (is && was != is) {
            page.add_change(item.when.wall,
                            change_object(place, node, nullptr, "card", was ? json(*was) : json(), *is,
                                          site_change_text(all, {.event = *is ? site_event::CONNECTED
                                                                              : site_event::DISCONNECTED,
                                                                 .card = item.card})));
        }
        break;
    }
    case site_event::LISTED:
    case site_event::UNLISTED: {
        constexpr const char *KINDS[] = {"link_down", "ground", "miswired"};
        const bool is = what.event == site_event::LISTED;
        for (const char letter : port_letters(what.ports)) {
            site_change one = what;
            one.ports = 1U << static_cast<unsigned>(parse_port(std::string_view(&letter, 1)).value());
            page.add_change(item.when.wall,
                            change_object(place, node, std::string(1, letter), KINDS[what.list], !is, is,
                                          site_change_text(all, one)));
        }
        break;
    }
    case site_event::HEARS:
    case site_event::LOST:
        break; // of what each of a network's cards hears, the views say more in fewer words
    }
}

void site_console::compare_networks(const moment &now)
{
    is_compare_due = false;
    std::vector<site_network> found = all.networks();
    const bool is_same = std::equal(found.begin(), found.end(), networks.begin(), networks.end(),
                                    [](const site_network &one, const shown_network &shown) {
                                        return have_same_cards(one, shown.cards);
                                    });
    compare_differences(found, now);
    const bool is_new = std::exchange(is_compared_anew, false) || !is_same;
    if (is_new) {
        build(std::move(found));
        for (const auto &[mac, place] : places) {
            connected.try_emplace(mac, all.is_connected(mac));
        }
    } else {
        for (size_t i = 0; i < found.size(); i++) {
            networks[i].differences = std::move(found[i].differences);
            networks[i].is_view_dirty = true;
        }
    }
    // Now, so that it is known since when, though of a recording that is wound on nothing is told.
    for (shown_network &shown : networks) {
        refresh_view(shown);
    }
    if (is_new && page.is_telling()) {
        tell_anew();
    } else {
        page.mark();
    }
}

// A network that has the cards that it had stays what it was.
void site_console::build(std::vector<site_network> found)
{
    std::vector<shown_network> before = std::exchange(networks, {});
    places.clear();
    for (site_network &one : found) {
        shown_network shown;
        const auto known = std::find_if(before.begin(), before.end(), [&](const shown_network &other) {
            return have_same_cards(one, other.cards);
        });
        if (known != before.end()) {
            shown = std::move(*known);
        } else {
            shown.view.names = all.net(one.cards[0]).names;
        }
        shown.cards = std::move(one.cards);
        shown.differences = std::move(one.differences);
        shown.is_view_dirty = true;
        for (const mac_address &mac : shown.cards) {
            shown.dirty.insert(mac);
            places[mac] = networks.size();
        }
        networks.push_back(std::move(shown));
    }
}

void site_console::tell_anew()
{
    page.begin_anew(networks.size());
    flush();
    page.end_anew();
}

void site_console::compare_differences(const std::vector<site_network> &found, const moment &now)
{
    std::set<std::string> current;
    for (const site_network &one : found) {
        for (const view_difference &item : one.differences) {
            const std::string text = without_since(all, item);
            if (current.insert(text).second && !differing.contains(text) && !is_compared_anew) {
                page.add_change(now.wall, change_object(network_of(one.cards[0]), nullptr, nullptr, "views",
                                                        false, true, "views differ: " + text));
            }
        }
    }
    for (const std::string &text : differing) {
        if (!current.contains(text) && !is_compared_anew) {
            page.add_change(now.wall, change_object(std::nullopt, nullptr, nullptr, "views", true, false,
                                                    "views no longer differ: " + text));
        }
    }
    differing = std::move(current);
}

// What the network's cards list together; nodes whose ports it newly names, or no longer, have changed.
void site_console::refresh_view(shown_network &shown)
{
    card_view view = site_network_view(all, shown.cards);
    const std::optional<bool> degraded = is_degraded(view, shown.differences);
    view.ring_degraded = {degraded.has_value(), degraded.has_value() ? size_t{1} : size_t{0}, degraded};
    std::map<std::pair<mac_address, size_t>, unsigned> listed;
    for (size_t list = 0; list < PORT_LISTS; list++) {
        for (const listed_ports &record : shown.view.lists[list].value.value_or(port_list_value{})) {
            listed[{record.mac, list}] ^= record.ports;
        }
        for (const listed_ports &record : view.lists[list].value.value_or(port_list_value{})) {
            listed[{record.mac, list}] ^= record.ports;
            if (record.number != 0 && std::exchange(numbers[record.mac], record.number) != record.number) {
                shown.dirty.insert(record.mac);
            }
        }
    }
    for (const auto &[place, ports] : listed) {
        if (ports != 0) {
            shown.dirty.insert(place.first);
        }
    }
    if (degraded && shown.view.ring_degraded.value && *degraded != *shown.view.ring_degraded.value) {
        shown.ring_since = looked.wall;
    }
    static_cast<card_view &>(shown.view) = std::move(view);
}

void site_console::flush()
{
    page.begin_telling();
    for (size_t place = 0; place < networks.size(); place++) {
        shown_network &shown = networks[place];
        const bool is_view_new = std::exchange(shown.is_view_dirty, false);
        if (is_view_new) {
            refresh_view(shown);
        } else if (shown.dirty.empty()) {
            continue;
        }
        page_state::node_texts nodes;
        for (const mac_address &mac : std::exchange(shown.dirty, {})) {
            if (network_of(mac) == place) {
                nodes[mac] = node_text(shown, mac, false);
            }
        }
        page.tell(place, std::move(nodes), is_view_new ? parts_of(shown) : json_parts());
    }
}

std::string site_console::node_text(const shown_network &shown, const mac_address &mac,
                                    bool with_statistics) const
{
    node_standing standing = {.with_statistics = with_statistics};
    const site_card *const card = all.card(mac);
    if (const auto found = numbers.find(mac); found != numbers.end()) {
        standing.number = found->second;
    }
    if (const auto found = left.find(mac); found != left.end()) {
        standing.since = found->second;
    }
    if (all.is_connected(mac) == false) {
        standing.is_reachable = false;
        standing.since = card->bridge_since ? std::optional(card->bridge_since->wall) : std::nullopt;
    }
    if (card != nullptr && is_restless(*card)) {
        standing.problems.push_back(
            fmt::format("lost {} times: have two cards this address?", card->bridge_losses));
    }
    const node *const found = all.find(mac);
    node silent;
    silent.mac = mac;
    return page_node_json(shown.view, found == nullptr ? silent : *found, standing);
}

json_parts site_console::parts_of(const shown_network &shown) const
{
    json_parts parts = page_parts_json(shown.view, shown.ring_since);
    json differs = json::array();
    for (const view_difference &item : shown.differences) {
        json object = difference_json(item);
        if (!object.contains("mac")) {
            object["mac"] = nullptr;
        }
        object["text"] = without_since(all, item);
        differs.push_back(std::move(object));
    }
    for (auto &[name, text] : parts) {
        if (name == "name") {
            text = quoted_json("Network of " + ::node_text(shown.view, shown.cards[0]));
        } else if (name == "differs") {
            text = json_text(differs);
        }
    }
    return parts;
}

// --- what is asked

std::optional<std::string> site_console::node_of(const mac_address &mac) const
{
    const std::optional<size_t> place = network_of(mac);
    return place ? std::optional(node_text(networks[*place], mac, true)) : std::nullopt;
}

std::optional<std::string> site_console::performance(const mac_address &mac, int port, wall_time now) const
{
    return page_performance_json(all.net(mac), mac, port, now);
}
