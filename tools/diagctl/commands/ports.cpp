// diagctl ports: the statistics of a node's ports, with rates.
#include "commands/reading.h"
#include "topics.h"

#include <algorithm>
#include <cstdio>

namespace
{

struct {
    reading_options options;
    std::string node;
    unsigned measure_seconds = 3;
} ports;

bool has_rates(const node &found)
{
    return std::all_of(found.ports.begin(), found.ports.end(),
                       [](const auto &entry) { return entry.second.sample_before.has_value(); });
}

bool has_statistics(const node &found)
{
    return std::any_of(found.ports.begin(), found.ports.end(),
                       [](const auto &entry) { return entry.second.stats.is_published; });
}

exit_status run_ports(const broker_address &address)
{
    // Rates take two messages.
    const auto measure = [&](const network &net, const node &found) {
        std::string error;
        if (!has_statistics(found)) {
            return report_no_records(net, found, "port statistics");
        }
        const std::chrono::seconds limit(ports.options.is_watch ? 0 : ports.measure_seconds);
        switch (session_wait([&] { return has_rates(found); }, limit, error)) {
        case session_end::LOST:
            return report_lost(address, error);
        default:
            return STATUS_SUCCESS;
        }
    };
    return reading_of_node(
        address, ports.options,
        {.reference = ports.node,
         .suffix = std::string("+/") + PORT_STATS,
         .prepare = measure,
         .build = [](const network &, const node &found) { return report_ports(found, {}); }});
}

} // namespace

void add_ports_command(CLI::App &app, command_context &context)
{
    CLI::App *const command =
        add_command(app, context, "ports", "Show the statistics of a node's ports since the last reset.",
                    [&context] { return run_ports(context.address); });
    add_node_argument(*command, ports.node);
    add_reading_options(*command, ports.options);
    command
        ->add_option("--measure", ports.measure_seconds,
                     "How long to wait for the two messages that a rate takes; 0 shows no rates")
        ->type_name("SECONDS")
        ->check(CLI::Range(0, 3600).description(""))
        ->capture_default_str();
}
