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

    // Shows the view; throws when the session is lost. STATUS_FAILURE when the output can't be written.
    exit_status run(session &broker, const signal_input &signals);

private:
    bool take_signal(int signal);
    bool take_keys(); // false at the end of the input
    void show();
    void refresh(session &broker);

    std::optional<full_screen> screen;
    std::chrono::steady_clock::time_point shown{};
    bool is_changed = true;
    bool is_quit = false;
    bool is_failed = false;
};
