// diagctl export: the network for Prometheus, over HTTP.
#include "broker/requests.h"
#include "broker/signals.h"
#include "clock.h"
#include "commands/context.h"
#include "commands/exporting.h"
#include "commands/site.h"
#include "export/metrics.h"

#include <fmt/core.h>
#include <prometheus/text_serializer.h>

#include <array>
#include <cstdio>

namespace
{

constexpr std::chrono::seconds ASK_INTERVAL(5); // also how long the daemon may take to answer

struct export_options {
    std::string listen = "127.0.0.1:9885";
    history_options history;
};

struct exported_network {
    network net;
    bool is_daemon_up = false;
};

// A daemon that has ended leaves all that it published on the broker: only its answers tell that it is there. Returns when a
// signal comes.
void ask_daemon(session &broker, requests &asked, http_server &server, exported_network &exported)
{
    wait_end end = wait_end::DONE;
    while (end != wait_end::INTERRUPTED) {
        const uint32_t transaction = asked.send("noop");
        bool is_answered = false;
        const auto look = [&] {
            if (!is_answered && asked.answer(transaction)) {
                is_answered = true;
                exported.is_daemon_up = true;
            }
            server.serve(); // at least once a second, for clients that say nothing
            return false;
        };
        end = broker.wait(look, ASK_INTERVAL);
        if (!is_answered) {
            asked.forget(transaction);
            exported.is_daemon_up = false;
        }
    }
}

exit_status run_export(const context &common, const export_options &options)
{
    if (!options.history.path.empty()) {
        return export_history(common, options.history);
    }
    if (common.is_site) {
        return site_export(common, options.listen);
    }
    const signal_input signals;
    exported_network exported = {.net = named_network(common)};
    http_server server(*parse_listen_address(options.listen),
                       std::nullopt, // scrapers have names of their own for it

                       [&](const http_request &request) {
                           return metrics_answer(
                               request, [&] { return network_metrics(exported.net, exported.is_daemon_up); });
                       });
    std::array<wait_input, 1> inputs = {{{server.descriptor(), [&] { server.serve(); }}}};
    session broker(common.address(), &signals, session::retain_flags::OF_SUBSCRIPTION, inputs);
    requests asked(broker);
    broker.listen([&](std::string_view topic, bytes payload, bool is_retained) {
        network_apply(exported.net, topic, payload, is_retained, current_moment());
        return true;
    });
    broker.subscribe(all_filters());
    fmt::print(stderr, "diagctl: metrics of {} at http://{}/metrics\n", common.address().text(),
               server.address());
    ask_daemon(broker, asked, server, exported);
    return STATUS_SUCCESS;
}

} // namespace

http_answer metrics_answer(const http_request &request,
                           const std::function<std::vector<prometheus::MetricFamily>()> &collect)
{
    if (request.path != "/metrics") {
        return text_answer(404, "the metrics are at /metrics");
    }
    const std::string text = prometheus::TextSerializer().Serialize(collect());
    return {.status = 200,
            .type = "text/plain; version=0.0.4; charset=utf-8",
            .body = std::make_shared<const std::string>(text)};
}

void add_export_command(command_line &line, context &common)
{
    auto [added, options] = add_command<export_options>(
        line, common, "export",
        "Serve the network's state as metrics for Prometheus, until Ctrl-C, or write its history.",
        run_export);
    added.text({.name = "--listen",
                .help = "Where to serve http://ADDRESS:PORT/metrics",
                .value = "ADDRESS:PORT",
                .check = check_listen_address},
               options->listen);
    added.text({.name = "--pm",
                .help =
                    "Instead, add each performance record that has not been written before to this file, as "
                    "OpenMetrics with its time, and end; - prints all that there are",
                .value = "FILE",
                .excluded = "--listen"},
               options->history.path);
    added.number({.name = "--min-age",
                  .help = "Leave records out that are younger than so many hours",
                  .value = "HOURS",
                  .needed = "--pm"},
                 options->history.min_age_hours, 0, 23);
    add_broker_options(added, common);
    add_site_options(added, common);
}
