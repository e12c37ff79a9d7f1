// diagctl top: the network as one broker sees it, live.
#include "screen/top.h"

#include "clock.h"
#include "commands/site.h"
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
        cursor.move(0, rows());
        view.render = [this](terminal_size size) { return render(size); };
        view.take_key = [this](key pressed) { cursor.take_key(pressed, rows()); };
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

    std::vector<mac_address> rows() const
    {
        std::vector<mac_address> macs;
        for (const node *shown : sorted_nodes(net, cursor.order)) {
            macs.push_back(shown->mac);
        }
        return macs;
    }

    screen_lines render(terminal_size size)
    {
        return view_render({.broker = broker.address().text(),
                            .net = net,
                            .events = events,
                            .recent = recent,
                            .target = target ? &*target : nullptr,
                            .order = cursor.order,
                            .selected = cursor.selected,
                            .is_detail = cursor.is_detail,
                            .width = size.width,
                            .height = size.height},
                           current_moment());
    }

    network net;
    std::deque<event> events;
    trends recent;
    std::optional<stats_target> target;
    table_cursor cursor;
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
        [](const context &known, const top_options &given) {
            return known.is_site ? site_top(known) : top(known, given).run();
        });
    add_site_options(added, common);
    added.text({.name = "--stats",
                .help = "Also show the statistics of this port",
                .value = "NODE/PORT",
                .excluded = "--site",
                .check = check_stats_target},
               options->stats);
    add_broker_options(added, common);
}
