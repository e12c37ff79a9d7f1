#include "commands/reading.h"

#include "clock.h"
#include "network/json.h"
#include "screen/live.h"
#include "topics.h"

#include <fmt/core.h>

#include <cstdio>

void add_reading_options(command &added, context &common, reading_options &options)
{
    add_broker_options(added, common);
    add_json_option(added, options.is_json, "Print JSON; with --watch one line for each change");
    added.flag({.name = "--watch", .help = "Go on and show every change, until Ctrl-C or q"},
               options.is_watch);
}

void report_no_records(const network &net, const node &found, const std::string &what)
{
    const std::string mac = mac_text(found.mac);
    const std::string hint =
        net.is_local(found.mac)
            ? "The daemon publishes statistics of fire ports only, and performance records from the first "
              "quarter hour "
              "that closes."
            : fmt::format(
                  "They are on the broker of that card: name it with --host, or have them relayed with "
                  "'diagctl subscribe {}'.",
                  mac);
    throw failure(STATUS_FAILURE,
                  fmt::format("no {} of node {} on this broker\n{}", what, node_text(net, found.mac), hint));
}

// The network is taken in; STATUS_NO_BROKER when there is no broker, or no daemon on it.
reading::reading(const context &common, const reading_options &wanted)
    : options(wanted), model(named_network(common)), broker(common.address())
{
    broker.listen([this](std::string_view topic, bytes payload, bool is_retained) {
        network_apply(model, topic, payload, is_retained, current_moment());
        if (kept) {
            model.nodes[*kept].mac = *kept;
        }
        if (changed) {
            changed();
        }
        return true;
    });
    broker.subscribe(network_filters());
    if (!model.local.is_published) {
        report_no_daemon(common.address());
    }
}

void reading::select(const std::string &reference)
{
    kept = resolve_node(model, reference).mac;
}

void reading::subscribe(const std::string &suffix)
{
    broker.subscribe({fmt::format("{}{}/{}", DIAG_PREFIX, mac_text(*kept), suffix)});
}

void reading::wait(const std::function<bool()> &is_done, std::chrono::milliseconds limit)
{
    broker.wait(is_done, limit);
}

void print_report(const report &shown, const reading_options &options, int indent)
{
    if (options.is_json) {
        puts(json_text(shown.object(), indent).c_str());
        return;
    }
    for (const screen_line &line : shown.lines()) {
        terminal_print(line);
    }
}

void prepare_watch(live_view &view, const report &shown, const reading_options &options)
{
    view.print = [&, printed = std::string()]() mutable {
        // What hasn't changed isn't shown again.
        std::string object = json_text(shown.object());
        if (object == printed) {
            return;
        }
        if (!options.is_json && !printed.empty()) {
            puts("");
        }
        print_report(shown, options, -1);
        printed = std::move(object);
    };
    if (!options.is_json) {
        view.render = [&](terminal_size size) {
            screen_lines lines = shown.lines();
            cut_lines(lines, size.height);
            lines.resize(size.height);
            for (screen_line &line : lines) {
                clip(line, size.width);
            }
            return lines;
        };
    }
}

exit_status reading::watch(const report &shown)
{
    live_view view;
    prepare_watch(view, shown, options);
    changed = [&view] { view.changed(); };
    const signal_input signals;
    const exit_status status = view.run(broker, signals);
    changed = {};
    return status;
}

exit_status reading::show(const report &shown)
{
    if (options.is_watch) {
        return watch(shown);
    }
    print_report(shown, options, 2);
    return fflush(stdout) == 0 ? STATUS_SUCCESS : STATUS_FAILURE;
}
