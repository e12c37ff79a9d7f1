// Timers on the monotonic clock, watched by the event loop. What fails is logged for the module that calls.
#pragma once

#include "common/lumlog.h"
#include "common/unique_fd.h"
#include "event.h"

#include <cstdint>
#include <ctime>

// How messages name a timer: "couldn't create TIMER timer" (or arm, clear), "couldn't add EVENT event".
struct timer_names {
    const char *timer;
    const char *event;
};

// Creates a timer on the monotonic clock, arms it and has it watched. 0, or -1 after logging why; the timer
// is then open where it could be created, and not watched. A timer that stays is released by its owner: the
// loop hands its descriptor to the callback.
[[nodiscard]] int timer_start(unique_fd &timer, const timer_names &names, const itimerspec &expiry,
                              event_callback callback, void *arg, log_place caller);

// Arms a timer anew. 0, or -1 after logging why.
[[nodiscard]] int timer_arm(int fd, const timer_names &names, const itimerspec &expiry, log_place caller);

// Takes a timer, if it is open, out of the loop and closes it: a start-up's way back from a failure, be it
// that of timer_start, after which the loop may log that it does not watch the timer.
void timer_stop(unique_fd &timer);

// The first step of a timer's callback: checks events and takes the expiry. 0, or -1 after logging why.
[[nodiscard]] int timer_take(int fd, uint32_t events, const timer_names &names, log_place caller);
