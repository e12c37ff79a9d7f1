// The signals that end or change a running command, as input to poll.
#pragma once

// From here on SIGINT, SIGTERM, SIGHUP and SIGQUIT, and with with_terminal SIGWINCH and SIGTSTP, come only through
// the returned descriptor, which stays open; SIGPIPE is ignored. Before, Ctrl-C ends the program in the usual way. -1
// with errno when that can't be done.
int signals_open(bool with_terminal = false);

// That descriptor, -1 before.
int signals_fd();

// The next signal's number, 0 when there is none. Doesn't wait.
int signals_take();
