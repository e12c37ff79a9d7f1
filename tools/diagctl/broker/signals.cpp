#include "broker/signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <initializer_list>

namespace
{

int signal_fd = -1;

}

int signals_open(bool with_terminal)
{
    signal(SIGPIPE, SIG_IGN);
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        sigaddset(&signals, number);
    }
    if (with_terminal) {
        sigaddset(&signals, SIGWINCH);
        sigaddset(&signals, SIGTSTP);
    }
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    signal_fd = signalfd(signal_fd, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    return signal_fd;
}

int signals_fd()
{
    return signal_fd;
}

int signals_take()
{
    signalfd_siginfo info{};
    return read(signal_fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info)
               ? static_cast<int>(info.ssi_signo)
               : 0;
}
