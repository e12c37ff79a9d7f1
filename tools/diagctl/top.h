// diagctl top: the network as one broker sees it, live.
#pragma once

#include "session.h"
#include "view.h"

#include <optional>

// Exit status of every command.
enum exit_status {
    STATUS_SUCCESS = 0,
    STATUS_FAILURE = 1,
    STATUS_USAGE = 2,
    STATUS_NO_BROKER = 3,
};

// Shows the network until q, Ctrl-C, SIGTERM or the end of the session: full-screen on a terminal, one line
// for each change elsewhere. Returns the exit status.
int run_top(const broker_address &address, const std::optional<stats_target> &target);
