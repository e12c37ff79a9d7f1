// diagctl lists: what is wrong in the network.
#include "reading.h"

namespace
{

reading_options list_options;

exit_status run_lists(const broker_address &address)
{
    network net;
    const exit_status opened = reading_open(address, net);
    if (opened != STATUS_SUCCESS) {
        return opened;
    }
    const exit_status status = reading_run(address, list_options, [&] { return report_lists(net); });
    session_close();
    return status;
}

} // namespace

void add_lists_command(CLI::App &app, command_context &context)
{
    CLI::App *const command = add_command(
        app, context, "lists",
        "Show the network's lists: ports with the link down, a ground fault or miswired, miswired links, and "
        "whether the network would survive a cut.",
        [&context] { return run_lists(context.address); });
    add_reading_options(*command, list_options);
}
