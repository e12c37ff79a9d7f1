// diagctl: what a service engineer types to look at the network, and to command it, through a card's broker.
#include "commands/command.h"
#include "commands/completion.h"

#include <cstdio>

namespace
{

// In the order of the help.
constexpr void (*COMMANDS[])(CLI::App &app, command_context &context) = {
    add_nodes_command,  add_show_command,   add_ports_command,    add_pm_command,
    add_lists_command,  add_top_command,    add_watch_command,    add_subscribe_command,
    add_ping_command,   add_reset_command,  add_activate_command, add_remote_download_command,
    add_record_command, add_replay_command, add_export_command,
};

exit_status run(int argc, char **argv)
{
    CLI::App app("Looks at and commands a fire-alarm panel network through a card's broker.", "diagctl");
    app.require_subcommand(1);
    app.footer("Exit status: 0 success, 1 refused or failed, 2 wrong usage, 3 no broker or no answer.");

    command_context context;
    for (const auto add : COMMANDS) {
        add(app, context);
    }
    const auto print_completion = [&](const std::string &) {
        fputs(bash_completion(app).c_str(), stdout);
        throw CLI::Success();
    };
    app.add_option_function<std::string>("--completion", print_completion)
        ->check(CLI::IsMember({"bash"}))
        ->group(""); // not in the help: for the installation
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? STATUS_SUCCESS : STATUS_USAGE;
    }
    return context.run();
}

} // namespace

int main(int argc, char **argv)
{
    try {
        return run(argc, argv);
    } catch (const std::exception &error) {
        fprintf(stderr, "diagctl: %s\n", error.what());
        return STATUS_FAILURE;
    }
}
