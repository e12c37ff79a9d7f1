// diagctl top: the network as one broker sees it, live.
#include "screen/top.h"
#include "screen/live.h"
#include "topics.h"

#include <algorithm>
#include <cstdio>

namespace
{

constexpr size_t MAX_EVENTS = 1000;

struct {
    network net;
    std::deque<event> events;
    std::optional<stats_target> target;
    std::string broker;
    node_order order = node_order::MAC;
    mac_address selected{};
    bool is_detail = false; // of the selected node
} top;

void take_message(std::string_view topic, std::span<const uint8_t> payload, bool is_retained)
{
    const moment now = current_moment();
    for (std::string &text : network_apply(top.net, topic, payload, is_retained, now)) {
        const event happened = {now, std::move(text)};
        if (!terminal_is_screen()) {
            printf("%s\n", event_line(happened).c_str());
        }
        top.events.push_back(happened);
    }
    while (top.events.size() > MAX_EVENTS) {
        top.events.pop_front();
    }
    live_changed();
}

// Moves the selection by so many nodes, to the first or last one at most.
void select(std::ptrdiff_t distance)
{
    const std::vector<const node *> nodes = sorted_nodes(top.net, top.order);
    if (nodes.empty()) {
        return;
    }
    const auto last = static_cast<std::ptrdiff_t>(nodes.size()) - 1;
    const auto from = static_cast<std::ptrdiff_t>(index_of(nodes, top.selected));
    top.selected = nodes[static_cast<size_t>(std::clamp<std::ptrdiff_t>(from + distance, 0, last))]->mac;
}

void take_key(key pressed)
{
    constexpr std::ptrdiff_t PAGE = 10;
    switch (pressed) {
    case key::UP:
        select(-1);
        break;
    case key::DOWN:
        select(1);
        break;
    case key::PAGE_UP:
        select(-PAGE);
        break;
    case key::PAGE_DOWN:
        select(PAGE);
        break;
    case key::SORT_MAC:
        top.order = node_order::MAC;
        break;
    case key::SORT_NUMBER:
        top.order = node_order::NUMBER;
        break;
    case key::SORT_FAULTS:
        top.order = node_order::FAULTS;
        break;
    case key::SORT_CHANGE:
        top.order = node_order::CHANGE;
        break;
    case key::ENTER:
        select(0);
        top.is_detail = !top.is_detail;
        break;
    case key::BACK:
        top.is_detail = false;
        break;
    default:
        break;
    }
}

std::vector<screen_line> render(size_t width, size_t height)
{
    return view_render({.broker = top.broker,
                        .net = top.net,
                        .events = top.events,
                        .target = top.target ? &*top.target : nullptr,
                        .order = top.order,
                        .selected = top.selected,
                        .is_detail = top.is_detail,
                        .width = width,
                        .height = height},
                       current_moment());
}

exit_status run_top(const broker_address &address)
{
    top.broker = address.host + ":" + std::to_string(address.port);
    const exit_status opened =
        open_session(address, {DIAG_FILTER, NETWORK_STYLE7_TOPIC, RING_STATUS_FILTER}, take_message);
    if (opened != STATUS_SUCCESS) {
        return opened;
    }
    select(0);
    const exit_status status =
        live_run(address, {.render = render, .take_key = take_key, .print = [] { /* take_message has */ }});
    session_close();
    return status;
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
