// simulate: a panel network of real daemons in virtual time, under everything that may happen to it.
#include "run.h"

#include <getopt.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <thread>

using namespace sim;

namespace
{

constexpr int SHRINK_SECONDS = 60;
constexpr size_t SHOWN_EVENTS = 40;

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

struct options {
    settings run;
    uint64_t first_seed = 1;
    uint64_t last_seed = 1;
    unsigned jobs = std::max(std::thread::hardware_concurrency(), 1U);
    std::string trace;
    bool shrinks = true;
    bool is_verbose = false;
};

using real_clock = std::chrono::steady_clock;

double in_seconds(nanoseconds time)
{
    return static_cast<double>(time.count()) / 1e9;
}

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

options parse_options(int argc, char **argv)
{
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

//
// What is shown
//

void add(tally &sum, const tally &added)
{
    auto *const to = reinterpret_cast<uint64_t *>(&sum);
    const auto *const from = reinterpret_cast<const uint64_t *>(&added);
    for (size_t i = 0; i < sizeof(tally) / sizeof(uint64_t); i++) {
        to[i] += from[i];
    }
}

void show_table(const tally &sum, double virtual_hours, size_t nodes, double real_seconds)
{
    const struct {
        const char *name;
        uint64_t count;
    } rows[] = {{"events", sum.events},
                {"datagrams sent", sum.datagrams},
                {"  received", sum.received},
                {"  lost on purpose", sum.lost},
                {"messages published by daemons", sum.publications},
                {"facts published by cards", sum.facts},
                {"requests of clients", sum.requests},
                {"  answered", sum.answers},
                {"messages relayed to subscribers", sum.relayed},
                {"daemons started", sum.daemon_starts},
                {"daemons that ended", sum.daemon_ends},
                {"lines logged", sum.log_lines},
                {"looks at everything", sum.checks}};
    printf("\n%-34s %14.2f\n%-34s %14.0f\n", "hours of the network", virtual_hours, "hours of nodes",
           virtual_hours * static_cast<double>(nodes));
    for (const auto &row : rows) {
        printf("%-34s %14" PRIu64 "\n", row.name, row.count);
    }
    printf("happened to it\n");
    for (size_t i = 0; i < HAPPENINGS; i++) {
        printf("  %-32s %14" PRIu64 "\n", name_of(static_cast<happening>(i)), sum.happened[i]);
    }
    printf("%-34s %14.1f\n%-34s %14.0f\n", "seconds", real_seconds, "events a second",
           static_cast<double>(sum.events) / std::max(real_seconds, 1e-3));
}

bool concerns(const std::string &line, const violation &found)
{
    const size_t at = line.find("node ");
    if (at == std::string::npos) {
        return false;
    }
    const long number = strtol(line.c_str() + at + 5, nullptr, 10);
    return std::ranges::any_of(found.nodes, [&](int64_t node) { return node + 1 == number; });
}

// The last events of the nodes concerned, from a trace of the run.
void show_last_events(settings chosen, const std::vector<planned> &plan, const violation &found)
{
    const std::string path =
        std::filesystem::temp_directory_path() / ("simulate-" + std::to_string(getpid()) + ".trace");
    chosen.trace_from = found.when - minutes(2);
    complete_run(chosen, plan, path);
    std::ifstream trace(path);
    std::deque<std::string> last;
    for (std::string line; std::getline(trace, line);) {
        if (concerns(line, found)) {
            last.push_back(line.substr(0, 180));
            if (last.size() > SHOWN_EVENTS) {
                last.pop_front();
            }
        }
    }
    unlink(path.c_str());
    printf("  the last events there:\n");
    for (const std::string &line : last) {
        printf("    %s\n", line.c_str());
    }
}

void show_violation(const options &chosen, uint64_t seed, const outcome &last)
{
    settings run = chosen.run;
    run.seed = seed;
    const violation &found = last.found;
    if (last.result == outcome::kind::CRASHED) {
        printf("\nCRASH of seed %" PRIu64 " (wait status %d)\n", seed, last.status);
    } else {
        printf("\nVIOLATION of %s\n  seed %" PRIu64 ", %.9f s of virtual time, node %" PRId64,
               found.invariant, seed, in_seconds(found.when), found.nodes[0] + 1);
        if (found.nodes[1] >= 0) {
            printf(" and node %" PRId64, found.nodes[1] + 1);
        }
        printf("\n  %s\n", found.text);
    }
    printf("  again: simulate --seed %" PRIu64 " --nodes %zu --hours %g%s --trace FILE\n", seed, run.nodes,
           in_seconds(run.length) / 3600,
           run.shape == topology::RING   ? ""
           : run.shape == topology::STAR ? " --topology star"
                                         : " --topology double-ring");
    std::vector<planned> plan = make_plan(seed, run.nodes, run.length);
    if (chosen.shrinks && last.result == outcome::kind::VIOLATED) {
        const size_t before = plan.size();
        plan = shrink(run, plan, found, SHRINK_SECONDS);
        printf("  of %zu planned things it needs these %zu:\n", before, plan.size());
        for (const planned &item : plan) {
            printf("    %s\n", describe(item).c_str());
        }
    }
    if (last.result == outcome::kind::VIOLATED) {
        show_last_events(run, plan, found);
    }
    fflush(stdout);
}

//
// Runs
//

class runner
{
public:
    explicit runner(const options &chosen) : options_(chosen), next_seed_(chosen.first_seed) {}

    bool run_all()
    {
        while (is_sound_ && (next_seed_ <= options_.last_seed || !running_.empty())) {
            while (running_.size() < options_.jobs && next_seed_ <= options_.last_seed) {
                start(next_seed_++);
            }
            take_reports();
        }
        for (const auto &[seed, run] : running_) {
            stop_run(run);
        }
        const double hours = in_seconds(virtual_time_) / 3600;
        show_table(sum_, hours, options_.run.nodes, real_seconds());
        printf("%s\n", is_sound_ ? "all holds" : "VIOLATION");
        return is_sound_;
    }

private:
    double real_seconds() const { return std::chrono::duration<double>(real_clock::now() - start_).count(); }

    void start(uint64_t seed)
    {
        settings run = options_.run;
        run.seed = seed;
        const std::vector<planned> plan = make_plan(seed, run.nodes, run.length);
        if (options_.is_verbose) {
            printf("seed %" PRIu64 ":\n", seed);
            for (const planned &item : plan) {
                printf("  %s\n", describe(item).c_str());
            }
        }
        running_[seed] = start_run(run, plan, options_.trace);
    }

    void take_reports()
    {
        std::vector<pollfd> files;
        std::vector<uint64_t> seeds;
        for (const auto &[seed, run] : running_) {
            files.push_back({.fd = run.reports, .events = POLLIN, .revents = 0});
            seeds.push_back(seed);
        }
        poll(files.data(), files.size(), -1);
        for (size_t i = 0; i < files.size(); i++) {
            if (files[i].revents != 0) {
                take(seeds[i], next_outcome(running_.at(seeds[i])));
            }
        }
    }

    void take(uint64_t seed, const outcome &last)
    {
        if (last.result == outcome::kind::PROGRESS) {
            show_progress(seed, last);
            return;
        }
        running_.erase(seed);
        add(sum_, last.count);
        virtual_time_ += last.now;
        if (last.result != outcome::kind::FINISHED && is_sound_) {
            is_sound_ = false;
            show_violation(options_, seed, last);
        }
    }

    void show_progress(uint64_t seed, const outcome &so_far)
    {
        static const bool is_terminal = isatty(STDERR_FILENO) != 0;
        if (!is_terminal || real_clock::now() - shown_ < std::chrono::milliseconds(500)) {
            return;
        }
        shown_ = real_clock::now();
        const double done = in_seconds(virtual_time_ + so_far.now);
        fprintf(stderr,
                "\rseed %" PRIu64 ": %.2f h of %.2f h, %.0f virtual seconds a second, %.1f million events ",
                seed, in_seconds(so_far.now) / 3600, in_seconds(options_.run.length) / 3600,
                done / real_seconds(), static_cast<double>(sum_.events + so_far.count.events) / 1e6);
    }

    const options &options_;
    uint64_t next_seed_;
    std::map<uint64_t, started_run> running_;
    tally sum_{};
    nanoseconds virtual_time_{};
    bool is_sound_ = true;
    real_clock::time_point start_ = real_clock::now();
    real_clock::time_point shown_ = start_;
};

} // namespace

int main(int argc, char **argv)
{
    const options chosen = parse_options(argc, argv);
    return runner(chosen).run_all() ? EXIT_SUCCESS : EXIT_FAILURE;
}
