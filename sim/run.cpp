#include "run.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <system_error>

namespace sim
{

namespace
{

int report_fd = -1; // of the process that runs
FILE *trace_file;

void send_report(const outcome &sent)
{
    if (write(report_fd, &sent, sizeof sent) != sizeof sent) {
        _exit(EXIT_FAILURE); // whoever wanted to know has gone
    }
}

void report_progress(nanoseconds now, const tally &so_far)
{
    send_report({.result = outcome::kind::PROGRESS, .now = now, .count = so_far, .found = {}, .status = 0});
}

void end_run(const outcome &sent)
{
    if (trace_file != nullptr) {
        fclose(trace_file);
    }
    send_report(sent);
    _exit(EXIT_SUCCESS);
}

void report_violation(const violation &found, const tally &so_far)
{
    end_run(
        {.result = outcome::kind::VIOLATED, .now = found.when, .count = so_far, .found = found, .status = 0});
}

[[noreturn]] void run_here(const settings &chosen, const std::vector<planned> &plan, const std::string &trace)
{
    if (!trace.empty()) {
        trace_file = fopen(trace.c_str(), "we");
        if (trace_file == nullptr) {
            perror(trace.c_str());
            _exit(EXIT_FAILURE);
        }
    }
    world simulated(chosen, trace_file, {report_progress, report_violation});
    simulated.run(plan);
    end_run({.result = outcome::kind::FINISHED,
             .now = simulated.clock().now(),
             .count = simulated.count(),
             .found = {},
             .status = 0});
    exit(EXIT_SUCCESS);
}

[[noreturn]] void give_up(const char *what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

} // namespace

started_run start_run(const settings &chosen, const std::vector<planned> &plan, const std::string &trace)
{
    int ends[2];
    if (pipe(ends) == -1) {
        give_up("pipe");
    }
    fflush(nullptr);
    const int process = fork();
    if (process == -1) {
        give_up("fork");
    }
    if (process == 0) {
        close(ends[0]);
        report_fd = ends[1];
        run_here(chosen, plan, trace);
    }
    close(ends[1]);
    return {process, ends[0]};
}

outcome next_outcome(const started_run &run)
{
    outcome read_one{};
    if (read(run.reports, &read_one, sizeof read_one) != sizeof read_one) {
        read_one.result = outcome::kind::CRASHED;
    }
    if (read_one.result != outcome::kind::PROGRESS) {
        close(run.reports);
        waitpid(run.process, &read_one.status, 0);
    }
    return read_one;
}

outcome complete_run(const settings &chosen, const std::vector<planned> &plan, const std::string &trace,
                     std::chrono::milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    const started_run run = start_run(chosen, plan, trace);
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        pollfd reports = {.fd = run.reports, .events = POLLIN, .revents = 0};
        if (poll(&reports, 1, static_cast<int>(std::max(left.count(), std::chrono::milliseconds::rep{0}))) ==
            0) {
            stop_run(run);
            return {.result = outcome::kind::PROGRESS, .now = {}, .count = {}, .found = {}, .status = 0};
        }
        const outcome last = next_outcome(run);
        if (last.result != outcome::kind::PROGRESS) {
            return last;
        }
    }
}

void stop_run(const started_run &run)
{
    kill(run.process, SIGKILL);
    close(run.reports);
    waitpid(run.process, nullptr, 0);
}

} // namespace sim
