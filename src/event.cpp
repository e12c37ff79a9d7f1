#include "event.h"

#include "common/lumlog.h"
#include "common/record_list.h"
#include "utils.h"

#include <sys/epoll.h>

#include <cerrno>
#include <csignal>
#include <memory>
#include <new>
#include <utility>

namespace
{

constexpr const char *log_source = "event";

struct event {
    int fd;
    event_callback callback;
    void *arg;
    event *prev;
    event *next;
};

int event_loop_fd = -1;
record_list<event> events_list;
volatile sig_atomic_t sigterm_received;

event *find_event(int fd)
{
    for (event &record : events_list) {
        if (record.fd == fd) {
            return &record;
        }
    }
    return nullptr;
}

} // namespace

int event_init()
{
    if (event_loop_fd != -1) {
        return log_failure("event loop is already initialized");
    }
    event_loop_fd = epoll_create1(EPOLL_CLOEXEC);
    if (event_loop_fd == -1) {
        return log_failure("couldn't create epoll instance (errno %d)", errno);
    }
    return 0;
}

int event_add(int fd, uint32_t events, event_callback callback, void *arg)
{
    if (check_arguments(callback != nullptr, log_source) == -1) {
        return -1;
    }
    if (event_loop_fd == -1) {
        return log_failure("event loop is not initialized");
    }
    std::unique_ptr<event> added(new (std::nothrow) event{
        .fd = fd, .callback = callback, .arg = arg, .prev = nullptr, .next = nullptr});
    if (!added) {
        return log_failure("couldn't allocate new event");
    }
    epoll_event registration{};
    registration.events = events;
    registration.data.ptr = added.get();
    if (epoll_ctl(event_loop_fd, EPOLL_CTL_ADD, fd, &registration) == -1) {
        return log_failure("couldn't add new event (errno %d)", errno);
    }
    events_list.add(std::move(added));
    return 0;
}

int event_remove(int fd)
{
    if (event_loop_fd == -1) {
        return log_failure("event loop is not initialized");
    }
    event *const record = find_event(fd);
    if (record == nullptr) {
        return log_failure("no event registered for file descriptor %d", fd);
    }
    events_list.remove(*record);
    // ENOENT: the descriptor was closed meanwhile, and its number now belongs to another file.
    if (epoll_ctl(event_loop_fd, EPOLL_CTL_DEL, fd, nullptr) == -1 && errno != ENOENT) {
        return log_failure("couldn't remove event (errno %d)", errno);
    }
    return 0;
}

int event_loop()
{
    if (event_loop_fd == -1) {
        return log_failure("event loop is not initialized");
    }
    while (!is_terminated()) {
        // One event at a time: a callback may free any record, also of a descriptor that is ready too.
        epoll_event fired{};
        const int count = epoll_wait(event_loop_fd, &fired, 1, -1);
        if (count == -1) {
            if (errno == EINTR) {
                continue;
            }
            return log_failure("error while polling events (errno %d)", errno);
        }
        if (count == 0) {
            log_error("epoll_wait unexpectedly timed out");
            continue;
        }
        const event *const record = static_cast<const event *>(fired.data.ptr);
        record->callback(record->fd, fired.events, record->arg);
    }
    return 0;
}

void sigterm_handler(int)
{
    sigterm_received = 1;
    terminate();
}

bool is_sigterm_received()
{
    return sigterm_received == 1;
}
