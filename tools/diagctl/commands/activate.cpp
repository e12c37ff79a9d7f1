// diagctl activate: nodes activate what they have downloaded.
#include "commands/acting.h"

void add_activate_command(command_line &line, context &common)
{
    const auto options = std::make_shared<guarded_options>();
    command added = line.add(
        "activate", "Tell nodes to activate; guarded by the daemon's challenge.",
        [&common, options] { return run_guarded(common, *options, "activate;", "Activate", "activated"); });
    add_guarded_options(added, common, *options);
}
