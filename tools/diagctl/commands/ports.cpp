// diagctl ports: the statistics of a node's ports, with rates.
#include "commands/reading.h"
#include "commands/site.h"
#include "network/json.h"
#include "topics.h"

#include <algorithm>

namespace
{

struct ports_options : reading_options {
    std::string node;
    unsigned measure_seconds = 3;
};

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

exit_status run_ports(const context &common, const ports_options &options)
{
    if (common.is_site) {
        return site_ports(common, options, options.node, options.measure_seconds);
    }
    reading looked(common, options);
    looked.select(options.node);
    looked.subscribe(std::string("+/") + PORT_STATS);
    if (!has_statistics(looked.selected())) {
        report_no_records(looked.net(), looked.selected(), "port statistics");
    }
    if (!options.is_watch) {
        // Rates take two messages.
        looked.wait([&] { return has_rates(looked.selected()); },
                    std::chrono::seconds(options.measure_seconds));
    }
    return looked.show({.lines = [&] { return ports_lines(looked.selected()); },
                        .object = [&] { return ports_json(looked.net(), looked.selected()); }});
}

} // namespace

void add_ports_command(command_line &line, context &common)
{
    auto [added, options] = add_command<ports_options>(
        line, common, "ports", "Show the statistics of a node's ports since the last reset.", run_ports);
    add_node_argument(added, options->node);
    add_reading_options(added, common, *options);
    add_site_options(added, common);
    added.number({.name = "--measure",
                  .help = "How long to wait for the two messages that a rate takes; 0 shows no rates",
                  .value = "SECONDS"},
                 options->measure_seconds, 0, 3600);
}
