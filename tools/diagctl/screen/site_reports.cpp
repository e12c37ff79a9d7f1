#include "screen/site_reports.h"

#include <fmt/core.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <set>

namespace
{

constexpr unsigned RESTLESS_LOSSES = 3;

std::string label_of(const site &all, const mac_address &mac)
{
    return node_text(all.net(mac), mac);
}

// "Lobby, Cellar and 3 more".
std::string cards_text(const site &all, const std::vector<mac_address> &cards)
{
    constexpr size_t MAX_NAMED = 4;
    std::string text;
    const size_t named = cards.size() > MAX_NAMED + 1 ? MAX_NAMED : cards.size();
    for (size_t i = 0; i < named; i++) {
        text += (i == 0 ? "" : ", ") + label_of(all, cards[i]);
    }
    return named < cards.size() ? fmt::format("{} and {} more", text, cards.size() - named) : text;
}

std::string since_text(const std::optional<moment> &since)
{
    return since ? " since " + date_text(*since) : "";
}

nlohmann::ordered_json time_json(const std::optional<moment> &when)
{
    return when ? nlohmann::ordered_json(utc_text(when->wall)) : nlohmann::ordered_json();
}

nlohmann::ordered_json macs_json(const std::vector<mac_address> &macs)
{
    auto array = nlohmann::ordered_json::array();
    for (const mac_address &mac : macs) {
        array.push_back(mac_text(mac));
    }
    return array;
}

screen_lines difference_lines(const site &all, const site_network &shown)
{
    screen_lines lines;
    for (const view_difference &item : shown.differences) {
        lines.push_back({{text_style::RED, "views differ: " + difference_text(all, item)}});
    }
    return lines;
}

screen_line network_title(const site &all, const site_network &shown)
{
    const size_t count = shown.cards.size();
    return {{text_style::BOLD, fmt::format("network of {}: {} card{}", label_of(all, shown.cards[0]), count,
                                           count == 1 ? "" : "s")}};
}

} // namespace

card_view site_network_view(const site &all, const std::vector<mac_address> &cards)
{
    card_view view;
    for (const mac_address &mac : cards) {
        const site_card *const card = all.card(mac);
        if (card == nullptr || !all.is_connected(mac).value_or(true)) {
            continue;
        }
        for (size_t list = 0; list < PORT_LISTS; list++) {
            fact<port_list_value> &merged = view.lists[list];
            const fact<port_list_value> &said = card->view.lists[list];
            if (!said.value) {
                continue;
            }
            if (!merged.value) {
                merged = {true, said.size, port_list_value{}};
            }
            for (const listed_ports &record : *said.value) {
                const auto known =
                    std::find_if(merged.value->begin(), merged.value->end(),
                                 [&](const listed_ports &one) { return one.mac == record.mac; });
                if (known == merged.value->end()) {
                    merged.value->push_back(record);
                } else {
                    known->ports |= record.ports;
                }
            }
        }
        if (!view.miswired_links.value) {
            view.miswired_links = card->view.miswired_links;
        }
    }
    return view;
}

network site_network_model(const site &all, const std::vector<mac_address> &cards)
{
    network net;
    static_cast<card_view &>(net) = site_network_view(all, cards);
    net.names = all.net(cards[0]).names;
    for (const mac_address &mac : cards) {
        if (const node *const found = all.find(mac)) {
            net.nodes[mac] = *found;
        }
        net.nodes[mac].mac = mac;
    }
    for (const auto &list : net.lists) {
        for (const listed_ports &record : list.value.value_or(port_list_value{})) {
            if (const auto found = net.nodes.find(record.mac); found != net.nodes.end()) {
                found->second.number = record.number;
            }
        }
    }
    return net;
}

network site_card_model(const site &all, const mac_address &mac)
{
    network net;
    net.names = all.net(mac).names;
    if (const site_card *const card = all.card(mac)) {
        static_cast<card_view &>(net) = card->view;
    }
    node &shown = net.nodes[mac];
    if (const node *const found = all.find(mac)) {
        shown = *found;
    }
    shown.mac = mac;
    net.local = {}; // at a site nothing is
    for (const auto &list : net.lists) {
        for (const listed_ports &record : list.value.value_or(port_list_value{})) {
            if (record.mac == mac) {
                shown.number = record.number;
            }
        }
    }
    return net;
}

bool is_restless(const site_card &card)
{
    return card.bridge_losses >= RESTLESS_LOSSES;
}

std::string connection_text(const site_card *card, const moment &start)
{
    if (card == nullptr || !card->bridge.value) {
        return fact_text(card == nullptr ? fact<bool>{} : card->bridge, "not known", "");
    }
    std::string text = *card->bridge.value ? "connected" : "UNREACHABLE";
    if (!*card->bridge.value) {
        text += card->bridge_since ? since_text(card->bridge_since) : " since before " + date_text(start);
    }
    if (is_restless(*card)) {
        text += fmt::format(", lost {} times: have two cards this address?", card->bridge_losses);
    }
    return text;
}

screen_line connection_line(const site &all, const mac_address &mac, const moment &start)
{
    const site_card *const card = all.card(mac);
    const bool is_lost = card != nullptr && card->bridge.value == false;
    return {{is_lost ? text_style::RED : text_style::PLAIN, connection_text(card, start)}};
}

std::string difference_text(const site &all, const view_difference &item)
{
    switch (item.kind) {
    case view_difference::PARTS:
        return fmt::format("the network is in parts{}: {} don't hear {}", since_text(item.since),
                           cards_text(all, item.not_by), cards_text(all, item.seen_by));
    case view_difference::UNHEARD:
        return item.seen_by.empty()
                   ? fmt::format("nobody hears {}{}", label_of(all, item.subject), since_text(item.since))
                   : fmt::format("{} isn't heard by {}{}", label_of(all, item.subject),
                                 cards_text(all, item.not_by), since_text(item.since));
    case view_difference::LISTED:
        break;
    }
    return fmt::format("{} port {} is in the {} of {}, not of {}{}", label_of(all, item.subject),
                       port_letters(item.ports), PORT_LIST_INFOS[item.list].label,
                       cards_text(all, item.seen_by), cards_text(all, item.not_by), since_text(item.since));
}

std::string site_change_text(const site &all, const site_change &item)
{
    const std::string card = "card " + label_of(all, item.card);
    switch (item.event) {
    case site_event::CONNECTED:
        return card + " connected";
    case site_event::DISCONNECTED:
        return card + " UNREACHABLE";
    case site_event::HEARS:
        return fmt::format("{} hears {}", card, label_of(all, item.other));
    case site_event::LOST:
        return fmt::format("{} no longer hears {}", card, label_of(all, item.other));
    case site_event::LISTED:
        return fmt::format("{} port {} put into its {}", card, port_letters(item.ports),
                           PORT_LIST_INFOS[item.list].label);
    case site_event::UNLISTED:
        break;
    }
    return fmt::format("{} port {} taken out of its {}", card, port_letters(item.ports),
                       PORT_LIST_INFOS[item.list].label);
}

screen_lines below_connection(const site &all, const mac_address &mac, const moment &start,
                              const screen_lines &lines)
{
    screen_line first = {{text_style::BOLD, "card: "}};
    append(first, connection_line(all, mac, start));
    screen_lines both = {first};
    append_lines(both, lines);
    return both;
}

std::vector<site_row> site_node_rows(const site &all, node_order order, const moment &start,
                                     const moment &now)
{
    std::vector<site_row> lines;
    for (const site_network &shown : all.networks()) {
        if (!lines.empty()) {
            lines.push_back({plain(""), {}});
        }
        lines.push_back({network_title(all, shown), {}});
        const network net = site_network_model(all, shown.cards);
        std::vector<const node *> sorted = sorted_nodes(net, order);
        // What has told nothing of itself stands behind.
        const std::set<const node *> present(sorted.begin(), sorted.end());
        for (const auto &[mac, item] : net.nodes) {
            if (!present.contains(&item)) {
                sorted.push_back(&item);
            }
        }
        std::vector<std::vector<screen_line>> rows = {heading({"CARD"})};
        for (const node *item : sorted) {
            rows.push_back({connection_line(all, item->mac, start)});
        }
        screen_lines table = columns(rows);
        const screen_lines shown_nodes = node_table(net, sorted, now);
        size_t width = 0;
        for (const screen_line &line : table) {
            width = std::max(width, length_of(line) + 2);
        }
        for (size_t i = 0; i < table.size(); i++) {
            pad(table[i], width);
            append(table[i], shown_nodes[i]);
            lines.push_back({table[i], i == 0 ? std::nullopt : std::optional(sorted[i - 1]->mac)});
        }
        for (screen_line &line : difference_lines(all, shown)) {
            lines.push_back({std::move(line), {}});
        }
    }
    return lines;
}

screen_lines site_nodes_lines(const site &all, node_order order, const moment &start, const moment &now)
{
    screen_lines lines;
    for (site_row &row : site_node_rows(all, order, start, now)) {
        lines.push_back(std::move(row.line));
    }
    return lines;
}

std::vector<std::string> malformed_lists(const site &all, const std::vector<mac_address> &cards)
{
    std::vector<std::string> texts;
    for (const mac_address &mac : cards) {
        for (size_t list = 0; list < PORT_LISTS; list++) {
            const fact<port_list_value> &said = all.card(mac)->view.lists[list];
            if (said.is_malformed() && all.is_connected(mac).value_or(true)) {
                texts.push_back(fmt::format("{} of {} {}", PORT_LIST_INFOS[list].label, label_of(all, mac),
                                            malformed_text(said.size)));
            }
        }
    }
    return texts;
}

screen_lines site_lists_lines(const site &all, const moment &start)
{
    screen_lines lines;
    for (const site_network &shown : all.networks()) {
        if (!lines.empty()) {
            lines.push_back(plain(""));
        }
        lines.push_back(network_title(all, shown));
        append_lines(lines, lists_lines(site_network_model(all, shown.cards)));
        for (const mac_address &mac : shown.cards) {
            if (all.is_connected(mac) == false) {
                lines.push_back({{text_style::RED, fmt::format("{}: {}", label_of(all, mac),
                                                               connection_text(all.card(mac), start))}});
            }
        }
        for (const std::string &text : malformed_lists(all, shown.cards)) {
            lines.push_back({{text_style::RED, text}});
        }
        append_lines(lines, difference_lines(all, shown));
    }
    return lines;
}

nlohmann::ordered_json difference_json(const view_difference &item)
{
    constexpr const char *KINDS[] = {"parts", "not_heard", "listed"};
    nlohmann::ordered_json object = {{"kind", KINDS[item.kind]}};
    if (item.kind != view_difference::PARTS) {
        object["mac"] = mac_text(item.subject);
    }
    if (item.kind == view_difference::LISTED) {
        object["list"] = PORT_LIST_INFOS[item.list].name;
        object["ports"] = port_letters(item.ports);
    }
    object["by"] = macs_json(item.seen_by);
    object["not_by"] = macs_json(item.not_by);
    object["since"] = time_json(item.since);
    return object;
}

nlohmann::ordered_json connection_json(const site_card *card)
{
    nlohmann::ordered_json object;
    object["connected"] = card != nullptr && card->bridge.value ? nlohmann::ordered_json(*card->bridge.value)
                                                                : nlohmann::ordered_json();
    object["since"] = time_json(card == nullptr ? std::nullopt : card->bridge_since);
    return object;
}

nlohmann::ordered_json site_json(const site &all, node_order order)
{
    auto networks = nlohmann::ordered_json::array();
    for (const site_network &shown : all.networks()) {
        const network net = site_network_model(all, shown.cards);
        nlohmann::ordered_json object;
        object["cards"] = nlohmann::ordered_json::array();
        for (const mac_address &mac : shown.cards) {
            nlohmann::ordered_json card = {{"mac", mac_text(mac)}};
            card.update(connection_json(all.card(mac)));
            object["cards"].push_back(std::move(card));
        }
        object["nodes"] = nodes_json(net, order)["nodes"];
        object["lists"] = lists_json(net);
        object["differences"] = nlohmann::ordered_json::array();
        for (const view_difference &item : shown.differences) {
            object["differences"].push_back(difference_json(item));
        }
        networks.push_back(std::move(object));
    }
    return {{"networks", std::move(networks)}};
}
