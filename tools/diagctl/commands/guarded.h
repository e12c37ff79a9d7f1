// What activate and remote-download have in common: they change the state of whole nodes, named by number, and have to
// answer the daemon's challenge.
#pragma once

#include "commands/action.h"

struct guarded_options {
    std::vector<std::string> nodes; // as the user wrote them
    std::string words_file;
    bool is_yes = false;
};

void add_guarded_options(CLI::App &command, guarded_options &options);

// The whole of such a command: request_start is the request up to the node list, such as "activate;". question and done
// are completed with the nodes.
exit_status guarded_run(const broker_address &address, const guarded_options &options,
                        const std::string &request_start, const std::string &question,
                        const std::string &done);
