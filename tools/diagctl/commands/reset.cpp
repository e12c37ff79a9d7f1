// diagctl reset: statistics begin again at 0.
#include "commands/acting.h"
#include "commands/site.h"
#include "screen/text.h"

#include <fmt/core.h>

#include <cstdio>

namespace
{

struct reset_options {
    std::string node;
    std::string port;
    bool is_all = false;
    bool is_yes = false;
};

void reset_all(acting &card, const reset_options &options)
{
    card.confirm("Reset the statistics of all ports of all nodes, and delete their performance records?",
                 options.is_yes);
    card.daemon().run({.command = "reset-all-stats"});
    puts("the statistics of this card have been reset; the other nodes have been told, once, and don't "
         "acknowledge");
}

void reset_port(acting &card, const reset_options &options)
{
    const node &found = resolve_node(card.net(), options.node);
    const mac_address mac = found.mac;
    const bool is_local = card.net().is_local(mac);
    const std::string port = port_text(*parse_port(options.port));
    const std::string what = fmt::format("port {} of node {}", port, node_text(card.net(), mac));
    card.confirm(fmt::format("Reset the statistics of {}, and delete its performance records?", what),
                 options.is_yes);
    card.daemon().run({.command = fmt::format("reset-stats;{};{}", mac_text(mac), port)});
    if (is_local) {
        fmt::print("the statistics of {} have been reset\n", what);
    } else {
        fmt::print("the reset of {} has been sent; the node doesn't acknowledge it\n", what);
    }
}

exit_status run_reset(const context &common, const reset_options &options)
{
    if (options.is_all ? !options.node.empty() : options.port.empty()) {
        throw failure(STATUS_USAGE, "name either a NODE and a PORT, or --all");
    }
    if (common.is_site) {
        if (options.is_all) {
            throw failure(STATUS_USAGE, "a site's cards are reset one port at a time");
        }
        return site_reset(common, options.node, *parse_port(options.port), options.is_yes);
    }
    acting card(common);
    if (options.is_all) {
        reset_all(card, options);
    } else {
        reset_port(card, options);
    }
    return STATUS_SUCCESS;
}

// A request has room for one letter: the daemon would take CPU for port C.
std::string check_front_port(const std::string &text)
{
    return parse_port(text) == LUM_PORT_CPU ? "the CPU port is reset with --all only" : "";
}

} // namespace

void add_reset_command(command_line &line, context &common)
{
    auto [added, options] = add_command<reset_options>(
        line, common, "reset", "Reset the statistics of a port, or of all ports of all nodes.", run_reset);
    add_node_argument(added, options->node, false);
    add_port_argument(added, options->port, check_front_port, false);
    added.flag({.name = "--all", .help = "All ports of all nodes"}, options->is_all);
    add_yes_option(added, options->is_yes);
    add_broker_options(added, common);
    add_site_options(added, common);
}
