#include "event.h"

#include "log_capture.h"
#include "process.h"
#include "utils.h"

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace
{

struct call {
    int fd;
    uint32_t events;
    void *arg;
};
std::vector<call> calls;

int ready_fd()
{
    return eventfd(1, EFD_CLOEXEC);
}

void note_and_terminate(int fd, uint32_t events, void *arg)
{
    calls.push_back({fd, events, arg});
    terminate();
}

void fail(int fd, uint32_t, void *)
{
    ADD_FAILURE() << "descriptor " << fd << " is not watched any more";
    terminate();
}

} // namespace

TEST(event, nothing_works_before_init_and_init_works_once)
{
    EXPECT_EQ(event_add(0, EPOLLIN, fail, nullptr), -1);
    EXPECT_EQ(event_remove(0), -1);
    EXPECT_EQ(event_loop(), -1);
    EXPECT_EQ(event_init(), 0);
    EXPECT_EQ(event_init(), -1);
    EXPECT_EQ(logged_messages(),
              (log_messages{"event loop is not initialized", "event loop is not initialized",
                            "event loop is not initialized", "event loop is already initialized"}));
}

TEST(event, removal_forgets_the_record_whatever_became_of_the_descriptor)
{
    ASSERT_EQ(event_init(), 0);
    const int removed = ready_fd();
    const int replaced = ready_fd();
    const int closed = ready_fd();
    for (const int fd : {removed, replaced, closed}) {
        ASSERT_EQ(event_add(fd, EPOLLIN, fail, nullptr), 0);
    }
    ASSERT_EQ(dup2(ready_fd(), replaced), replaced);
    close(closed);

    EXPECT_EQ(event_remove(removed), 0);
    EXPECT_EQ(event_remove(replaced), 0);
    EXPECT_TRUE(logged_lines().empty());
    EXPECT_EQ(event_remove(closed), -1);
    EXPECT_EQ(event_remove(removed), -1);
    EXPECT_EQ(event_remove(replaced), -1);
    EXPECT_EQ(event_remove(closed), -1);
    const auto not_registered = [](int fd) {
        return "no event registered for file descriptor " + std::to_string(fd);
    };
    EXPECT_EQ(logged_messages(), (log_messages{"couldn't remove event (errno 9)", not_registered(removed),
                                               not_registered(replaced), not_registered(closed)}));
}

TEST(event, no_callback_runs_after_terminate)
{
    ASSERT_EQ(event_init(), 0);
    int args[2];
    const int fds[] = {ready_fd(), ready_fd()};
    for (size_t i = 0; i < 2; i++) {
        ASSERT_EQ(event_add(fds[i], EPOLLIN, note_and_terminate, &args[i]), 0);
    }
    EXPECT_EQ(event_loop(), 0);
    ASSERT_EQ(calls.size(), 1U);
    const size_t i = calls[0].fd == fds[0] ? 0 : 1;
    EXPECT_EQ(calls[0].fd, fds[i]);
    EXPECT_EQ(calls[0].arg, &args[i]);
    EXPECT_EQ(calls[0].events, EPOLLIN);
    EXPECT_EQ(event_loop(), 0);
    EXPECT_EQ(calls.size(), 1U);
    EXPECT_FALSE(is_sigterm_received());
}

TEST(event, callback_may_remove_itself_and_another_ready_descriptor)
{
    static int fds[2];
    ASSERT_EQ(event_init(), 0);
    const auto remove_both = [](int, uint32_t, void *) {
        for (const int fd : fds) {
            EXPECT_EQ(event_remove(fd), 0);
        }
        EXPECT_EQ(event_add(ready_fd(), EPOLLIN, note_and_terminate, nullptr), 0);
    };
    for (int &fd : fds) {
        fd = ready_fd();
        ASSERT_EQ(event_add(fd, EPOLLIN, remove_both, nullptr), 0);
    }
    EXPECT_EQ(event_loop(), 0);
    EXPECT_EQ(calls.size(), 1U);
    EXPECT_TRUE(logged_lines().empty());
}

TEST(event, signal_ends_a_wait_and_is_remembered)
{
    ASSERT_EQ(event_init(), 0);
    interrupt_calls(sigterm_handler);
    EXPECT_EQ(event_loop(), 0);
    EXPECT_TRUE(is_sigterm_received());
    EXPECT_EQ(is_terminated(), 1);
    EXPECT_TRUE(logged_lines().empty());
}
