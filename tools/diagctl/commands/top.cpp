// diagctl top: the network as one broker sees it, live.
#include "screen/top.h"

#include "clock.h"
#include "commands/context.h"
#include "screen/changes.h"
#include "screen/live.h"

#include <algorithm>

namespace
{

constexpr size_t MAX_EVENTS = 1000;

struct top_options {
    std::string stats; // NODE/PORT, for example local/A or 02-00-00-00-00-03/CPU; may be empty
};

std::optional<stats_target> parse_stats_target(const std::string &text, const node_names &names)
{
    const size_t slash = text.rfind('/');
    if (slash == std::string::npos) {
        return {};
    }
    return stats_target{parse_node(text.substr(0, slash), names), parse_port(text.substr(slash + 1)).value(),
                        text};
}

std::string check_stats_target(const std::string &text)
{
    const size_t slash = text.rfind('/');
    const bool is_target = slash != std::string::npos && slash > 0 && parse_port(text.substr(slash + 1));
    return is_target ? "" : "'" + text + "' is not NODE/PORT: PORT is A to H or CPU";
}

class top
{
public:
    top(const context &common, const top_options &options)
        : net(named_network(common)), target(parse_stats_target(options.stats, net.names)),
          broker(common.address())
    {
        broker.listen([this](std::string_view topic, bytes payload, bool is_retained) {
            take(topic, payload, is_retained);
            return true;
        });
        broker.subscribe(all_filters());
        select(0);
        view.render = [this](terminal_size size) { return render(size); };
        view.take_key = [this](key pressed) { take_key(pressed); };
    }

    exit_status run()
    {
        const signal_input signals;
        return view.run(broker, signals);
    }

private:
    void take(std::string_view topic, bytes payload, bool is_retained)
    {
        const moment now = current_moment();
        const changes items = network_apply(net, topic, payload, is_retained, now);
        recent.note(net, topic, items, now);
        for (const change &item : items) {
            events.push_back({now, change_text(net, item)});
            if (!is_screen) {
                terminal_print(plain(date_text(now) + " " + events.back().text));
            }
        }
        while (events.size() > MAX_EVENTS) {
            events.pop_front();
        }
        view.changed();
    }

    // Moves the selection by so many nodes, to the first or last one at most.
    void select(std::ptrdiff_t distance)
    {
        const std::vector<const node *> nodes = sorted_nodes(net, order);
        if (!nodes.empty()) {
            const auto last = static_cast<std::ptrdiff_t>(nodes.size()) - 1;
            const auto from = static_cast<std::ptrdiff_t>(index_of(nodes, selected));
            selected = nodes[static_cast<size_t>(std::clamp<std::ptrdiff_t>(from + distance, 0, last))]->mac;
        }
    }

    void take_key(key pressed)
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
        for (const auto &move : MOVES) {
            if (pressed == move.pressed) {
                select(move.distance);
            }
        }
        for (const auto &sort : SORTS) {
            order = pressed == sort.pressed ? sort.order : order;
        }
        if (pressed == key::ENTER) {
            select(0);
        }
        is_detail = pressed == key::ENTER ? !is_detail : is_detail && pressed != key::BACK;
    }

    screen_lines render(terminal_size size)
    {
        return view_render({.broker = broker.address().text(),
                            .net = net,
                            .events = events,
                            .recent = recent,
                            .target = target ? &*target : nullptr,
                            .order = order,
                            .selected = selected,
                            .is_detail = is_detail,
                            .width = size.width,
                            .height = size.height},
                           current_moment());
    }

    network net;
    std::deque<event> events;
    trends recent;
    std::optional<stats_target> target;
    node_order order = node_order::MAC;
    mac_address selected{};
    bool is_detail = false; // of the selected node
    const bool is_screen = terminal_is_screen();
    live_view view;
    session broker;
};

} // namespace

void add_top_command(command_line &line, context &common)
{
    auto [added, options] = add_command<top_options>(
        line, common, "top",
        "Show the network live: nodes, ports, lists and events. On a terminal full-screen, q quits; "
        "elsewhere one line for each change.",
        [](const context &known, const top_options &given) { return top(known, given).run(); });
    added.text({.name = "--stats",
                .help = "Also show the statistics of this port",
                .value = "NODE/PORT",
                .check = check_stats_target},
               options->stats);
    add_broker_options(added, common);
}
