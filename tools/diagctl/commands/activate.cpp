// diagctl activate: nodes activate what they have downloaded.
#include "commands/guarded.h"

namespace
{

guarded_options activate;

} // namespace

void add_activate_command(CLI::App &app, command_context &context)
{
    CLI::App *const command = add_command(
        app, context, "activate", "Tell nodes to activate; guarded by the daemon's challenge.",
        [&context] { return guarded_run(context.address, activate, "activate;", "Activate", "activated"); });
    add_guarded_options(*command, activate);
}
