// The event loop: one epoll instance, one callback at a time, everything on one thread.
#pragma once

#include "common/lumlog.h"
#include "common/unique_fd.h"

#include <cstdint>
#include <ctime>

// fd: the descriptor that fired; events: what epoll_wait reported; arg: as given to event_add. A callback
// treats any event but EPOLLIN as fatal, and a timer's callback first reads its 8-byte expiry count or sets
// the timer anew.
using event_callback = void (*)(int fd, uint32_t events, void *arg);

// Creates the epoll instance. 0, or -1 (also when called twice).
[[nodiscard]] int event_init();

// Watches fd, which stays the caller's, for the given epoll events. 0, or -1 with nothing registered.
[[nodiscard]] int event_add(int fd, uint32_t events, event_callback callback, void *arg);

// Forgets fd without closing it; callbacks may remove any descriptor, their own included. 0, or -1.
int event_remove(int fd);

// The first step of every callback: 0, or -1 after logging that the descriptor has another event than EPOLLIN.
[[nodiscard]] int event_check(uint32_t events, log_place caller);

// How messages name a timer: "couldn't create TIMER timer", arm and clear likewise, "couldn't add EVENT event".
struct timer_names {
    const char *timer;
    const char *event;
};

// Creates a timer on the monotonic clock, arms it and has it watched. 0, or -1 after logging why; the timer is then
// open where it could be created, and not watched. A timer that stays is released by its owner: the loop hands its
// descriptor to the callback.
[[nodiscard]] int timer_start(unique_fd &timer, const timer_names &names, const itimerspec &expiry,
                              event_callback callback, void *arg, log_place caller);

// Arms a timer anew. 0, or -1 after logging why.
[[nodiscard]] int timer_arm(int fd, const timer_names &names, const itimerspec &expiry, log_place caller);

// Takes a timer, if it is open, out of the loop and closes it: what a start-up undoes when a later step fails.
void timer_stop(unique_fd &timer);

// The first step of a timer's callback: checks the events and reads the count of expiries. 0, or -1 after logging why.
[[nodiscard]] int timer_take(int fd, uint32_t events, const timer_names &names, log_place caller);

// Runs callbacks until terminate() is called (0), or until polling fails (-1).
int event_loop();

// Signal handler that main installs for SIGTERM: notes the signal and calls terminate().
void sigterm_handler(int signum);

// Whether SIGTERM has come: the one case in which the process exits with status 0.
bool is_sigterm_received();
