#include "process.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

int daemon_main(int argc, char **argv);

// All variables of the daemon's modules; the linker script gathers them in one section.
extern uintptr_t state_start[] asm("__start_diag_state");
extern uintptr_t state_end[] asm("__stop_diag_state");

namespace sim
{

namespace
{

constexpr size_t UNUSED_DESCRIPTORS = 32; // numbers rest a while, so that their use after a close is seen
constexpr size_t RECEIVE_QUEUE = 256;     // datagrams that the kernel keeps for a process that doesn't read

process *loaded; // whose variables are in the section
process *active; // whose code runs

size_t count_words()
{
    return static_cast<size_t>(state_end - state_start);
}

#ifdef __SANITIZE_ADDRESS__
// Word by word: memcpy, which an optimiser would make of it, would meet the sanitizer's guards between the variables.
__attribute__((no_sanitize("address"))) void copy_words(const uintptr_t *from, volatile uintptr_t *to)
{
    const size_t count = count_words();
    for (size_t i = 0; i < count; i++) {
        to[i] = from[i];
    }
}
#else
void copy_words(const uintptr_t *from, uintptr_t *to)
{
    memcpy(to, from, count_words() * sizeof(uintptr_t));
}
#endif

// The variables as they are when the program starts.
const std::vector<uintptr_t> &fresh_variables()
{
    static const std::vector<uintptr_t> fresh = [] {
        std::vector<uintptr_t> copy(count_words());
        copy_words(state_start, copy.data());
        return copy;
    }();
    return fresh;
}

} // namespace

process &process::running()
{
    return *active;
}

void process::load()
{
    if (loaded == this) {
        return;
    }
    if (loaded != nullptr) {
        copy_words(state_start, loaded->variables_.data());
    }
    copy_words(variables_.data(), state_start);
    loaded = this;
}

void process::start(std::vector<std::string> options)
{
    kill();
    variables_ = fresh_variables();
    starts_++;
    options_ = std::move(options);
    is_alive_ = true;
    is_serving_ = false;
    is_signalled_ = false;
    sigterm_handler_ = nullptr;
    srand(1);
    fiber_.prepare(run_program, this);
    run();
}

void process::run_program(void *self)
{
    auto *const started = static_cast<process *>(self);
    char name[] = "diag";
    std::vector<char *> &arguments = started->arguments_;
    arguments = {name};
    for (std::string &option : started->options_) {
        arguments.push_back(option.data());
    }
    arguments.push_back(nullptr);
    optind = 0; // the C library's own variables: reads the options from the start, and silently
    opterr = 0;
    started->status_ = daemon_main(static_cast<int>(arguments.size()) - 1, arguments.data());
}

void process::run()
{
    if (!is_alive_ || is_frozen_) {
        return;
    }
    load();
    active = this;
    const bool goes_on = fiber_.enter();
    active = nullptr;
    if (!goes_on || !is_alive_) {
        end();
    }
}

// The session goes first; what the process leaves behind stays until the host has looked at it.
void process::end()
{
    is_alive_ = false;
    if (client_ != nullptr) {
        drop_client(client_);
        client_ = nullptr;
    }
    const uint32_t start = starts_;
    host_.ended(status_);
    if (start == starts_) {
        kill();
    }
}

void process::call(const std::function<void()> &what)
{
    load();
    active = this;
    what();
    active = nullptr;
    run();
}

void process::exit(int status)
{
    // The fiber is not entered again: what is on its stack is forgotten with it.
    status_ = status;
    is_alive_ = false;
    for (;;) {
        fiber_.leave();
    }
}

void process::kill()
{
    is_alive_ = false;
    is_frozen_ = false;
    if (loaded == this) {
        loaded = nullptr;
    }
    if (client_ != nullptr) {
        drop_client(client_);
        client_ = nullptr;
    }
    memory_.free_all();
    descriptors_.clear();
    closed_.clear();
    ready_.clear();
    datagrams_.clear();
    socket_ = {};
}

void process::send_sigterm()
{
    is_signalled_ = true;
    run();
}

bool process::take_signal()
{
    if (!is_signalled_) {
        return false;
    }
    is_signalled_ = false;
    if (sigterm_handler_ != nullptr) {
        sigterm_handler_(SIGTERM);
    }
    return true;
}

void process::set_frozen(bool is_frozen)
{
    is_frozen_ = is_frozen && is_alive_;
    run();
}

void process::receive(const datagram &received)
{
    const auto socket = std::ranges::find(descriptors_, file_kind::DATAGRAMS, &descriptor::kind);
    if (!is_alive_ || socket == descriptors_.end() || datagrams_.size() >= RECEIVE_QUEUE) {
        return;
    }
    datagrams_.push_back(received);
    mark_ready(static_cast<int>(socket - descriptors_.begin()) + FIRST_DESCRIPTOR);
    run();
}

bool process::fails(system_call call)
{
    const int error = host_.failure_of(call);
    if (error == 0) {
        return false;
    }
    errno = error;
    return true;
}

size_t process::count_descriptors() const
{
    return static_cast<size_t>(std::ranges::count_if(
        descriptors_, [](const descriptor &each) { return each.kind != file_kind::CLOSED; }));
}

int process::find_unwatched() const
{
    const auto found = std::ranges::find_if(descriptors_, [](const descriptor &each) {
        return each.kind != file_kind::CLOSED && each.kind != file_kind::EPOLL && !each.is_watched;
    });
    return found == descriptors_.end() ? -1
                                       : static_cast<int>(found - descriptors_.begin()) + FIRST_DESCRIPTOR;
}

size_t process::find_leak()
{
    if (loaded == this) {
        copy_words(state_start, variables_.data());
    }
    return memory_.find_leak(variables_);
}

int process::open(const descriptor &opened)
{
    if (closed_.size() <= UNUSED_DESCRIPTORS) {
        descriptors_.push_back(opened);
        return static_cast<int>(descriptors_.size()) - 1 + FIRST_DESCRIPTOR;
    }
    const int fd = closed_.front();
    closed_.pop_front();
    descriptor &reused = descriptors_[static_cast<size_t>(fd - FIRST_DESCRIPTOR)];
    const uint32_t armed = reused.armed;
    reused = opened;
    reused.armed = armed + 1;
    return fd;
}

descriptor *process::find(int fd)
{
    const auto index = static_cast<size_t>(fd - FIRST_DESCRIPTOR);
    if (fd < FIRST_DESCRIPTOR || index >= descriptors_.size() ||
        descriptors_[index].kind == file_kind::CLOSED) {
        if (fd != -1) {
            host_.misuse("a descriptor is used that is not open");
        }
        errno = EBADF;
        return nullptr;
    }
    return &descriptors_[index];
}

void process::close(int fd)
{
    descriptor &file = *find(fd);
    if (file.kind == file_kind::DATAGRAMS) {
        datagrams_.clear();
        socket_ = {};
    }
    const uint32_t armed = file.armed;
    file = {};
    file.armed = armed + 1; // what it had planned is obsolete
    std::erase(ready_, fd);
    closed_.push_back(fd);
}

void process::arm(int fd, nanoseconds expiry, nanoseconds interval)
{
    descriptor &timer = *find(fd);
    timer.expiry = expiry;
    timer.interval = interval;
    timer.armed++;
    if (expiry != NEVER) {
        host_.clock().at<&process::expire>(expiry, *this,
                                           (uint64_t{starts_ & 0xFFFFU} << 48) |
                                               (static_cast<uint64_t>(fd & 0xFFFF) << 32) | timer.armed);
    }
}

void process::expire(uint64_t start_fd_armed)
{
    const auto fd = static_cast<int>((start_fd_armed >> 32) & 0xFFFFU);
    const auto index = static_cast<size_t>(fd - FIRST_DESCRIPTOR);
    if ((start_fd_armed >> 48) != (starts_ & 0xFFFFU) || index >= descriptors_.size() ||
        descriptors_[index].armed != static_cast<uint32_t>(start_fd_armed) || !is_alive_) {
        return;
    }
    mark_ready(fd);
    run();
}

bool process::is_readable(const descriptor &file) const
{
    if (file.has_error) {
        return true;
    }
    switch (file.kind) {
    case file_kind::TIMER:
        return file.expiry <= host_.clock().now();
    case file_kind::DATAGRAMS:
        return !datagrams_.empty();
    case file_kind::SESSION:
        return client_ != nullptr && has_input(*client_);
    default:
        return false;
    }
}

void process::mark_ready(int fd)
{
    descriptor &file = *find(fd);
    if (file.is_watched && !file.is_queued) {
        file.is_queued = true;
        ready_.push_back(fd);
    }
}

// The kernel serves the ready descriptors in turn, each as long as it has something to be read.
int process::take_ready()
{
    while (!ready_.empty()) {
        const int fd = ready_.front();
        ready_.pop_front();
        descriptor &file = *find(fd);
        file.is_queued = false;
        if (is_readable(file)) {
            mark_ready(fd);
            return fd;
        }
    }
    return -1;
}

void process::attach_session(int fd, mosquitto *client)
{
    client_ = client;
    if (client != nullptr && fd != -1) {
        mark_ready(fd);
    }
}

void process::wait()
{
    fiber_.leave();
}

void process::wake(uint64_t start)
{
    if (start == starts_) {
        run();
    }
}

void process::wait_until(nanoseconds end)
{
    host_.clock().at<&process::wake>(end, *this, starts_);
    wait();
}

int process::rand()
{
    return static_cast<int>(random_.next() >> 33);
}

} // namespace sim
