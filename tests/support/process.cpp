#include "process.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sched.h>
#include <sys/resource.h>
#include <sys/time.h>

bool enter_network_namespace()
{
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET) == -1) {
        perror("can't make a network namespace");
        return false;
    }
    return true;
}

no_descriptors::no_descriptors()
{
    if (getrlimit(RLIMIT_NOFILE, &saved_) == -1) {
        abort();
    }
    const rlimit none = {.rlim_cur = 0, .rlim_max = saved_.rlim_max};
    if (setrlimit(RLIMIT_NOFILE, &none) == -1) {
        abort();
    }
}

no_descriptors::~no_descriptors()
{
    if (setrlimit(RLIMIT_NOFILE, &saved_) == -1) {
        abort();
    }
}

void interrupt_calls(void (*handler)(int))
{
    struct sigaction action {
    };
    action.sa_handler = handler;
    const itimerval timer = {.it_interval = {0, 20000}, .it_value = {0, 20000}};
    if (sigaction(SIGALRM, &action, nullptr) == -1 || setitimer(ITIMER_REAL, &timer, nullptr) == -1) {
        abort();
    }
}
