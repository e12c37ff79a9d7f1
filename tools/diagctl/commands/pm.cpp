// diagctl pm: the performance-monitoring records of a port.
#include "commands/reading.h"
#include "commands/site.h"
#include "network/json.h"
#include "screen/terminal.h"
#include "topics.h"

namespace
{

struct pm_options : reading_options {
    std::string node;
    std::string port;
    bool is_days = false;
    bool is_csv = false;
};

exit_status run_pm(const context &common, const pm_options &options)
{
    if (common.is_site) {
        return site_pm(common, options, options.node, *parse_port(options.port),
                       options.is_days ? pm_kind::DAYS : pm_kind::PERIODS, options.is_csv);
    }
    const int port = *parse_port(options.port);
    const pm_kind kind = options.is_days ? pm_kind::DAYS : pm_kind::PERIODS;
    reading looked(common, options);
    looked.select(options.node);
    looked.subscribe(port_text(port) + "/" + std::string(PM_PREFIX) + "+");
    if (!looked.selected().ports.contains(port) && !options.is_watch) {
        report_no_records(looked.net(), looked.selected(), "performance records of port " + port_text(port));
    }
    const auto lines = [&] {
        return options.is_csv ? pm_csv(looked.selected(), port, kind)
                              : pm_lines(looked.selected(), port, kind, current_pm_style());
    };
    return looked.show(
        {.lines = lines, .object = [&] { return pm_json(looked.net(), looked.selected(), port, kind); }});
}

} // namespace

pm_style current_pm_style()
{
    return {is_utf8_locale(), terminal_is_screen() ? current_terminal_size().width : SIZE_MAX};
}

void add_pm_command(command_line &line, context &common)
{
    auto [added, options] = add_command<pm_options>(
        line, common, "pm",
        "Show the performance records of a port: the closed quarter hours of the last day.", run_pm);
    add_node_argument(added, options->node);
    add_port_argument(added, options->port);
    added.flag({.name = "--days", .help = "The closed days of the last week instead"}, options->is_days);
    add_reading_options(added, common, *options);
    add_site_options(added, common);
    added.flag({.name = "--csv", .help = "Print comma-separated values", .excluded = "--json"},
               options->is_csv);
}
