// What the reading commands have in common: they learn the network from what the broker has retained, show a report
// of it once, or again with every change (--watch), as text or as JSON (--json).
#pragma once

#include "command.h"
#include "reports.h"

struct reading_options {
    bool is_json = false;
    bool is_watch = false;
};

void add_reading_options(CLI::App &command, reading_options &options);

// Opens the session and takes in the network; STATUS_NO_BROKER when there is no broker, or no daemon on it. The
// caller closes the session unless that fails.
exit_status reading_open(const broker_address &address, network &net);

// Subscribes to one more filter and takes in what it has retained.
exit_status reading_add(const broker_address &address, const std::string &filter);

// Says on standard error that there are no records of a node's ports, and where they are.
exit_status report_no_records(const network &net, const node &found, const char *what);

// Shows what build makes of the network.
exit_status reading_run(const broker_address &address, const reading_options &options,
                        const std::function<report()> &build);

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
