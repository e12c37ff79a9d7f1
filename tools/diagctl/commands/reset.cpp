// diagctl reset: statistics begin again at 0.
#include "commands/action.h"

#include <cstdio>

namespace
{

struct {
    std::string node;
    int port = LUM_PORT_A;
    bool is_all = false;
    bool is_yes = false;
} reset;

exit_status reset_all(const broker_address &address)
{
    exit_status status = confirm(
        address, "Reset the statistics of all ports of all nodes, and delete their performance records?",
        reset.is_yes);
    if (status == STATUS_SUCCESS) {
        status = request_run(address, {.command = "reset-all-stats"});
    }
    if (status == STATUS_SUCCESS) {
        puts("the statistics of this card have been reset; the other nodes have been told, once, and don't "
             "acknowledge");
    }
    return status;
}

exit_status reset_port(const broker_address &address, const network &net)
{
    const node *const found = resolve_node(net, reset.node);
    if (found == nullptr) {
        return STATUS_FAILURE;
    }
    const std::string mac = mac_text(found->mac);
    const std::string what = "port " + port_text(reset.port) + " of node " + mac;
    const bool is_local = net.is_local(found->mac);
    exit_status status = confirm(
        address, "Reset the statistics of " + what + ", and delete its performance records?", reset.is_yes);
    if (status == STATUS_SUCCESS) {
        status = request_run(address, {.command = "reset-stats;" + mac + ";" + port_text(reset.port)});
    }
    if (status == STATUS_SUCCESS) {
        printf(is_local ? "the statistics of %s have been reset\n"
                        : "the reset of %s has been sent; the node doesn't acknowledge it\n",
               what.c_str());
    }
    return status;
}

exit_status run_reset(const broker_address &address)
{
    if (reset.is_all != reset.node.empty()) {
        fputs("diagctl: name either a NODE and a PORT, or --all\n", stderr);
        return STATUS_USAGE;
    }
    action_state state;
    exit_status status = open_action(address, state);
    if (status == STATUS_SUCCESS) {
        status = reset.is_all ? reset_all(address) : reset_port(address, state.net);
        session_close();
    }
    return status;
}

// A request has room for one letter: the daemon would take CPU for port C.
std::string check_front_port(const std::string &text)
{
    return parse_port(text) == LUM_PORT_CPU ? "the CPU port is reset with --all only" : "";
}

} // namespace

void add_reset_command(CLI::App &app, command_context &context)
{
    CLI::App *const command =
        add_command(app, context, "reset", "Reset the statistics of a port, or of all ports of all nodes.",
                    [&context] { return run_reset(context.address); });
    CLI::Option *const node = add_node_argument(*command, reset.node)->required(false);
    CLI::Option *const port =
        add_port_argument(*command, reset.port)->check(check_front_port)->required(false);
    node->needs(port);
    command->add_flag("--all", reset.is_all, "All ports of all nodes");
    add_yes_option(*command, reset.is_yes);
}
