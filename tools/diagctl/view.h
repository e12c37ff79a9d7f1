// The full-screen picture of the network: model in, styled lines out, cut to the size of the screen. All text
// is printable ASCII. Nothing here talks to a terminal.
#pragma once

#include "model.h"

#include <deque>
#include <string>
#include <vector>

enum class text_style {
    PLAIN,
    DIM,
    BOLD,
    TITLE,
    RED,
    YELLOW,
    GREEN,
};

struct styled_text {
    text_style style;
    std::string text;
};
using screen_line = std::vector<styled_text>;

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
    const stats_target *target; // null: no statistics wanted
    size_t first_node;          // how far the table of nodes is scrolled down
    size_t width;
    size_t height;
};

// screen.height lines, none wider than screen.width.
std::vector<screen_line> view_render(const screen &screen, const moment &now);

// "2024-05-01 10:15:03 node ... appeared", in local time.
std::string event_line(const event &event);
