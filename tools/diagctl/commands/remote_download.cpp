// diagctl remote-download: switches remote download of nodes on and off.
#include "commands/guarded.h"

namespace
{

struct {
    std::string state;
    guarded_options options;
} download;

exit_status run_download(const broker_address &address)
{
    const bool is_on = download.state == "on";
    const std::string switched = std::string("remote download ") + (is_on ? "on" : "off");
    return guarded_run(address, download.options, std::string("remote-download;") + (is_on ? "1;" : "0;"),
                       "Switch " + switched + " at", switched + " at");
}

} // namespace

void add_remote_download_command(CLI::App &app, command_context &context)
{
    CLI::App *const command =
        add_command(app, context, "remote-download",
                    "Switch remote download of nodes on or off; guarded by the daemon's challenge.",
                    [&context] { return run_download(context.address); });
    command->add_option("STATE", download.state, "on or off")
        ->type_name("")
        ->check(CLI::IsMember({"on", "off"}).description(""))
        ->required();
    add_guarded_options(*command, download.options);
}
