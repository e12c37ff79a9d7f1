#include "screen/live.h"

#include "broker/signals.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

namespace
{

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds MIN_REFRESH(100);  // a busy network is drawn ten times a second
constexpr milliseconds MAX_REFRESH(1000); // the clock and the ages go on in a quiet one

enum class ending {
    NONE,
    QUIT,
    NO_BROKER,
    FAILED,
};

struct {
    bool is_screen = false;
    bool is_changed = true;
    bool is_input_open = true;
    steady_clock::time_point shown;
    ending end = ending::NONE;
} live;

// Stops the process as the terminal's user asked to, with the terminal as it was before.
void suspend()
{
    if (live.is_screen) {
        terminal_leave();
    }
    raise(SIGSTOP);
    if (live.is_screen) {
        terminal_enter();
    }
    live.is_changed = true;
}

void take_signal()
{
    switch (signals_take()) {
    case 0:
        break;
    case SIGWINCH:
        terminal_redraw();
        live.is_changed = true;
        break;
    case SIGTSTP:
        suspend();
        break;
    default:
        live.end = ending::QUIT;
        break;
    }
}

void take_keys(const live_view &view)
{
    std::vector<key> keys;
    live.is_input_open = terminal_read_keys(keys);
    for (const key pressed : keys) {
        if (pressed == key::QUIT) {
            live.end = ending::QUIT;
        } else if (view.take_key) {
            view.take_key(pressed);
        }
    }
    live.is_changed = true;
}

void show(const live_view &view)
{
    if (live.is_screen) {
        size_t width = 0;
        size_t height = 0;
        terminal_size(width, height);
        if (!terminal_draw(view.render(width, height))) {
            live.end = ending::FAILED;
        }
    } else {
        if (live.is_changed) {
            view.print();
        }
        if (fflush(stdout) != 0) {
            live.end = ending::FAILED;
        }
    }
    live.shown = steady_clock::now();
    live.is_changed = false;
}

// Shows the view when it is time to; returns how long to wait for anything else.
milliseconds refresh(const live_view &view)
{
    const milliseconds due = live.is_changed ? MIN_REFRESH : MAX_REFRESH;
    const auto since = std::chrono::duration_cast<milliseconds>(steady_clock::now() - live.shown);
    if (since >= due) {
        show(view);
        return MAX_REFRESH;
    }
    return due - since;
}

std::string serve(const live_view &view)
{
    std::string error;
    while (live.end == ending::NONE) {
        const milliseconds wait = refresh(view);
        pollfd fds[] = {
            {session_socket(), session_events(), 0},
            {signals_fd(), POLLIN, 0},
            {live.is_screen && live.is_input_open ? STDIN_FILENO : -1, POLLIN, 0},
        };
        if (live.end != ending::NONE || poll(fds, std::size(fds), static_cast<int>(wait.count())) == -1) {
            continue;
        }
        if (fds[1].revents != 0) {
            take_signal();
        }
        if (fds[2].revents != 0) {
            take_keys(view);
        }
        if (!session_serve(fds[0].revents, error)) {
            live.end = ending::NO_BROKER;
        }
    }
    return error;
}

} // namespace

void live_changed()
{
    live.is_changed = true;
}

exit_status live_run(const broker_address &address, const live_view &view)
{
    if (signals_open(true) == -1) {
        fprintf(stderr, "diagctl: couldn't watch for signals: %s\n", strerror(errno));
        return STATUS_FAILURE;
    }
    live.is_screen = view.render && terminal_is_screen();
    if (live.is_screen) {
        terminal_enter();
    }
    const std::string error = serve(view);
    if (live.is_screen) {
        terminal_leave();
    } else if (live.end != ending::FAILED) {
        show(view);
    }
    switch (live.end) {
    case ending::NO_BROKER:
        return report_lost(address, error);
    case ending::FAILED:
        return STATUS_FAILURE;
    default:
        return STATUS_SUCCESS;
    }
}
