// diagctl remote-download: switches remote download of nodes on and off.
#include "commands/acting.h"

namespace
{

struct download_options : guarded_options {
    unsigned state = 0; // of STATES
};

const std::vector<std::string> STATES = {"off", "on"};

exit_status run_download(const context &common, const download_options &options)
{
    const std::string switched = "remote download " + STATES[options.state];
    return run_guarded(common, options, "remote-download;" + std::to_string(options.state) + ";",
                       "Switch " + switched + " at", switched + " at");
}

} // namespace

void add_remote_download_command(command_line &line, context &common)
{
    auto [added, options] = add_command<download_options>(
        line, common, "remote-download",
        "Switch remote download of nodes on or off; guarded by the daemon's challenge.", run_download);
    added.choice({.name = "STATE", .help = "on or off", .is_required = true}, STATES, options->state);
    add_guarded_options(added, common, *options);
}
