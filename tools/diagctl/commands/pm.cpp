// diagctl pm: the performance-monitoring records of a port.
#include "commands/reading.h"
#include "screen/terminal.h"
#include "topics.h"

#include <langinfo.h>

#include <clocale>
#include <string_view>

namespace
{

struct {
    reading_options options;
    std::string node;
    int port = LUM_PORT_A;
    bool is_days = false;
    bool is_csv = false;
} pm;

exit_status run_pm(const broker_address &address)
{
    setlocale(LC_CTYPE, "");
    const bool is_utf8 = std::string_view(nl_langinfo(CODESET)) == "UTF-8";
    const pm_kind kind = pm.is_days ? pm_kind::DAYS : pm_kind::PERIODS;
    const auto check = [&](const network &net, const node &found) {
        const bool is_there = found.ports.contains(pm.port);
        return is_there || pm.options.is_watch
                   ? STATUS_SUCCESS
                   : report_no_records(net, found,
                                       ("performance records of port " + port_text(pm.port)).c_str());
    };
    const auto build = [&](const network &, const node &found) {
        pm_style style = {is_utf8, SIZE_MAX};
        if (terminal_is_screen()) {
            size_t height = 0;
            terminal_size(style.width, height);
        }
        report result = report_pm(found, pm.port, kind, style);
        if (pm.is_csv) {
            result.lines = pm_csv(found, pm.port, kind);
        }
        return result;
    };
    return reading_of_node(address, pm.options,
                           {.reference = pm.node,
                            .suffix = port_text(pm.port) + "/" + std::string(PM_PREFIX) + "+",
                            .prepare = check,
                            .build = build});
}

} // namespace

void add_pm_command(CLI::App &app, command_context &context)
{
    CLI::App *const command =
        add_command(app, context, "pm",
                    "Show the performance records of a port: the closed quarter hours of the last day.",
                    [&context] { return run_pm(context.address); });
    add_node_argument(*command, pm.node);
    add_port_argument(*command, pm.port);
    command->add_flag("--days", pm.is_days, "The closed days of the last week instead");
    add_reading_options(*command, pm.options);
    command->add_flag("--csv", pm.is_csv, "Print comma-separated values")->excludes("--json");
}
