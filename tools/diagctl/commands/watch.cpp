// diagctl watch: every change, one line each.
#include "clock.h"
#include "commands/context.h"
#include "commands/site.h"
#include "screen/changes.h"
#include "screen/live.h"

namespace
{

struct watch_options {
    std::string filter; // a topic filter, a node, or empty
    bool is_json = false;
};

// Which changes are wanted.
class wanted_changes
{
public:
    wanted_changes(const std::string &text, const node_names &names) : filter(text)
    {
        const bool is_topic = filter.find_first_of("/+#") != std::string::npos;
        if (is_topic && !is_filter(filter)) {
            throw failure(STATUS_USAGE,
                          "'" + printable(filter) + "' is no topic filter such as pub/diag/net/#");
        }
        if (!is_topic && !filter.empty()) {
            node = parse_node(filter, names);
        }
    }

    bool has(const network &net, const change &item, const std::string &topic) const
    {
        return node ? concerns(net, *node, item) : filter.empty() || matches(filter, topic);
    }

private:
    const std::string &filter;
    std::optional<node_reference> node;
};

exit_status run_watch(const context &common, const watch_options &options)
{
    if (common.is_site) {
        return site_watch(common, options.is_json);
    }
    network net = named_network(common);
    const wanted_changes wanted(options.filter, net.names);
    live_view view;
    session broker(common.address());
    broker.listen([&](std::string_view topic, bytes payload, bool is_retained) {
        const moment now = current_moment();
        for (const change &item :
             network_apply(net, topic, payload, is_retained, now, change_detail::RECORDS)) {
            if (wanted.has(net, item, std::string(topic))) {
                print_change(net, item, topic, now, options.is_json);
            }
        }
        view.changed();
        return true;
    });
    broker.subscribe(all_filters());
    const signal_input signals;
    return view.run(broker, signals);
}

} // namespace

void add_watch_command(command_line &line, context &common)
{
    auto [added, options] = add_command<watch_options>(
        line, common, "watch", "Print every change from now on, decoded, one line each, until Ctrl-C.",
        run_watch);
    added.text({.name = "FILTER", .help = "Only this node, or topics that match this MQTT filter"},
               options->filter);
    add_broker_options(added, common);
    add_site_options(added, common);
    add_json_option(added, options->is_json, "Print one JSON object a line");
}
