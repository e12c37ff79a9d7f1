// diagctl activate: nodes activate what they have downloaded.
#include "commands/acting.h"

void add_activate_command(command_line &line, context &common)
{
    auto [added, options] = add_command<guarded_options>(
        line, common, "activate", "Tell nodes to activate; guarded by the daemon's challenge.",
        [](const context &known, const guarded_options &given) {
            return run_guarded(known, given, "activate;", "Activate", "activated");
        });
    add_guarded_options(added, common, *options);
}
