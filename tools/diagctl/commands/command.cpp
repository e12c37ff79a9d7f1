#include "commands/command.h"

#include "topics.h"

#include <cstdio>

namespace
{

std::string address_text(const broker_address &address)
{
    return address.host + ":" + std::to_string(address.port);
}

std::string check_node(const std::string &text)
{
    return parse_node_reference(text)
               ? ""
               : "'" + text + "' is no node: use a MAC address, a node number from 1 to 255, or local";
}

std::string check_port(const std::string &text)
{
    return parse_port(text) ? "" : "'" + text + "' is no port: use A to H or CPU";
}

} // namespace

CLI::App *add_command(CLI::App &app, command_context &context, const std::string &name,
                      const std::string &description, std::function<exit_status()> run)
{
    CLI::App *const command = app.add_subcommand(name, description);
    command->add_option("--host", context.address.host, "Host of the broker")
        ->envname("DIAG_HOST")
        ->capture_default_str();
    command->add_option("--port", context.address.port, "TCP port of the broker")
        ->envname("DIAG_PORT")
        ->check(CLI::Range(1, 65535))
        ->capture_default_str();
    command->callback([&context, run = std::move(run)] { context.run = run; });
    return command;
}

CLI::Option *add_node_argument(CLI::App &command, std::string &text)
{
    return command.add_option("NODE", text, "MAC address, node number, or local")
        ->type_name("")
        ->check(check_node)
        ->required();
}

CLI::Option *add_port_argument(CLI::App &command, int &port)
{
    const auto set_port = [&port](const std::string &text) { port = parse_port(text).value_or(port); };
    return command.add_option_function<std::string>("PORT", set_port, "A to H or CPU")
        ->type_name("")
        ->check(check_port)
        ->required();
}

exit_status open_session(const broker_address &address, const std::vector<std::string> &filters,
                         message_handler handler)
{
    std::string error;
    if (session_open(address, filters, std::move(handler), error)) {
        return STATUS_SUCCESS;
    }
    fprintf(stderr,
            "diagctl: no broker at %s: %s\n"
            "Is it running there? Name another with --host and --port, or DIAG_HOST and DIAG_PORT.\n",
            address_text(address).c_str(), error.c_str());
    return STATUS_NO_BROKER;
}

exit_status report_no_daemon(const broker_address &address)
{
    fprintf(stderr,
            "diagctl: no daemon has announced itself on the broker at %s: %s is missing\n"
            "Is diag running on that card? Its system log says why it ended.\n",
            address_text(address).c_str(), LOCAL_NODE_TOPIC);
    return STATUS_NO_BROKER;
}

exit_status report_lost(const broker_address &address, const std::string &error)
{
    fprintf(stderr, "diagctl: lost the broker at %s: %s\n", address_text(address).c_str(), error.c_str());
    return STATUS_NO_BROKER;
}

const node *resolve_node(const network &net, const std::string &text)
{
    const std::optional<node_reference> reference = parse_node_reference(text);
    const std::vector<const node *> found =
        reference ? find_nodes(net, *reference) : std::vector<const node *>{};
    if (found.size() == 1) {
        return found[0];
    }
    if (found.empty()) {
        fprintf(stderr, "diagctl: no node %s is known here; 'diagctl nodes' lists them\n", text.c_str());
        if (reference && reference->number) {
            fprintf(stderr, "A node's number is known only while a list of faults names the node: use its "
                            "MAC address.\n");
        }
        return nullptr;
    }
    fprintf(stderr, "diagctl: several nodes have the number %s, use a MAC address:\n", text.c_str());
    for (const node *candidate : found) {
        fprintf(stderr, "  %s\n", mac_text(candidate->mac).c_str());
    }
    return nullptr;
}
