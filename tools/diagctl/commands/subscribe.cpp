// diagctl subscribe: another node's topics, relayed by the daemon.
#include "broker/signals.h"
#include "commands/action.h"
#include "network/recording.h"
#include "screen/changes.h"
#include "screen/live.h"
#include "topics.h"

#include <mosquitto.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace
{

constexpr unsigned DEFAULT_PERIOD = 10;
constexpr unsigned MAX_PERIOD = 65535;

struct {
    std::string place; // NODE, NODE/PORT or NODE/TOPIC
    unsigned period = DEFAULT_PERIOD;
    bool is_json = false;
    action_state state;
    std::string filter; // empty until the node is known
} subscribe;

void take_message(std::string_view topic_text, std::span<const uint8_t> payload, bool is_retained)
{
    const moment now = current_moment();
    const std::string topic(topic_text);
    const std::vector<std::string> changes =
        network_apply(subscribe.state.net, topic, payload, is_retained, now, change_detail::RECORDS);
    bool is_match = false;
    // What is relayed is never retained.
    if (is_retained || subscribe.filter.empty() ||
        mosquitto_topic_matches_sub(subscribe.filter.c_str(), topic.c_str(), &is_match) != MOSQ_ERR_SUCCESS ||
        !is_match) {
        return;
    }
    for (const std::string &text : changes) {
        print_change(subscribe.state.net, topic, text, now, subscribe.is_json);
    }
    if (changes.empty()) {
        // Known already, or a topic that isn't decoded.
        print_change(subscribe.state.net, topic, topic + " " + payload_display(payload), now,
                     subscribe.is_json);
    }
    live_changed();
}

// What follows the node: "" all of it, "a" all of port A, "A/stats" and "job_name" as they are.
std::string filter_of(const mac_address &mac, std::string rest)
{
    const size_t slash = rest.find('/');
    const std::optional<int> port = parse_port(rest.substr(0, slash));
    if (port) {
        rest = port_text(*port) + (slash == std::string::npos ? "/#" : rest.substr(slash));
    }
    return std::string(DIAG_PREFIX) + mac_text(mac) + "/" + (rest.empty() ? "#" : rest);
}

exit_status follow(const broker_address &address, const std::string &mac)
{
    std::string error;
    if (!session_subscribe(subscribe.filter, error)) {
        return report_lost(address, error);
    }
    bool was_interrupted = false;
    exit_status status =
        request_run(address,
                    {.command = "subscribe;" + subscribe.filter + ";" + std::to_string(subscribe.period),
                     .limit = REMOTE_ANSWER_TIME,
                     .waiting_for = "node " + mac,
                     .is_answer_needed_anyway = true},
                    &was_interrupted);
    if (status != STATUS_SUCCESS) {
        return status;
    }
    if (!was_interrupted) {
        fprintf(stderr,
                subscribe.period == 0
                    ? "diagctl: node %s has sent %s, once; Ctrl-C ends\n"
                    : "diagctl: node %s sends what changes of %s, every %u s; Ctrl-C ends\n",
                mac.c_str(), subscribe.filter.c_str(), subscribe.period);
        status = live_run(address, {.render = {}, .take_key = {}, .print = [] {}});
    }
    if (status == STATUS_NO_BROKER) {
        return status;
    }
    const exit_status ended = request_run(address, {.command = "disconnect"});
    return status == STATUS_SUCCESS ? ended : status;
}

exit_status run_subscribe(const broker_address &address)
{
    if (signals_open() == -1) {
        fprintf(stderr, "diagctl: couldn't watch for signals: %s\n", strerror(errno));
        return STATUS_FAILURE;
    }
    exit_status status = open_action(address, subscribe.state, take_message);
    if (status != STATUS_SUCCESS) {
        return status;
    }
    const size_t slash = subscribe.place.find('/');
    const node *const found = resolve_node(subscribe.state.net, subscribe.place.substr(0, slash));
    if (found == nullptr) {
        status = STATUS_FAILURE;
    } else if (subscribe.state.net.is_local(found->mac)) {
        fprintf(
            stderr,
            "diagctl: node %s is the local one, all of its topics are on this broker: use 'diagctl watch'\n",
            mac_text(found->mac).c_str());
        status = STATUS_FAILURE;
    } else {
        subscribe.filter =
            filter_of(found->mac, slash == std::string::npos ? "" : subscribe.place.substr(slash + 1));
        status = follow(address, mac_text(found->mac));
    }
    session_close();
    return status;
}

std::string check_place(const std::string &text)
{
    const size_t slash = text.find('/');
    const std::string rest = slash == std::string::npos ? "#" : text.substr(slash + 1);
    const bool is_place = parse_node_reference(text.substr(0, slash)) &&
                          rest.find(';') == std::string::npos &&
                          (rest.empty() || mosquitto_sub_topic_check(rest.c_str()) == MOSQ_ERR_SUCCESS);
    return is_place ? ""
                    : "'" + text +
                          "' is no NODE, NODE/PORT or NODE/TOPIC: NODE is a MAC address or a node number, "
                          "PORT is A to H or CPU";
}

} // namespace

void add_subscribe_command(CLI::App &app, command_context &context)
{
    CLI::App *const command =
        add_command(app, context, "subscribe",
                    "Have another node's topics sent here and print them, decoded, until Ctrl-C.",
                    [&context] { return run_subscribe(context.address); });
    command->add_option("PLACE", subscribe.place, "NODE, NODE/PORT or NODE/TOPIC")
        ->type_name("")
        ->check(check_place)
        ->required();
    command->add_option("--period", subscribe.period, "How often the node sends what has changed; 0: once")
        ->type_name("SECONDS")
        ->check(CLI::Range(0U, MAX_PERIOD))
        ->capture_default_str();
    command->add_flag("--json", subscribe.is_json, "Print one JSON object a line");
}
