// One run in a process of its own: the simulated daemons use this program's own variables, so a second run needs a
// fresh process, and a daemon that crashes takes only its run along.
#pragma once

#include "world.h"

#include <functional>
#include <string>

namespace sim
{

struct outcome {
    enum class kind { PROGRESS, FINISHED, VIOLATED, CRASHED } result;
    nanoseconds now;
    tally count;
    violation found; // when violated
    int status;      // of the process, when crashed
};

// A run under way.
struct started_run {
    int process;
    int reports; // descriptor to read outcomes from
};

// trace: a file's name, empty for none.
started_run start_run(const settings &chosen, const std::vector<planned> &plan, const std::string &trace);
// The next outcome; after any but PROGRESS the run is over and its process gone.
outcome next_outcome(const started_run &run);
void stop_run(const started_run &run);
// Runs to the end, or for this time at most: then the outcome is PROGRESS.
outcome complete_run(const settings &chosen, const std::vector<planned> &plan, const std::string &trace,
                     std::chrono::milliseconds limit = minutes(10));

// A short part of the plan that still violates the same invariant, found within this many seconds of real time.
std::vector<planned> shrink(const settings &chosen, std::vector<planned> plan, const violation &found,
                            int limit_seconds);

} // namespace sim
