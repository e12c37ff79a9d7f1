// The command line of simulate.
#pragma once

#include "world.h"

#include <algorithm>
#include <string>
#include <thread>

namespace sim
{

struct options {
    settings run;
    uint64_t first_seed = 1;
    uint64_t last_seed = 1;
    unsigned jobs = std::max(std::thread::hardware_concurrency(), 1U);
    std::string trace;
    bool shrinks = true;
    bool is_verbose = false;
};

// Ends the program when something is wrong with them.
options parse_options(int argc, char **argv);

} // namespace sim
