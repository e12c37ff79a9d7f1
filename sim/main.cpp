// simulate: a panel network of real daemons in virtual time, under everything that may happen to it.
#include "options.h"
#include "report.h"
#include "run.h"

#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <map>

using namespace sim;

namespace
{

using real_clock = std::chrono::steady_clock;

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
        show_table(sum_, virtual_time_, options_.run.nodes, real_seconds());
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
