// diagctl watch: every change, one line each.
#include "screen/changes.h"
#include "screen/live.h"
#include "topics.h"

#include <mosquitto.h>

#include <algorithm>
#include <cstdio>

namespace
{

struct {
    network net;
    std::string filter; // a topic filter, a node, or empty
    std::optional<node_reference> node;
    bool is_json = false;
} watch;

bool is_wanted(const std::string &topic, const std::string &text)
{
    if (watch.node) {
        const std::vector<const node *> nodes = find_nodes(watch.net, *watch.node);
        return std::any_of(nodes.begin(), nodes.end(), [&](const node *item) {
            return text.find(mac_text(item->mac)) != std::string::npos;
        });
    }
    bool is_match = watch.filter.empty();
    return is_match ||
           (mosquitto_topic_matches_sub(watch.filter.c_str(), topic.c_str(), &is_match) == MOSQ_ERR_SUCCESS &&
            is_match);
}

void take_message(std::string_view topic_text, std::span<const uint8_t> payload, bool is_retained)
{
    const moment now = current_moment();
    const std::string topic(topic_text);
    const std::vector<std::string> changes =
        network_apply(watch.net, topic, payload, is_retained, now, change_detail::RECORDS);
    for (const std::string &text : changes) {
        if (is_wanted(topic, text)) {
            print_change(watch.net, topic, text, now, watch.is_json);
        }
    }
    live_changed();
}

exit_status run_watch(const broker_address &address)
{
    if (!watch.filter.empty()) {
        watch.node = parse_node_reference(watch.filter);
    }
    const exit_status opened =
        open_session(address, {DIAG_FILTER, NETWORK_STYLE7_TOPIC, RING_STATUS_FILTER}, take_message);
    if (opened != STATUS_SUCCESS) {
        return opened;
    }
    const exit_status status = live_run(address, {.render = {}, .take_key = {}, .print = [] {}});
    session_close();
    return status;
}

std::string check_filter(const std::string &text)
{
    const bool is_filter = text.find_first_of("/+#") != std::string::npos &&
                           mosquitto_sub_topic_check(text.c_str()) == MOSQ_ERR_SUCCESS;
    return parse_node_reference(text) || is_filter
               ? ""
               : "'" + text + "' is neither a node nor a topic filter such as pub/diag/net/#";
}

} // namespace

void add_watch_command(CLI::App &app, command_context &context)
{
    CLI::App *const command = add_command(
        app, context, "watch", "Print every change from now on, decoded, one line each, until Ctrl-C.",
        [&context] { return run_watch(context.address); });
    command->add_option("FILTER", watch.filter, "Only this node, or topics that match this MQTT filter")
        ->type_name("")
        ->check(check_filter);
    command->add_flag("--json", watch.is_json, "Print one JSON object a line");
}
