// diagctl show: all that is known of one node.
#include "commands/reading.h"

namespace
{

struct {
    reading_options options;
    std::string node;
} show;

exit_status run_show(const broker_address &address)
{
    return reading_of_node(
        address, show.options,
        {.reference = show.node,
         .suffix = {},
         .prepare = {},
         .build = [](const network &net, const node &found) { return report_node(net, found); }});
}

} // namespace

void add_show_command(CLI::App &app, command_context &context)
{
    CLI::App *const command = add_command(app, context, "show", "Show all that is known of a node.",
                                          [&context] { return run_show(context.address); });
    add_node_argument(*command, show.node);
    add_reading_options(*command, show.options);
}
