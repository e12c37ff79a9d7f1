#include "screen/live.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>

namespace
{

using std::chrono::milliseconds;
using std::chrono::steady_clock;

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

std::optional<milliseconds> live_view::refresh()
{
    const milliseconds due = is_changed ? min_refresh : MAX_REFRESH;
    const auto since = std::chrono::duration_cast<milliseconds>(steady_clock::now() - shown);
    if (since < due) {
        return due - since;
    }
    show();
    return {};
}

void live_view::begin()
{
    if (render && terminal_is_screen()) {
        screen.emplace();
    }
    keyboard.descriptor = screen ? STDIN_FILENO : -1;
    keyboard.take = [this] { keyboard.descriptor = take_keys() ? STDIN_FILENO : -1; };
}

// What has come last is shown before anything else is said.
void live_view::end()
{
    const bool is_screen = screen.has_value();
    screen.reset();
    if (!is_screen && !is_failed) {
        show();
    }
}

exit_status live_view::run(session &broker, const signal_input &signals)
{
    broker.watch(signals, [this](int signal) { return take_signal(signal); });
    begin();
    const auto is_ended = [&] {
        if (const std::optional<milliseconds> left = refresh()) {
            broker.next_look = *left;
        }
        return is_quit || is_failed;
    };
    try {
        broker.wait(is_ended, session::FOREVER, {&keyboard, 1});
    } catch (const failure &) {
        end();
        broker.watch(signals);
        throw;
    }
    end();
    broker.watch(signals);
    return is_failed ? STATUS_FAILURE : STATUS_SUCCESS;
}

exit_status live_view::run(const waiting &wait)
{
    begin();
    for (bool is_over = false; !is_over;) {
        const milliseconds left = refresh().value_or(min_refresh);
        is_over =
            is_quit || is_failed || !wait(left, keyboard, [this](int signal) { return take_signal(signal); });
    }
    end();
    return is_failed ? STATUS_FAILURE : STATUS_SUCCESS;
}

void table_cursor::move(std::ptrdiff_t distance, const std::vector<mac_address> &rows)
{
    if (!rows.empty()) {
        const auto found = std::find(rows.begin(), rows.end(), selected);
        const std::ptrdiff_t from = found == rows.end() ? 0 : found - rows.begin();
        const auto last = static_cast<std::ptrdiff_t>(rows.size()) - 1;
        selected = rows[static_cast<size_t>(std::clamp<std::ptrdiff_t>(from + distance, 0, last))];
    }
}

void table_cursor::take_key(key pressed, const std::vector<mac_address> &rows)
{
    constexpr std::ptrdiff_t PAGE = 10;
    constexpr struct {
        key pressed;
        std::ptrdiff_t distance;
    } MOVES[] = {{key::UP, -1}, {key::DOWN, 1}, {key::PAGE_UP, -PAGE}, {key::PAGE_DOWN, PAGE}};
    constexpr struct {
        key pressed;
        node_order order;
    } SORTS[] = {{key::SORT_MAC, node_order::MAC},
                 {key::SORT_NUMBER, node_order::NUMBER},
                 {key::SORT_FAULTS, node_order::FAULTS},
                 {key::SORT_CHANGE, node_order::CHANGE}};
    for (const auto &one : MOVES) {
        if (pressed == one.pressed) {
            move(one.distance, rows);
        }
    }
    for (const auto &sort : SORTS) {
        order = pressed == sort.pressed ? sort.order : order;
    }
    if (pressed == key::ENTER) {
        move(0, rows);
    }
    is_detail = pressed == key::ENTER ? !is_detail : is_detail && pressed != key::BACK;
}
