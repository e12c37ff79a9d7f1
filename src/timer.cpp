#include "timer.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>

int timer_start(unique_fd &timer, const timer_names &names, const itimerspec &expiry, event_callback callback,
                void *arg, log_place caller)
{
    timer.reset(timerfd_create(CLOCK_MONOTONIC, 0));
    if (!timer.is_open()) {
        return log_failure_at(caller, "couldn't create %s timer (errno %d)", names.timer, errno);
    }
    if (timer_arm(timer.get(), names, expiry, caller) == -1) {
        return -1;
    }
    if (event_add(timer.get(), EPOLLIN, callback, arg) == -1) {
        return log_failure_at(caller, "couldn't add %s event", names.event);
    }
    return 0;
}

int timer_arm(int fd, const timer_names &names, const itimerspec &expiry, log_place caller)
{
    if (timerfd_settime(fd, 0, &expiry, nullptr) == -1) {
        return log_failure_at(caller, "couldn't arm %s timer (errno %d)", names.timer, errno);
    }
    return 0;
}

void timer_stop(unique_fd &timer)
{
    if (timer.is_open()) {
        static_cast<void>(event_remove(timer.get()));
        timer.reset();
    }
}

int timer_take(int fd, uint32_t events, const timer_names &names, log_place caller)
{
    if (event_check(events, caller) == -1) {
        return -1;
    }
    uint64_t expiries;
    if (read(fd, &expiries, sizeof expiries) != sizeof expiries) {
        return log_failure_at(caller, "couldn't clear %s timer (errno %d)", names.timer, errno);
    }
    return 0;
}
