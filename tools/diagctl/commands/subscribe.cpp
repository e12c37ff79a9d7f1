// diagctl subscribe: another node's topics, relayed by the daemon.
#include "clock.h"
#include "commands/acting.h"
#include "network/recording.h"
#include "screen/changes.h"
#include "screen/live.h"
#include "topics.h"

#include <fmt/core.h>

#include <cstdio>

namespace
{

constexpr unsigned DEFAULT_PERIOD = 10;
constexpr unsigned MAX_PERIOD = 65535;

struct subscribe_options {
    std::string place; // NODE, NODE/PORT or NODE/TOPIC
    unsigned period = DEFAULT_PERIOD;
    bool is_json = false;
};

// What follows the node: "" all of it, "a" all of port A, "A/stats" and "job_name" as they are.
std::string filter_of(const mac_address &mac, std::string rest)
{
    const size_t slash = rest.find('/');
    if (const std::optional<int> port = parse_port(rest.substr(0, slash))) {
        rest = port_text(*port) + (slash == std::string::npos ? "/#" : rest.substr(slash));
    }
    return fmt::format("{}{}/{}", DIAG_PREFIX, mac_text(mac), rest.empty() ? "#" : rest);
}

// The filter of the place, and the node's MAC address as text.
std::pair<std::string, std::string> find_place(const network &net, const std::string &place)
{
    const size_t slash = place.find('/');
    const node &found = resolve_node(net, place.substr(0, slash));
    if (net.is_local(found.mac)) {
        throw failure(
            STATUS_FAILURE,
            fmt::format("node {} is the local one, all of its topics are on this broker: use 'diagctl watch'",
                        mac_text(found.mac)));
    }
    return {filter_of(found.mac, slash == std::string::npos ? "" : place.substr(slash + 1)),
            mac_text(found.mac)};
}

class subscription
{
public:
    subscription(const context &common, const subscribe_options &wanted)
        : options(wanted), card(common, &signals, [this](auto... message) { take(message...); })
    {
    }

    exit_status run()
    {
        const auto [wanted_filter, mac] = find_place(card.net(), options.place);
        filter = wanted_filter;
        card.broker().subscribe({filter});
        const bool was_interrupted =
            card.daemon().run({.command = fmt::format("subscribe;{};{}", filter, options.period),
                               .limit = REMOTE_ANSWER_TIME,
                               .waiting_for = "node " + mac,
                               .is_answer_needed_anyway = true});
        exit_status status = STATUS_SUCCESS;
        if (!was_interrupted) {
            fflush(stdout); // in one file with it, no line is torn
            fmt::print(stderr, "diagctl: node {} {}; Ctrl-C ends\n", mac,
                       options.period == 0
                           ? fmt::format("has sent {}, once", filter)
                           : fmt::format("sends what changes of {}, every {} s", filter, options.period));
            status = view.run(card.broker(), signals);
        }
        card.daemon().run({.command = "disconnect"});
        return status;
    }

private:
    void take(std::string_view topic_text, bytes payload, bool is_retained, const changes &items)
    {
        const std::string topic(topic_text);
        // What is relayed is never retained.
        if (is_retained || filter.empty() || !matches(filter, topic)) {
            return;
        }
        const moment now = current_moment();
        for (const change &item : items) {
            print_change(card.net(), item, topic, now, options.is_json);
        }
        if (items.empty()) {
            // Known already, or a topic that isn't decoded.
            print_message(card.net(), topic, payload_display(payload), now, options.is_json);
        }
        view.changed();
    }

    const subscribe_options &options;
    const signal_input signals;
    live_view view;
    std::string filter; // empty until the node is known
    acting card;
};

std::string check_place(const std::string &text)
{
    const size_t slash = text.find('/');
    const std::string rest = slash == std::string::npos ? "#" : text.substr(slash + 1);
    const bool is_place =
        slash != 0 && rest.find(';') == std::string::npos && (rest.empty() || is_filter(rest));
    return is_place
               ? ""
               : "'" + text +
                     "' is no NODE, NODE/PORT or NODE/TOPIC: NODE is a MAC address, a node number or a name, "
                     "PORT is A to H or CPU";
}

} // namespace

void add_subscribe_command(command_line &line, context &common)
{
    auto [added, options] = add_command<subscribe_options>(
        line, common, "subscribe",
        "Have another node's topics sent here and print them, decoded, until Ctrl-C.",
        [](const context &known, const subscribe_options &given) {
            return subscription(known, given).run();
        });
    added.text(
        {.name = "PLACE", .help = "NODE, NODE/PORT or NODE/TOPIC", .is_required = true, .check = check_place},
        options->place);
    added.number({.name = "--period",
                  .help = "How often the node sends what has changed; 0: once",
                  .value = "SECONDS"},
                 options->period, 0, MAX_PERIOD);
    add_broker_options(added, common);
    add_json_option(added, options->is_json, "Print one JSON object a line");
}
