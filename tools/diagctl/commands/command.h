// The commands of diagctl. Each is one function add_X_command() in a file of its own, which adds the subcommand with its
// options; main.cpp lists them all. What the user asked for is kept in a struct in that file's anonymous namespace: the
// process runs one command only.
#pragma once

#include "broker/session.h"
#include "network/model.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <optional>
#include <string>

enum exit_status {
    STATUS_SUCCESS = 0,
    STATUS_FAILURE = 1,   // refused or failed
    STATUS_USAGE = 2,     // wrong usage
    STATUS_NO_BROKER = 3, // no broker, or no answer from it or from the daemon
};

struct command_context {
    broker_address address = {"127.0.0.1", 1885}; // a card's broker
    std::function<exit_status()> run;             // the command given on the command line
};

void add_activate_command(CLI::App &app, command_context &context);
void add_export_command(CLI::App &app, command_context &context);
void add_lists_command(CLI::App &app, command_context &context);
void add_nodes_command(CLI::App &app, command_context &context);
void add_ping_command(CLI::App &app, command_context &context);
void add_pm_command(CLI::App &app, command_context &context);
void add_ports_command(CLI::App &app, command_context &context);
void add_record_command(CLI::App &app, command_context &context);
void add_remote_download_command(CLI::App &app, command_context &context);
void add_replay_command(CLI::App &app, command_context &context);
void add_reset_command(CLI::App &app, command_context &context);
void add_show_command(CLI::App &app, command_context &context);
void add_subscribe_command(CLI::App &app, command_context &context);
void add_top_command(CLI::App &app, command_context &context);
void add_watch_command(CLI::App &app, command_context &context);

// Adds a subcommand with the options of the broker. run is called once the whole command line has been read.
CLI::App *add_command(CLI::App &app, command_context &context, const std::string &name,
                      const std::string &description, std::function<exit_status()> run);

// Adds a positional NODE (a MAC address, a number, or local), checked while the command line is read.
CLI::Option *add_node_argument(CLI::App &command, std::string &text);
// The same for a positional PORT: A to H or CPU, in either case; port is hwinfo's number.
CLI::Option *add_port_argument(CLI::App &command, int &port);

// Opens the session, or says on standard error why not and what to do about it. STATUS_SUCCESS when it is open.
exit_status open_session(const broker_address &address, const std::vector<std::string> &filters,
                         message_handler handler);

// Says on standard error that no daemon has announced itself on this broker.
exit_status report_no_daemon(const broker_address &address);

// Says on standard error that the session is lost.
exit_status report_lost(const broker_address &address, const std::string &error);

// The one node that text means: an error on standard error and null when there is none or, with a number that several
// cards share, more than one.
const node *resolve_node(const network &net, const std::string &text);
