// What the commands show of a site, as lines for people and as JSON. Nothing here talks to a broker or a terminal.
#pragma once

#include "network/json.h"
#include "network/site.h"
#include "screen/reports.h"

// What is said of the cards as one network: the ports that any connected one lists, and their nodes.
card_view site_network_view(const site &all, const std::vector<mac_address> &cards);
network site_network_model(const site &all, const std::vector<mac_address> &cards);
// The card with its own view.
network site_card_model(const site &all, const mac_address &mac);

// start: since when this has been looked at.
std::string connection_text(const site_card *card, const moment &start);
screen_line connection_line(const site &all, const mac_address &mac, const moment &start);
// That line above what is said of the card.
screen_lines below_connection(const site &all, const mac_address &mac, const moment &start,
                              const screen_lines &lines);
std::string difference_text(const site &all, const view_difference &item);
std::string site_change_text(const site &all, const site_change &item);

// Lists of connected cards that can't be decoded, such as "link-down list of Lobby malformed (5 bytes)".
std::vector<std::string> malformed_lists(const site &all, const std::vector<mac_address> &cards);

// One table for each network, with where its views differ. A card's row has its address.
struct site_row {
    screen_line line;
    std::optional<mac_address> card;
};
std::vector<site_row> site_node_rows(const site &all, node_order order, const moment &start,
                                     const moment &now);
screen_lines site_nodes_lines(const site &all, node_order order, const moment &start, const moment &now);
screen_lines site_lists_lines(const site &all, const moment &start);

nlohmann::ordered_json site_json(const site &all, node_order order);
nlohmann::ordered_json connection_json(const site_card *card);
nlohmann::ordered_json difference_json(const view_difference &item);
// Lost again and again: two cards may have one address.
bool is_restless(const site_card &card);
