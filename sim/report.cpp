#include "report.h"

#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <string>

namespace sim
{

namespace
{

constexpr int SHRINK_SECONDS = 60;
constexpr size_t SHOWN_EVENTS = 40;

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

} // namespace

void add(tally &sum, const tally &added)
{
    auto *const to = reinterpret_cast<uint64_t *>(&sum);
    const auto *const from = reinterpret_cast<const uint64_t *>(&added);
    for (size_t i = 0; i < sizeof(tally) / sizeof(uint64_t); i++) {
        to[i] += from[i];
    }
}

void show_table(const tally &sum, nanoseconds virtual_time, size_t nodes, double real_seconds)
{
    const double virtual_hours = in_seconds(virtual_time) / 3600;
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

} // namespace sim
