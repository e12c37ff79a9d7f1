// What the commands that look show of the network, as lines for people. Nothing here talks to a broker or a
// terminal.
#pragma once

#include "network/model.h"
#include "screen/text.h"
#include "screen/trends.h"

using screen_lines = std::vector<screen_line>;

// Columns that the width has no room for are left out, those that tell least first. With what is remembered of
// the last minutes a sparkline shows the changes of each.
struct table_look {
    size_t width = SIZE_MAX;
    const trends *recent = nullptr;
};
screen_lines node_table(const network &net, const std::vector<const node *> &nodes, const moment &now,
                        const table_look &look = {});

// One node, with the lists that name it.
screen_lines node_lines(const network &net, const node &shown);

// The lists of the network.
std::vector<std::string> port_list_entries(const network &net, port_list which);
std::vector<std::string> miswired_link_entries(const network &net);
std::string ring_text(const network &net);
text_style ring_style(const network &net);
screen_lines lists_lines(const network &net);

// "12.5/s": one decimal below 100.
std::string rate_text(double rate);

// The statistics of a node's ports since the last reset, with rates.
screen_lines ports_lines(const node &shown);

// Performance records of a port in the order in which they were closed, with sparklines of what isn't always
// 0.
struct pm_style {
    bool is_utf8; // what the terminal shows
    size_t width;
};
screen_lines pm_lines(const node &shown, int port, pm_kind kind, const pm_style &style);
screen_lines pm_csv(const node &shown, int port, pm_kind kind);
