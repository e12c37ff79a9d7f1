#include "options.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace sim
{

namespace
{

constexpr const char *USAGE =
    "usage: simulate [--seed S | --seeds A..B] [--nodes N] [--hours H] [--topology ring|double-ring|star]\n"
    "                [--jobs J] [--trace FILE] [--no-shrink] [--verbose]\n"
    "\n"
    "Runs a network of N daemons (10) for H hours (1) of virtual time, with everything that the seed S (1)\n"
    "makes happen to it, and checks that what the documents promise holds. The same seed gives the same "
    "run.\n"
    "\n"
    "  --seeds A..B   one run for each of these seeds, J at a time (one a processor)\n"
    "  --trace FILE   all that happens, of a single run\n"
    "  --no-shrink    don't look for the fewest faults that a violation needs\n"
    "  --verbose      what is planned\n"
    "\n"
    "Exit status: 0 all holds, 1 a violation, 2 a wrong option.\n";

constexpr option OPTIONS[] = {{"seed", required_argument, nullptr, 's'},
                              {"seeds", required_argument, nullptr, 'S'},
                              {"nodes", required_argument, nullptr, 'n'},
                              {"hours", required_argument, nullptr, 'h'},
                              {"topology", required_argument, nullptr, 't'},
                              {"jobs", required_argument, nullptr, 'j'},
                              {"trace", required_argument, nullptr, 'T'},
                              {"no-shrink", no_argument, nullptr, 'x'},
                              {"verbose", no_argument, nullptr, 'v'},
                              {"help", no_argument, nullptr, '?'},
                              {nullptr, 0, nullptr, 0}};

[[noreturn]] void refuse(const char *option, const char *value)
{
    fprintf(stderr, "simulate: %s %s?\n%s", option, value, USAGE);
    exit(2);
}

double parse_number(const char *option, const char *text, double least, double most)
{
    char *end;
    const double number = strtod(text, &end);
    if (end == text || *end != '\0' || !(number >= least && number <= most)) {
        refuse(option, text);
    }
    return number;
}

void parse_seeds(const char *text, options &chosen)
{
    char *end;
    chosen.first_seed = strtoull(text, &end, 10);
    if (end == text || strncmp(end, "..", 2) != 0) {
        refuse("--seeds", text);
    }
    const char *const second = end + 2;
    chosen.last_seed = strtoull(second, &end, 10);
    if (end == second || *end != '\0' || chosen.last_seed < chosen.first_seed) {
        refuse("--seeds", text);
    }
}

topology parse_topology(const char *text)
{
    constexpr const char *NAMES[] = {"ring", "double-ring", "star"};
    for (size_t i = 0; i < std::size(NAMES); i++) {
        if (strcmp(text, NAMES[i]) == 0) {
            return static_cast<topology>(i);
        }
    }
    refuse("--topology", text);
}

} // namespace

options parse_options(int argc, char **argv)
{
    options chosen;
    for (int option; (option = getopt_long(argc, argv, "", OPTIONS, nullptr)) != -1;) {
        switch (option) {
        case 's':
            chosen.first_seed = chosen.last_seed =
                static_cast<uint64_t>(parse_number("--seed", optarg, 0, 1e15));
            break;
        case 'S':
            parse_seeds(optarg, chosen);
            break;
        case 'n':
            chosen.run.nodes = static_cast<size_t>(parse_number("--nodes", optarg, 2, 1000));
            break;
        case 'h':
            chosen.run.length =
                nanoseconds(static_cast<int64_t>(parse_number("--hours", optarg, 0.001, 1e5) * 3.6e12));
            break;
        case 't':
            chosen.run.shape = parse_topology(optarg);
            break;
        case 'j':
            chosen.jobs = static_cast<unsigned>(parse_number("--jobs", optarg, 1, 256));
            break;
        case 'T':
            chosen.trace = optarg;
            break;
        case 'x':
            chosen.shrinks = false;
            break;
        case 'v':
            chosen.is_verbose = true;
            break;
        default:
            fputs(USAGE, stderr);
            exit(2);
        }
    }
    if (optind != argc) {
        refuse("argument", argv[optind]);
    }
    return chosen;
}

} // namespace sim
