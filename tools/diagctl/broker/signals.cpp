#include "broker/signals.h"

#include "failure.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

namespace
{

sigset_t watched_signals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGWINCH, SIGTSTP}) {
        sigaddset(&signals, number);
    }
    return signals;
}

} // namespace

signal_input::signal_input()
{
    signal(SIGPIPE, SIG_IGN);
    const sigset_t signals = watched_signals();
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    fd = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (fd == -1) {
        throw failure(STATUS_FAILURE, std::string("couldn't watch for signals: ") + strerror(errno));
    }
}

signal_input::~signal_input()
{
    const sigset_t signals = watched_signals();
    sigprocmask(SIG_UNBLOCK, &signals, nullptr);
    close(fd);
}

int signal_input::take() const
{
    signalfd_siginfo info{};
    return read(fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info)
               ? static_cast<int>(info.ssi_signo)
               : 0;
}
