// A view that goes on until q, Ctrl-C, SIGTERM or the end of the session: full-screen on a terminal, text elsewhere.
#pragma once

#include "commands/command.h"
#include "screen/terminal.h"
#include "screen/text.h"

struct live_view {
    // On a terminal: the picture, drawn anew when something has changed, and once a second. May be empty: then a
    // terminal gets text as well.
    std::function<std::vector<screen_line>(size_t width, size_t height)> render;
    // On a terminal: a key other than quit; may be empty.
    std::function<void(key)> take_key;
    // Elsewhere: called when something has changed.
    std::function<void()> print;
};

// Something has changed.
void live_changed();

// Shows the view; the session is open and stays so. Ends with STATUS_FAILURE when the output can't be written.
exit_status live_run(const broker_address &address, const live_view &view);
