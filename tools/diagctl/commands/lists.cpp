// diagctl lists: what is wrong in the network.
#include "commands/reading.h"

namespace
{

reading_options list_options;

} // namespace

void add_lists_command(CLI::App &app, command_context &context)
{
    CLI::App *const command = add_command(
        app, context, "lists",
        "Show the network's lists: ports with the link down, a ground fault or miswired, miswired links, and "
        "whether the network would survive a cut.",
        [&context] { return reading_of_network(context.address, list_options, report_lists); });
    add_reading_options(*command, list_options);
}
