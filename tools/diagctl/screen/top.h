// The full-screen picture of the network: model in, styled lines out, cut to the size of the screen. Nothing here
// talks to a terminal.
#pragma once

#include "screen/reports.h"

#include <deque>

struct event {
    moment when;
    std::string text;
};

struct stats_target {
    node_reference node;
    int port;
    std::string text; // as the user wrote it
};

struct screen {
    std::string broker; // HOST:PORT
    const network &net;
    const std::deque<event> &events;
    const trends &recent;
    const stats_target *target; // null: no statistics wanted
    node_order order;
    mac_address selected;
    bool is_detail; // the selected node instead of the table
    size_t width;
    size_t height;
};

// Where the node stands, 0 when it isn't there.
size_t index_of(const std::vector<const node *> &nodes, const mac_address &mac);

// The newest ones under a title, in so many lines.
screen_lines event_lines(const std::deque<event> &events, size_t width, size_t count);

// screen.height lines, none wider than screen.width.
screen_lines view_render(const screen &screen, const moment &now);
