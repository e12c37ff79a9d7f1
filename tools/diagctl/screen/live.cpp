#include "screen/live.h"

#include <unistd.h>

#include <csignal>
#include <cstdio>

namespace
{

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds MIN_REFRESH(100);  // a busy network is drawn ten times a second
constexpr milliseconds MAX_REFRESH(1000); // the clock and the ages go on in a quiet one

} // namespace

// True when the signal ends the view.
bool live_view::take_signal(int signal)
{
    if (signal != SIGWINCH && signal != SIGTSTP) {
        return true;
    }
    if (signal == SIGWINCH && screen) {
        screen->redraw();
    } else if (signal == SIGTSTP && screen) {
        screen->suspend();
    } else if (signal == SIGTSTP) {
        raise(SIGSTOP);
    }
    is_changed = true;
    return false;
}

bool live_view::take_keys()
{
    std::vector<key> keys;
    const bool is_open = read_keys(keys);
    for (const key pressed : keys) {
        if (pressed == key::QUIT) {
            is_quit = true;
        } else if (take_key) {
            take_key(pressed);
        }
    }
    is_changed = true;
    return is_open;
}

void live_view::show()
{
    if (screen) {
        is_failed = !screen->draw(render(current_terminal_size()));
    } else {
        if (is_changed && print) {
            print();
        }
        is_failed = fflush(stdout) != 0;
    }
    shown = steady_clock::now();
    is_changed = false;
}

// Shows the view when it is time to.
void live_view::refresh(session &broker)
{
    const milliseconds due = is_changed ? MIN_REFRESH : MAX_REFRESH;
    const auto since = std::chrono::duration_cast<milliseconds>(steady_clock::now() - shown);
    if (since >= due) {
        show();
    } else {
        broker.next_look = due - since;
    }
}

exit_status live_view::run(session &broker, const signal_input &signals)
{
    broker.watch(signals, [this](int signal) { return take_signal(signal); });
    if (render && terminal_is_screen()) {
        screen.emplace();
    }
    wait_input keyboard = {screen ? STDIN_FILENO : -1, {}};
    keyboard.take = [&] { keyboard.descriptor = take_keys() ? STDIN_FILENO : -1; };
    const auto is_ended = [&] {
        refresh(broker);
        return is_quit || is_failed;
    };
    // What has come last is shown before anything else is said.
    const auto end = [&] {
        const bool is_screen = screen.has_value();
        screen.reset();
        if (!is_screen && !is_failed) {
            show();
        }
        broker.watch(signals);
    };
    try {
        broker.wait(is_ended, session::FOREVER, {&keyboard, 1});
    } catch (const failure &) {
        end();
        throw;
    }
    end();
    return is_failed ? STATUS_FAILURE : STATUS_SUCCESS;
}
