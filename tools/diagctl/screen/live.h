// A view that goes on until q, a signal or the end of the session: full-screen on a terminal, text elsewhere.
#pragma once

#include "broker/session.h"
#include "broker/signals.h"
#include "screen/terminal.h"

#include <optional>

class live_view
{
public:
    // On a terminal: the picture, drawn anew when something has changed, and once a second. Without, a
    // terminal gets text as well.
    std::function<std::vector<screen_line>(terminal_size)> render;
    // On a terminal: a key other than quit.
    std::function<void(key)> take_key;
    // Elsewhere: called when something has changed.
    std::function<void()> print;

    // Something has changed.
    void changed() { is_changed = true; }

    // How often a busy network is drawn.
    std::chrono::milliseconds min_refresh{100};

    // Shows the view; throws when the session is lost. STATUS_FAILURE when the output can't be written.
    exit_status run(session &broker, const signal_input &signals);
    // The same where something else waits: until something comes, can be read from the keyboard, a signal comes, for
    // which it asks, or the time is over. False at the end.
    using waiting = std::function<bool(std::chrono::milliseconds limit, wait_input &keyboard,
                                       const std::function<bool(int)> &take_signal)>;
    exit_status run(const waiting &wait);

private:
    bool take_signal(int signal);
    bool take_keys(); // false at the end of the input
    void show();
    // Shows the view when it is time to; the time left otherwise.
    std::optional<std::chrono::milliseconds> refresh();
    void begin();
    void end();

    std::optional<full_screen> screen;
    wait_input keyboard{-1, {}};
    std::chrono::steady_clock::time_point shown{};
    bool is_changed = true;
    bool is_quit = false;
    bool is_failed = false;
};

// Which row of a table is selected, how it is sorted, and whether that row is shown alone.
struct table_cursor {
    node_order order = node_order::MAC;
    mac_address selected{};
    bool is_detail = false;

    // rows: as they stand now.
    void take_key(key pressed, const std::vector<mac_address> &rows);
    // By so many rows, to the first or last one at most.
    void move(std::ptrdiff_t distance, const std::vector<mac_address> &rows);
};
