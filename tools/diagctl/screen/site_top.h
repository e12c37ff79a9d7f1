// The full-screen picture of a site: model in, styled lines out. Nothing here talks to a broker or a terminal.
#pragma once

#include "screen/site_reports.h"
#include "screen/top.h"

struct site_screen {
    std::string brokers; // "HOST:PORT, HOST:PORT away"
    const site &all;
    const std::deque<event> &events;
    node_order order;
    mac_address selected;
    bool is_detail; // the selected card instead of the tables
    moment start;
    size_t width;
    size_t height;
};

// The cards in the order of the tables.
std::vector<mac_address> site_rows(const site &all, node_order order);

// screen.height lines, none wider than screen.width.
screen_lines site_render(const site_screen &screen, const moment &now);
