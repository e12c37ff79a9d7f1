// The event loop: one epoll instance, one callback at a time, everything on one thread.
#pragma once

#include "common/lumlog.h"

#include <sys/epoll.h>

#include <cstdint>

// fd: the descriptor that fired; events: what epoll_wait reported; arg: as given to event_add. A callback
// treats any event but EPOLLIN as fatal, and a timer's callback first reads its 8-byte expiry count or sets
// the timer anew.
using event_callback = void (*)(int fd, uint32_t events, void *arg);

// Creates the epoll instance. 0, or -1 (also when called twice).
[[nodiscard]] int event_init();

// Watches fd, which stays the caller's, for the given epoll events. 0, or -1 with nothing registered.
[[nodiscard]] int event_add(int fd, uint32_t events, event_callback callback, void *arg);

// Forgets fd without closing it; callbacks may remove any descriptor, their own included. 0, or -1.
[[nodiscard]] int event_remove(int fd);

// The first step of every callback: 0, or -1 after logging that there is another event than EPOLLIN.
[[nodiscard]] inline int event_check(uint32_t events, log_place caller)
{
    return events == EPOLLIN ? 0 : log_failure_at(caller, "unexpected event(s) on file descriptor");
}

// Runs callbacks until terminate() is called (0), or until polling fails (-1).
[[nodiscard]] int event_loop();

// Signal handler that main installs for SIGTERM: notes the signal and calls terminate().
void sigterm_handler(int signum);

// Whether SIGTERM has come: the one case in which the process exits with status 0.
bool is_sigterm_received();
