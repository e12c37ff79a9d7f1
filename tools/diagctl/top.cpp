// diagctl top: the network as one broker sees it, live.
#include "command.h"
#include "signals.h"
#include "terminal.h"

#include <poll.h>

#include <csignal>
#include <cstdio>
#include <cstring>

namespace
{

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds MIN_REFRESH(100);  // a busy network is drawn ten times a second
constexpr milliseconds MAX_REFRESH(1000); // the clock and the ages go on in a quiet one
constexpr size_t MAX_EVENTS = 1000;

enum class ending {
    NONE,
    QUIT,
    NO_BROKER,
    FAILED,
};

struct {
    network net;
    std::deque<event> events;
    std::optional<stats_target> target;
    std::string broker;
    bool is_screen = false;
    bool is_changed = true;
    bool is_input_open = true;
    size_t first_node = 0;
    steady_clock::time_point drawn;
    ending end = ending::NONE;
} top;

moment current_moment()
{
    return {steady_clock::now(), std::chrono::system_clock::now()};
}

void take_message(std::string_view topic, std::span<const uint8_t> payload, bool is_retained)
{
    const moment now = current_moment();
    for (std::string &text : network_apply(top.net, topic, payload, is_retained, now)) {
        const event happened = {now, std::move(text)};
        if (!top.is_screen && printf("%s\n", event_line(happened).c_str()) < 0) {
            top.end = ending::FAILED;
        }
        top.events.push_back(happened);
    }
    while (top.events.size() > MAX_EVENTS) {
        top.events.pop_front();
    }
    top.is_changed = true;
}

// Stops the process as the terminal's user asked to, with the terminal as it was before.
void suspend()
{
    terminal_leave();
    raise(SIGSTOP);
    terminal_enter();
    top.is_changed = true;
}

void take_signal()
{
    switch (signals_take()) {
    case 0:
        break;
    case SIGWINCH:
        terminal_redraw();
        top.is_changed = true;
        break;
    case SIGTSTP:
        if (top.is_screen) {
            suspend();
        } else {
            raise(SIGSTOP);
        }
        break;
    default:
        top.end = ending::QUIT;
        break;
    }
}

void take_keys()
{
    std::vector<key> keys;
    top.is_input_open = terminal_read_keys(keys);
    for (const key pressed : keys) {
        if (pressed == key::QUIT) {
            top.end = ending::QUIT;
        } else if (pressed == key::DOWN && top.first_node < top.net.nodes.size()) {
            top.first_node++;
        } else if (pressed == key::UP && top.first_node > 0) {
            top.first_node--;
        }
    }
    top.is_changed = true;
}

void draw()
{
    screen screen = {top.broker,     top.net, top.events, top.target ? &*top.target : nullptr,
                     top.first_node, 0,       0};
    terminal_size(screen.width, screen.height);
    if (!terminal_draw(view_render(screen, current_moment()))) {
        top.end = ending::FAILED;
    }
    top.drawn = steady_clock::now();
    top.is_changed = false;
}

// Draws when it is time to; returns how long to wait for anything else.
milliseconds refresh()
{
    if (!top.is_screen) {
        if (fflush(stdout) != 0) {
            top.end = ending::FAILED;
        }
        return MAX_REFRESH;
    }
    const milliseconds due = top.is_changed ? MIN_REFRESH : MAX_REFRESH;
    const auto since = std::chrono::duration_cast<milliseconds>(steady_clock::now() - top.drawn);
    if (since >= due) {
        draw();
        return MAX_REFRESH;
    }
    return due - since;
}

std::string watch_network()
{
    std::string error;
    while (top.end == ending::NONE) {
        const milliseconds wait = refresh();
        pollfd fds[] = {
            {session_socket(), session_events(), 0},
            {signals_fd(), POLLIN, 0},
            {top.is_screen && top.is_input_open ? STDIN_FILENO : -1, POLLIN, 0},
        };
        if (top.end != ending::NONE || poll(fds, std::size(fds), static_cast<int>(wait.count())) == -1) {
            continue;
        }
        if (fds[1].revents != 0) {
            take_signal();
        }
        if (fds[2].revents != 0) {
            take_keys();
        }
        if (!session_serve(fds[0].revents, error)) {
            top.end = ending::NO_BROKER;
        }
    }
    return error;
}

exit_status run_top(const broker_address &address)
{
    top.broker = address.host + ":" + std::to_string(address.port);
    top.is_screen = terminal_is_screen();

    const exit_status opened =
        open_session(address, {"pub/diag/#", "local/diag/network_style7"}, take_message);
    if (opened != STATUS_SUCCESS) {
        return opened;
    }
    if (signals_open(true) == -1) {
        fprintf(stderr, "diagctl: couldn't watch for signals: %s\n", strerror(errno));
        session_close();
        return STATUS_FAILURE;
    }

    if (top.is_screen) {
        terminal_enter();
    }
    const std::string error = watch_network();
    if (top.is_screen) {
        terminal_leave();
    }
    fflush(stdout);
    session_close();

    switch (top.end) {
    case ending::NO_BROKER:
        return report_lost(address, error);
    case ending::FAILED:
        return STATUS_FAILURE;
    default:
        return STATUS_SUCCESS;
    }
}

// NODE/PORT, for example local/A or 02-00-00-00-00-03/CPU.
std::optional<stats_target> parse_stats_target(const std::string &text)
{
    const size_t slash = text.rfind('/');
    if (slash == std::string::npos) {
        return {};
    }
    const std::optional<node_reference> node = parse_node_reference(text.substr(0, slash));
    const std::optional<int> port = parse_port(text.substr(slash + 1));
    if (!node || !port) {
        return {};
    }
    return stats_target{*node, *port, text};
}

std::string check_stats_target(const std::string &text)
{
    return parse_stats_target(text) ? ""
                                    : "'" + text +
                                          "' is not NODE/PORT: NODE is local, a MAC address or a number from "
                                          "1 to 255, PORT is A to H or CPU";
}

} // namespace

void add_top_command(CLI::App &app, command_context &context)
{
    CLI::App *const command = add_command(
        app, context, "top",
        "Show the network live: nodes, ports, lists and events. On a terminal full-screen, q quits; "
        "elsewhere one line for each change.",
        [&context] { return run_top(context.address); });
    const auto set_target = [](const std::string &text) { top.target = parse_stats_target(text); };
    command->add_option_function<std::string>("--stats", set_target, "Also show the statistics of this port")
        ->type_name("NODE/PORT")
        ->check(check_stats_target);
}
