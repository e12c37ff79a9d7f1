// What the reading commands have in common: they learn the network from what the broker has retained, show a report
// of it once, or again with every change (--watch), as text or as JSON (--json).
#pragma once

#include "commands/command.h"
#include "screen/reports.h"

struct reading_options {
    bool is_json = false;
    bool is_watch = false;
};

void add_reading_options(CLI::App &command, reading_options &options);

// Says on standard error that there are no records of a node's ports, and where they are.
exit_status report_no_records(const network &net, const node &found, const char *what);

// The whole of a command about the network: shows what build makes of it.
exit_status reading_of_network(const broker_address &address, const reading_options &options,
                               const std::function<report(const network &net)> &build);

// The whole of a command about one node: finds it, takes in pub/diag/<MAC>/<suffix> where suffix isn't empty, lets
// prepare wait for more or refuse, and shows what build makes of it.
struct node_reading {
    std::string reference; // as the user wrote it
    std::string suffix;
    std::function<exit_status(const network &net, const node &found)> prepare; // may be empty
    std::function<report(const network &net, const node &found)> build;
};
exit_status reading_of_node(const broker_address &address, const reading_options &options,
                            const node_reading &reading);
