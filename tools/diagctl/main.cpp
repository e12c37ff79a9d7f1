// diagctl: what a service engineer types to look at the network, and to command it, through a card's broker.
#include "commands/completion.h"
#include "commands/context.h"
#include "screen/terminal.h"

#include <unistd.h>

#include <clocale>
#include <cstdio>
#include <exception>
#include <string_view>

namespace
{

// In the order of the help.
constexpr struct {
    const char *title;
    std::initializer_list<void (*)(command_line &line, context &common)> commands;
} GROUPS[] = {
    {"Look",
     {add_nodes_command, add_show_command, add_ports_command, add_pm_command, add_lists_command,
      add_check_command, add_top_command, add_web_command, add_watch_command, add_explain_command}},
    {"Act",
     {add_ping_command, add_subscribe_command, add_reset_command, add_activate_command,
      add_remote_download_command}},
    {"Keep", {add_record_command, add_replay_command, add_export_command}},
};

exit_status run(int argc, char **argv)
{
    context common;
    command_line line("diagctl", "Looks at and commands a fire-alarm panel network through a card's broker.");
    for (const auto &group : GROUPS) {
        line.start_group(group.title);
        for (const auto add : group.commands) {
            add(line, common);
        }
    }
    line.print_option("--version", "Print the version and end", {},
                      [](const std::string &) { return "diagctl " DIAG_VERSION "\n"; });
    line.print_option("--completion", "", {std::begin(COMPLETION_SHELLS), std::end(COMPLETION_SHELLS)},
                      [&line](const std::string &shell) { return line.completion(shell); });
    line.print_option("--list-names", "", {},
                      [&common](const std::string &) { return listed_names(common); });
    try {
        return line.run(argc, argv);
    } catch (const failure &error) {
        const bool is_check = argc > 1 && std::string_view(argv[1]) == "check";
        if (!is_check || line.has_run()) {
            throw;
        }
        return print_wrong_check(error.what());
    }
}

void complain(const std::exception &error)
{
    fprintf(stderr, "diagctl: %s\n", terminal_text(error.what(), STDERR_FILENO).c_str());
}

} // namespace

int main(int argc, char **argv)
{
    setlocale(LC_CTYPE, "");
    try {
        return run(argc, argv);
    } catch (const failure &error) {
        complain(error);
        return error.status;
    } catch (const std::exception &error) {
        complain(error);
        return STATUS_FAILURE;
    }
}
