// The signals that end or change a running command, as input to poll.
#pragma once

// As long as it lives, SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGWINCH and SIGTSTP come only through its
// descriptor, and SIGPIPE is ignored. Without one, Ctrl-C ends the program in the usual way. Threads that are
// started later don't get them.
class signal_input
{
public:
    signal_input();
    ~signal_input();
    signal_input(const signal_input &) = delete;
    signal_input &operator=(const signal_input &) = delete;

    int descriptor() const { return fd; }
    // The next signal's number, 0 when there is none. Doesn't wait.
    int take() const;

private:
    int fd;
};
