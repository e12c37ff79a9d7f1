// What the commands that look have in common: they learn the network from what the broker has retained, show a report of
// it once, or again with every change (--watch), as text or as JSON (--json).
#pragma once

#include "commands/context.h"
#include "screen/reports.h"

#include <nlohmann/json.hpp>

struct reading_options {
    bool is_json = false;
    bool is_watch = false;
};

void add_reading_options(command &added, context &common, reading_options &options);

// There are no records of a node's ports: says where they are.
[[noreturn]] void report_no_records(const network &net, const node &found, const std::string &what);

// How the terminal shows performance records.
pm_style current_pm_style();

// The same facts for people and for programs.
struct report {
    std::function<screen_lines()> lines;
    std::function<nlohmann::ordered_json()> object;
};

void print_report(const report &shown, const reading_options &options, int indent);
// Shows it again with every change; what is given lives as long as the view.
class live_view;
void prepare_watch(live_view &view, const report &shown, const reading_options &options);

// A command that looks while it runs.
class reading
{
public:
    reading(const context &common, const reading_options &options);

    network &net() { return model; }
    // From here on one node is meant, which stays when the network forgets it.
    void select(const std::string &reference);
    const node &selected() { return model.nodes[*kept]; }
    // Takes in pub/diag/<MAC>/<suffix> of it as well.
    void subscribe(const std::string &suffix);
    void wait(const std::function<bool()> &is_done, std::chrono::milliseconds limit);

    exit_status show(const report &shown);

private:
    exit_status watch(const report &shown);

    const reading_options &options;
    network model;
    std::function<void()> changed;
    std::optional<mac_address> kept;
    session broker;
};
