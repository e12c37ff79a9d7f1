// What the commands have in common. Each is one function add_X_command() in a file of its own, which adds the command with
// its options to the command line; main.cpp lists them all.
#pragma once

#include "broker/session.h"
#include "commands/command_line.h"
#include "network/model.h"

#include <type_traits>
#include <utility>

// What every command is told.
struct context {
    std::vector<std::string> hosts = {"127.0.0.1"}; // one, but for a site with two brokers
    int port = 1885;
    bool is_site = false; // the brokers are a site's, not a card's
    std::string user;     // empty: none
    std::string password_file;
    std::string ca_file;    // empty: no TLS
    std::string names_file; // empty: the usual ones

    // Of a card's broker.
    broker_address address() const;
    // Reads the password.
    broker_login login() const;
};

void add_activate_command(command_line &line, context &common);
void add_check_command(command_line &line, context &common);
void add_explain_command(command_line &line, context &common);
void add_export_command(command_line &line, context &common);
void add_lists_command(command_line &line, context &common);
void add_nodes_command(command_line &line, context &common);
void add_ping_command(command_line &line, context &common);
void add_pm_command(command_line &line, context &common);
void add_ports_command(command_line &line, context &common);
void add_record_command(command_line &line, context &common);
void add_remote_download_command(command_line &line, context &common);
void add_replay_command(command_line &line, context &common);
void add_reset_command(command_line &line, context &common);
void add_show_command(command_line &line, context &common);
void add_subscribe_command(command_line &line, context &common);
void add_top_command(command_line &line, context &common);
void add_watch_command(command_line &line, context &common);
void add_web_command(command_line &line, context &common);

// Adds a command with its options, which run() gets when the command has been given.
template <typename Options>
std::pair<command, std::shared_ptr<Options>>
add_command(command_line &line, const context &common, const char *name, const char *description,
            std::type_identity_t<std::function<exit_status(const context &, const Options &)>> run)
{
    const auto options = std::make_shared<Options>();
    return {line.add(name, description,
                     [&common, options, run = std::move(run)] { return run(common, *options); }),
            options};
}

// A monitoring service reads standard output, and takes 2 for a fault of the network.
exit_status print_wrong_check(const std::string &reason);

// Adds the options of the broker, and those of names.
void add_broker_options(command &added, context &common);
void add_names_option(command &added, context &common);
void add_json_option(command &added, bool &is_json, const char *help = "Print JSON");
// Adds a positional NODE, which resolve_node() takes apart, and a positional PORT, A to H or CPU in either case.
void add_node_argument(command &added, std::string &text, bool is_required = true);
void add_port_argument(command &added, std::string &text, const value_check &check = {},
                       bool is_required = true);

// The names of the file that the user gives, else of /etc/diag/names and of the user's own.
node_names read_names(const context &common);

// The names that can be given for a node, one a line, for completion: DIAG_NAMES counts where the options aren't read.
std::string listed_names(const context &common);

// What a user means by a word: wrong usage where it can't be a node, with what it may be.
node_reference parse_node(const std::string &text, const node_names &names);
// The one node that is meant: throws when there is none or, with a number or a name that several cards share, more than one.
const node &resolve_node(const network &net, const std::string &text);

// A network with the names, fed with the messages of a session; listen before subscribing.
network named_network(const context &common);
void feed(session &broker, network &net);

// Everything, and what tells of the whole network but the ports' records.
std::vector<std::string> all_filters();
std::vector<std::string> network_filters();

[[noreturn]] void report_no_daemon(const broker_address &address);

// Whether a topic matches an MQTT filter, and whether a text is one.
bool matches(const std::string &filter, const std::string &topic);
bool is_filter(const std::string &text);
