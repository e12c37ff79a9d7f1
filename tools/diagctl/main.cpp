// diagctl: what a service engineer types to look at the network through a card's broker.
#include "top.h"

#include <CLI/CLI.hpp>

namespace
{

constexpr int BROKER_PORT = 1885; // of a card's broker

// NODE/PORT, for example local/A or 02-00-00-00-00-03/CPU.
std::optional<stats_target> parse_stats_target(const std::string &text)
{
    const size_t slash = text.rfind('/');
    if (slash == std::string::npos) {
        return {};
    }
    const std::optional<node_reference> node = parse_node_reference(text.substr(0, slash));
    const std::string port_name = text.substr(slash + 1);
    int port = 0;
    // The daemon's parser looks at the first letter only.
    if (!node || hwinfo_lumport_str_to_enum(port_name.c_str(), &port) != 0 ||
        port_name.size() != port_text(port).size()) {
        return {};
    }
    return stats_target{*node, port, text};
}

std::string check_stats_target(const std::string &text)
{
    return parse_stats_target(text) ? ""
                                    : "'" + text +
                                          "' is not NODE/PORT: NODE is local, a MAC address or a number from "
                                          "1 to 255, PORT is A to H or CPU";
}

void add_broker_options(CLI::App &command, broker_address &address)
{
    command.add_option("--host", address.host, "Host of the broker")
        ->envname("DIAG_HOST")
        ->capture_default_str();
    command.add_option("--port", address.port, "TCP port of the broker")
        ->envname("DIAG_PORT")
        ->check(CLI::Range(1, 65535))
        ->capture_default_str();
}

int run(int argc, char **argv)
{
    CLI::App app("Looks at a fire-alarm panel network through a card's broker.", "diagctl");
    app.require_subcommand(1);
    app.footer("Exit status: 0 success, 1 failed, 2 wrong usage, 3 no broker.");

    broker_address address = {"127.0.0.1", BROKER_PORT};
    std::string stats;
    CLI::App *const top = app.add_subcommand(
        "top", "Show the network live: nodes, ports, lists and events. On a terminal full-screen, q quits; "
               "elsewhere one line for each change.");
    add_broker_options(*top, address);
    top->add_option("--stats", stats, "Also show the statistics of this port")
        ->type_name("NODE/PORT")
        ->check(check_stats_target);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? STATUS_SUCCESS : STATUS_USAGE;
    }
    return run_top(address, stats.empty() ? std::nullopt : parse_stats_target(stats));
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
