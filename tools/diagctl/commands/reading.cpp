#include "commands/reading.h"

#include "screen/live.h"
#include "topics.h"

#include <cstdio>

namespace
{

network *read_network = nullptr;

void take_message(std::string_view topic, std::span<const uint8_t> payload, bool is_retained)
{
    network_apply(*read_network, topic, payload, is_retained, current_moment());
    live_changed();
}

void print_report(const report &shown, bool is_json, int indent)
{
    if (is_json) {
        puts(shown.object.dump(indent).c_str());
        return;
    }
    for (const screen_line &line : shown.lines) {
        terminal_print(line);
    }
}

exit_status watch(const broker_address &address, const reading_options &options,
                  const std::function<report()> &build)
{
    std::string printed;
    const auto print = [&] {
        const report shown = build();
        // What hasn't changed isn't shown again.
        std::string object = shown.object.dump();
        if (object == printed) {
            return;
        }
        if (!options.is_json && !printed.empty()) {
            puts("");
        }
        print_report(shown, options.is_json, -1);
        printed = std::move(object);
    };
    live_view view = {.render = {}, .take_key = {}, .print = print};
    if (options.is_json) {
        return live_run(address, view);
    }
    view.render = [&](size_t width, size_t height) {
        std::vector<screen_line> lines = build().lines;
        cut_lines(lines, height);
        lines.resize(height);
        for (screen_line &line : lines) {
            clip(line, width);
        }
        return lines;
    };
    return live_run(address, view);
}

// Takes in the network; STATUS_NO_BROKER when there is no broker, or no daemon on it. The session is open only on
// success.
exit_status open_reading(const broker_address &address, network &net)
{
    read_network = &net;
    const exit_status opened = open_session(
        address,
        {LOCAL_NODE_TOPIC, NODE_TOPICS_FILTER, LISTS_FILTER, NETWORK_STYLE7_TOPIC, RING_STATUS_FILTER},
        take_message);
    if (opened != STATUS_SUCCESS) {
        return opened;
    }
    if (!net.local.is_published) {
        session_close();
        return report_no_daemon(address);
    }
    return STATUS_SUCCESS;
}

exit_status show(const broker_address &address, const reading_options &options,
                 const std::function<report()> &build)
{
    if (options.is_watch) {
        return watch(address, options, build);
    }
    print_report(build(), options.is_json, 2);
    return fflush(stdout) == 0 ? STATUS_SUCCESS : STATUS_FAILURE;
}

} // namespace

void add_reading_options(CLI::App &command, reading_options &options)
{
    command.add_flag("--json", options.is_json, "Print JSON; with --watch one line for each change");
    command.add_flag("--watch", options.is_watch, "Go on and show every change, until Ctrl-C or q");
}

exit_status report_no_records(const network &net, const node &found, const char *what)
{
    const std::string mac = mac_text(found.mac);
    fprintf(stderr, "diagctl: no %s of node %s on this broker\n", what, mac.c_str());
    if (net.is_local(found.mac)) {
        fprintf(stderr,
                "The daemon publishes statistics of fire ports only, and performance records from the "
                "first quarter hour that closes.\n");
    } else {
        fprintf(
            stderr,
            "They are on the broker of that card: name it with --host, or have them relayed with 'diagctl "
            "subscribe %s'.\n",
            mac.c_str());
    }
    return STATUS_FAILURE;
}

exit_status reading_of_network(const broker_address &address, const reading_options &options,
                               const std::function<report(const network &net)> &build)
{
    network net;
    exit_status status = open_reading(address, net);
    if (status == STATUS_SUCCESS) {
        status = show(address, options, [&] { return build(net); });
        session_close();
    }
    return status;
}

exit_status reading_of_node(const broker_address &address, const reading_options &options,
                            const node_reading &reading)
{
    network net;
    exit_status status = open_reading(address, net);
    if (status != STATUS_SUCCESS) {
        return status;
    }
    const node *const found = resolve_node(net, reading.reference);
    if (found == nullptr) {
        status = STATUS_FAILURE;
    } else {
        const mac_address mac = found->mac;
        // A node that leaves is forgotten.
        const auto current = [&]() -> const node & {
            net.nodes[mac].mac = mac;
            return net.nodes[mac];
        };
        std::string error;
        if (!reading.suffix.empty() &&
            !session_subscribe(std::string(DIAG_PREFIX) + mac_text(mac) + "/" + reading.suffix, error)) {
            status = report_lost(address, error);
        }
        if (status == STATUS_SUCCESS && reading.prepare) {
            status = reading.prepare(net, current());
        }
        if (status == STATUS_SUCCESS) {
            status = show(address, options, [&] { return reading.build(net, current()); });
        }
    }
    session_close();
    return status;
}
