#include "platform.h"

#include "internal.h"
#include "log_capture.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <list>
#include <memory>
#include <new>
#include <semaphore>
#include <thread>

int diag_main(int argc, char **argv);

// What a size_t parameter looks like in the names of the allocation functions; set by the build.
#define ALLOCATION_NAME_TEXT(prefix) prefix SIZE_T_CODE "RKSt9nothrow_t"

extern "C" {
int __real_open(const char *path, int flags, ...);
FILE *__real_fopen(const char *path, const char *mode);
ssize_t __real_read(int fd, void *buffer, size_t size);
int __real_close(int fd);
tm *__real_gmtime(const time_t *time);
int __real_sigaction(int signum, const struct sigaction *action, struct sigaction *old);
}
void *real_new(size_t size, const std::nothrow_t &) noexcept asm(ALLOCATION_NAME_TEXT("__real__Znw"));
void *real_new_array(size_t size, const std::nothrow_t &) noexcept asm(ALLOCATION_NAME_TEXT("__real__Zna"));

namespace sim
{

using internal::wakeup;

namespace
{

constexpr int FIRST_DESCRIPTOR = 20000; // no descriptor of the kernel, so that nothing real is touched
constexpr unsigned MAX_CALLS_AT_ONE_TIME = 1'000'000;

struct descriptor {
    std::string kind;
    bool is_open = true;
    uint32_t injected_events = 0;
    std::string path; // of a file
    std::string content;
    size_t offset = 0;
    std::optional<duration> expiry; // of a timer
    duration first{};
    duration interval{};
    lines settings; // of a socket
    bool is_bound = false;
    std::deque<datagram> input;
};

struct watch {
    int fd;
    uint32_t events;
    epoll_data_t data;
};

// A failure, or an action to be run at a call.
struct scripted_call {
    failure what;
    std::function<void()> action;
    unsigned seen = 0;
};

struct platform_state {
    // The two sides' turns.
    std::thread daemon;
    std::binary_semaphore daemon_turn{0};
    std::binary_semaphore test_turn{0};
    bool is_running = false;
    std::optional<int> status;
    std::vector<std::string> arguments;

    duration now{};
    duration horizon{}; // until when the daemon may run
    duration wall_offset = std::chrono::seconds(1'700'000'000);
    unsigned calls_at_this_time = 0;

    std::list<scripted_call> script;
    bool expects_leak = false;
    std::map<int, struct sigaction> handlers;
    std::optional<int> pending_signal;

    std::map<int, descriptor> descriptors;
    int next_descriptor = FIRST_DESCRIPTOR;
    std::vector<watch> epoll_set; // the one reported longest ago first
    std::map<std::string, std::optional<std::string>> files = {
        {"/REVISION", "eos image:1.2.3\n"},
        {"/REVISION_PRIAPP", "priapp:4.5.6\n"},
        {"/proc/cmdline", "console=ttyS0 bootrev=\"eboot:7.8.9\"\n"},
        {CARD_ADDRESS_FILE, "0x05\n"},
    };
    std::map<std::string, bool> interfaces = {{"eth0", true}, {"fire", true}};
    std::vector<datagram> sent_datagrams;
};

platform_state &state()
{
    // Never destroyed: what runs at the process's exit opens files, the coverage counters for one.
    static platform_state &the_state = *new platform_state;
    return the_state;
}

thread_local bool is_daemon_thread = false;

// An open descriptor; null, with errno set, for any other.
descriptor *find_descriptor(int fd, const char *user)
{
    errno = EBADF;
    const auto found = state().descriptors.find(fd);
    if (found == state().descriptors.end()) {
        return nullptr;
    }
    if (!found->second.is_open) {
        ADD_FAILURE() << user << " of a " << found->second.kind << " descriptor after its close";
        return nullptr;
    }
    return &found->second;
}

bool is_expired(const descriptor &timer)
{
    return timer.expiry && *timer.expiry <= state().now;
}

uint32_t ready_events(const watch &watched)
{
    const descriptor &descriptor = state().descriptors.at(watched.fd);
    uint32_t ready = descriptor.injected_events;
    const bool is_mqtt = descriptor.kind == "mqtt";
    if (is_expired(descriptor) || !descriptor.input.empty() || (is_mqtt && internal::is_mqtt_readable())) {
        ready |= watched.events & EPOLLIN;
    }
    if (is_mqtt && internal::is_mqtt_writable()) {
        ready |= watched.events & EPOLLOUT;
    }
    return ready;
}

void pass_time(duration until)
{
    if (until > state().now) {
        state().now = until;
        state().calls_at_this_time = 0;
    }
}

// Gives the daemon its turn until it waits beyond the horizon or has ended.
void resume()
{
    platform_state &platform = state();
    if (!platform.is_running) {
        return;
    }
    platform.calls_at_this_time = 0;
    platform.daemon_turn.release();
    platform.test_turn.acquire();
    if (!platform.is_running) {
        platform.daemon.join();
    }
}

void count_call(const char *call)
{
    if (is_daemon_thread && ++state().calls_at_this_time > MAX_CALLS_AT_ONE_TIME) {
        fprintf(stderr, "the daemon spins in %s\n", call);
        abort();
    }
}

void check_that_all_is_watched()
{
    for (const auto &[fd, descriptor] : state().descriptors) {
        const bool is_watched = std::ranges::any_of(
            state().epoll_set, [number = fd](const watch &watched) { return watched.fd == number; });
        if (descriptor.is_open && descriptor.kind != "epoll" && !is_watched) {
            ADD_FAILURE() << "a " << descriptor.kind << " descriptor is open and not watched";
        }
    }
}

timespec to_timespec(duration time)
{
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
    return {.tv_sec = static_cast<time_t>(seconds.count()),
            .tv_nsec = static_cast<decltype(timespec::tv_nsec)>((time - seconds).count())};
}

duration to_duration(const timespec &time)
{
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

std::string address_text(const in_addr &address)
{
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &address, text, sizeof text);
}

} // namespace

namespace internal
{

const failure *find_failure(const char *call, std::string_view detail)
{
    count_call(call);
    auto &script = state().script;
    const auto concerns = [&](const scripted_call &scripted) {
        return scripted.what.call == call && (scripted.what.detail.empty() || scripted.what.detail == detail);
    };
    const auto hook = std::ranges::find_if(
        script, [&](const auto &scripted) { return scripted.action && concerns(scripted); });
    if (hook != script.end()) {
        const auto action = std::move(hook->action);
        script.erase(hook);
        action();
    }
    for (scripted_call &scripted : script) {
        const failure &what = scripted.what;
        if (!scripted.action && concerns(scripted) && ++scripted.seen >= what.first &&
            scripted.seen < what.first + what.count) {
            return &what;
        }
    }
    return nullptr;
}

std::optional<int> failing(const char *call, std::string_view detail)
{
    const failure *const failure = find_failure(call, detail);
    if (failure == nullptr) {
        return std::nullopt;
    }
    errno = failure->code;
    return failure->result;
}

wakeup wait(const std::function<bool()> &is_ready, const std::function<std::optional<duration>()> &deadline)
{
    platform_state &platform = state();
    if (!is_daemon_thread) {
        ADD_FAILURE() << "a function called by the test itself waits";
        return wakeup::SIGNAL;
    }
    for (;;) {
        if (platform.pending_signal) {
            const int signum = *std::exchange(platform.pending_signal, std::nullopt);
            platform.handlers.at(signum).sa_handler(signum);
            return wakeup::SIGNAL;
        }
        if (is_ready()) {
            return wakeup::READY;
        }
        const std::optional<duration> end = deadline();
        if (end && *end <= platform.now) {
            return wakeup::TIMEOUT;
        }
        if (end && *end <= platform.horizon) {
            pass_time(*end);
            continue;
        }
        platform.test_turn.release();
        platform.daemon_turn.acquire();
    }
}

int open_descriptor(const std::string &kind)
{
    const int fd = state().next_descriptor++;
    state().descriptors[fd].kind = kind;
    return fd;
}

void close_descriptor(int fd)
{
    state().descriptors.at(fd).is_open = false;
    std::erase_if(state().epoll_set, [fd](const watch &watched) { return watched.fd == fd; });
}

} // namespace internal

//
// Running the daemon
//

void start(std::function<int()> daemon)
{
    platform_state &platform = state();
    platform.is_running = true;
    platform.daemon = std::thread([daemon = std::move(daemon), &platform] {
        is_daemon_thread = true;
        platform.daemon_turn.acquire();
        platform.status = daemon();
        platform.is_running = false;
        platform.test_turn.release();
    });
    run();
}

void start_daemon(std::vector<std::string> options)
{
    std::vector<std::string> &arguments = state().arguments;
    arguments = std::move(options);
    arguments.insert(arguments.begin(), "diag");
    setenv("VEXA_CARD_ADDR_FILE", CARD_ADDRESS_FILE, 1);
    start([&arguments] {
        std::vector<char *> argv;
        for (std::string &argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        return diag_main(static_cast<int>(arguments.size()), argv.data());
    });
}

void start_node(int number)
{
    start_daemon({"-n", std::to_string(number)});
    ASSERT_TRUE(is_running());
    take_published();
    take_requests();
    take_datagrams();
}

void run()
{
    advance(0s);
}

void advance(duration time)
{
    if (is_daemon_thread) {
        return; // what an action of before() does is seen when the daemon goes on
    }
    platform_state &platform = state();
    platform.horizon = platform.now + time;
    resume();
    pass_time(platform.horizon);
}

void raise_signal(int signum)
{
    if (is_daemon_thread) {
        state().handlers.at(signum).sa_handler(signum);
    } else {
        state().pending_signal = signum;
        run();
    }
}

bool is_running()
{
    return state().is_running;
}

std::optional<int> exit_status()
{
    return state().status;
}

duration now()
{
    return state().now;
}

void set_wall_clock(time_t seconds)
{
    state().wall_offset = std::chrono::seconds(seconds) - state().now;
}

lines take_log()
{
    lines taken;
    for (const log_line &line : logged_lines()) {
        // "[ERROR] diag(1234) - broker:87 - text"
        const size_t source = line.text.find(" - ") + 3;
        const size_t colon = line.text.find(':', source);
        const size_t text = line.text.find(" - ", colon) + 3;
        taken.push_back(line.text.substr(source, colon - source) + ": " + line.text.substr(text));
    }
    clear_log();
    return taken;
}

//
// Failures
//

void fail(const failure &failure)
{
    state().script.push_back({.what = failure, .action = nullptr});
}

void expect_leak()
{
    state().expects_leak = true;
}

void before(const char *call, const std::string &detail, std::function<void()> action)
{
    state().script.push_back({.what = failure(call, 0, detail), .action = std::move(action)});
}

//
// Network, files, descriptors
//

void receive_datagram(const std::string &bytes, const std::string &from)
{
    for (auto &[fd, descriptor] : state().descriptors) {
        if (descriptor.is_open && descriptor.is_bound) {
            descriptor.input.push_back({.address = from, .bytes = bytes});
            run();
            return;
        }
    }
    FAIL() << "no socket to receive a datagram";
}

std::vector<datagram> take_datagrams()
{
    return std::exchange(state().sent_datagrams, {});
}

lines socket_settings()
{
    for (const auto &[fd, descriptor] : state().descriptors) {
        if (descriptor.is_open && !descriptor.settings.empty()) {
            return descriptor.settings;
        }
    }
    return {};
}

std::map<std::string, bool> &interfaces()
{
    return state().interfaces;
}

void set_file(const std::string &path, std::optional<std::string> text)
{
    state().files[path] = std::move(text);
}

int find_timer(duration first, duration interval)
{
    for (const auto &[fd, descriptor] : state().descriptors) {
        if (descriptor.is_open && descriptor.kind == "timer" && descriptor.first == first &&
            descriptor.interval == interval) {
            return fd;
        }
    }
    return -1;
}

lines open_descriptors()
{
    lines kinds;
    for (const auto &[fd, descriptor] : state().descriptors) {
        if (descriptor.is_open) {
            kinds.push_back(descriptor.kind);
        }
    }
    return kinds;
}

int descriptor_of(const std::string &kind)
{
    for (const auto &[fd, descriptor] : state().descriptors) {
        if (descriptor.is_open && descriptor.kind == kind) {
            return fd;
        }
    }
    return -1;
}

void inject_events(int fd, uint32_t events)
{
    state().descriptors.at(fd).injected_events = events;
    run();
}

//
// Bytes as text
//

std::string hex(std::string_view bytes)
{
    std::string text;
    for (const char byte : bytes) {
        char digits[4];
        snprintf(digits, sizeof digits, "%s%02X", text.empty() ? "" : " ", static_cast<uint8_t>(byte));
        text += digits;
    }
    return text;
}

std::string bytes(std::string_view hex_digits)
{
    std::string result;
    std::string digits;
    for (const char digit : hex_digits) {
        if (digit == ' ') {
            continue;
        }
        digits += digit;
        if (digits.size() == 2) {
            result += static_cast<char>(std::stoi(digits, nullptr, 16));
            digits.clear();
        }
    }
    EXPECT_TRUE(digits.empty()) << "half a byte";
    return result;
}

void PrintTo(const datagram &datagram, std::ostream *stream)
{
    *stream << datagram.address << ':' << datagram.port << ' ' << hex(datagram.bytes);
}

void node::TearDown()
{
    if (is_running()) {
        raise_signal(SIGTERM);
        advance(2s);
        EXPECT_EQ(exit_status(), 0);
    }
    if (is_running()) {
        fprintf(stderr, "the daemon doesn't end\n");
        abort();
    }
    EXPECT_EQ(take_log(), lines());
}

} // namespace sim

//
// The system functions of the daemon
//

using namespace sim;
using internal::failing;

namespace
{

const char *option_name(int level, int option)
{
    if (level == SOL_SOCKET) {
        return option == SO_PRIORITY ? "SO_PRIORITY" : option == SO_RCVBUF ? "SO_RCVBUF" : "another option";
    }
    if (level == IPPROTO_IP) {
        switch (option) {
        case IP_ADD_MEMBERSHIP:
            return "IP_ADD_MEMBERSHIP";
        case IP_MULTICAST_IF:
            return "IP_MULTICAST_IF";
        case IP_MULTICAST_LOOP:
            return "IP_MULTICAST_LOOP";
        default:
            break;
        }
    }
    return "another option";
}

// The descriptor for a call that uses it; null, with errno and result set, when the call fails.
descriptor *use(int fd, const char *call, int &result, std::string_view detail = {})
{
    result = -1;
    descriptor *const used = find_descriptor(fd, call);
    if (used == nullptr) {
        return nullptr;
    }
    const auto failure = failing(call, detail);
    result = failure.value_or(0);
    return failure ? nullptr : used;
}

bool is_daemons_file(const char *path)
{
    return is_daemon_thread || state().files.contains(path);
}

const std::string *file_text(const char *path)
{
    const auto found = state().files.find(path);
    errno = ENOENT;
    return found == state().files.end() || !found->second ? nullptr : &*found->second;
}

int close_simulated(int fd)
{
    descriptor *const closed = find_descriptor(fd, "close");
    if (closed == nullptr) {
        return -1;
    }
    internal::close_descriptor(fd);
    if (const auto result = failing("close", closed->path)) {
        return *result;
    }
    return 0;
}

int to_fd(void *cookie)
{
    return static_cast<int>(reinterpret_cast<intptr_t>(cookie));
}

int open_file(const char *path)
{
    if (const auto result = failing("open", path)) {
        return *result;
    }
    const std::string *const text = file_text(path);
    if (text == nullptr) {
        return -1;
    }
    const int fd = internal::open_descriptor("file");
    descriptor &file = state().descriptors.at(fd);
    file.path = path;
    file.content = *text;
    return fd;
}

} // namespace

extern "C" {

int __wrap_epoll_create1(int flags)
{
    if (const auto result = failing("epoll_create1")) {
        return *result;
    }
    EXPECT_EQ(flags, EPOLL_CLOEXEC);
    return internal::open_descriptor("epoll");
}

int __wrap_epoll_ctl(int epoll_fd, int operation, int fd, epoll_event *event)
{
    const char *const call = operation == EPOLL_CTL_ADD ? "EPOLL_CTL_ADD" : "EPOLL_CTL_DEL";
    const descriptor *const watched = fd == -1 ? nullptr : find_descriptor(fd, call);
    if (find_descriptor(epoll_fd, call) == nullptr || watched == nullptr) {
        return -1;
    }
    if (const auto result = failing(call, watched->kind)) {
        return *result;
    }
    auto &set = state().epoll_set;
    const auto found = std::ranges::find_if(set, [fd](const watch &other) { return other.fd == fd; });
    switch (operation) {
    case EPOLL_CTL_ADD:
        if (found != set.end()) {
            errno = EEXIST;
            return -1;
        }
        set.push_back({.fd = fd, .events = event->events, .data = event->data});
        return 0;
    case EPOLL_CTL_DEL:
        if (found == set.end()) {
            errno = ENOENT;
            return -1;
        }
        set.erase(found);
        return 0;
    default:
        ADD_FAILURE() << "epoll_ctl operation " << operation;
        return -1;
    }
}

int __wrap_epoll_wait(int epoll_fd, epoll_event *events, int max_events, int timeout)
{
    if (find_descriptor(epoll_fd, "epoll_wait") == nullptr) {
        return -1;
    }
    if (const auto result = failing("epoll_wait")) {
        return *result;
    }
    EXPECT_EQ(max_events, 1);
    EXPECT_EQ(timeout, -1);
    check_that_all_is_watched();
    auto &set = state().epoll_set;
    const auto is_ready = [](const watch &watched) { return ready_events(watched) != 0; };
    const auto next_expiry = [&set] {
        std::optional<duration> next;
        for (const watch &watched : set) {
            const auto expiry = state().descriptors.at(watched.fd).expiry;
            if (expiry && (!next || *expiry < *next)) {
                next = expiry;
            }
        }
        return next;
    };
    const wakeup reason = internal::wait([&] { return std::ranges::any_of(set, is_ready); }, next_expiry);
    if (reason == wakeup::SIGNAL) {
        errno = EINTR;
        return -1;
    }
    const auto ready = std::ranges::find_if(set, is_ready);
    events->events = ready_events(*ready);
    events->data = ready->data;
    std::rotate(ready, ready + 1, set.end());
    return 1;
}

int __wrap_timerfd_create(int clock, int flags)
{
    if (const auto result = failing("timerfd_create")) {
        return *result;
    }
    EXPECT_EQ(clock, CLOCK_MONOTONIC);
    EXPECT_EQ(flags & ~(TFD_CLOEXEC | TFD_NONBLOCK), 0);
    return internal::open_descriptor("timer");
}

int __wrap_timerfd_settime(int fd, int flags, const itimerspec *time, itimerspec *old)
{
    int result;
    descriptor *const timer = use(fd, "timerfd_settime", result);
    if (timer == nullptr) {
        return result;
    }
    EXPECT_EQ(flags, 0);
    EXPECT_EQ(old, nullptr);
    timer->first = to_duration(time->it_value);
    timer->interval = to_duration(time->it_interval);
    timer->expiry = timer->first == 0s ? std::nullopt : std::optional(state().now + timer->first);
    return 0;
}

int __wrap_open(const char *path, int flags, ...)
{
    if (is_daemons_file(path)) {
        return open_file(path);
    }
    va_list arguments;
    va_start(arguments, flags);
    const unsigned mode = (flags & O_CREAT) != 0 ? va_arg(arguments, unsigned) : 0;
    va_end(arguments);
    return __real_open(path, flags, mode);
}

ssize_t __wrap_read(int fd, void *buffer, size_t size)
{
    if (fd < FIRST_DESCRIPTOR) {
        return __real_read(fd, buffer, size);
    }
    int result;
    descriptor *const source = use(fd, "read", result, state().descriptors.at(fd).path);
    if (source == nullptr) {
        return result;
    }
    if (source->kind == "file") {
        const size_t count = source->content.copy(static_cast<char *>(buffer), size, source->offset);
        source->offset += count;
        return static_cast<ssize_t>(count);
    }
    if (!is_expired(*source)) {
        ADD_FAILURE() << "read from a " << source->kind << " that isn't ready";
        errno = EAGAIN;
        return -1;
    }
    EXPECT_EQ(size, sizeof(uint64_t));
    uint64_t expirations = 1;
    if (source->interval == 0s) {
        source->expiry.reset();
    } else {
        const auto further = (state().now - *source->expiry) / source->interval;
        expirations += static_cast<uint64_t>(further);
        *source->expiry += source->interval * (further + 1);
    }
    memcpy(buffer, &expirations, sizeof expirations);
    return sizeof expirations;
}

FILE *__wrap_fopen(const char *path, const char *mode)
{
    if (!is_daemons_file(path)) {
        return __real_fopen(path, mode);
    }
    const int fd = open_file(path);
    if (fd == -1) {
        return nullptr;
    }
    const cookie_io_functions_t functions = {
        .read = [](void *cookie, char *buffer,
                   size_t size) { return __wrap_read(to_fd(cookie), buffer, size); },
        .write = nullptr,
        .seek = nullptr,
        .close = [](void *cookie) { return close_simulated(to_fd(cookie)); },
    };
    return fopencookie(reinterpret_cast<void *>(static_cast<intptr_t>(fd)), mode, functions);
}

int __wrap_close(int fd)
{
    return fd < FIRST_DESCRIPTOR ? __real_close(fd) : close_simulated(fd);
}

int __wrap_poll(pollfd *fds, nfds_t count, int timeout)
{
    count_call("poll");
    EXPECT_EQ(count, 1U);
    EXPECT_EQ(timeout, 0);
    const bool is_writable =
        fds->fd != -1 && find_descriptor(fds->fd, "poll") != nullptr && internal::is_mqtt_writable();
    fds->revents = is_writable ? fds->events & POLLOUT : 0;
    return fds->revents != 0 ? 1 : 0;
}

int __wrap_clock_gettime(clockid_t clock, timespec *time)
{
    if (const auto result = failing("clock_gettime")) {
        return *result;
    }
    *time = to_timespec(state().now +
                        (clock == CLOCK_MONOTONIC ? internal::MONOTONIC_START : state().wall_offset));
    return 0;
}

time_t __wrap_time(time_t *time)
{
    if (const auto result = failing("time")) {
        return static_cast<time_t>(*result);
    }
    const time_t seconds = to_timespec(state().now + state().wall_offset).tv_sec;
    if (time != nullptr) {
        *time = seconds;
    }
    return seconds;
}

tm *__wrap_gmtime(const time_t *time)
{
    return failing("gmtime") ? nullptr : __real_gmtime(time);
}

int __wrap_nanosleep(const timespec *time, timespec *remaining)
{
    if (const auto result = failing("nanosleep")) {
        return *result;
    }
    const duration end = state().now + to_duration(*time);
    if (internal::wait([] { return false; }, [end] { return std::optional(end); }) == wakeup::SIGNAL) {
        if (remaining != nullptr) {
            *remaining = to_timespec(end - state().now);
        }
        errno = EINTR;
        return -1;
    }
    return 0;
}

int __wrap_sigaction(int signum, const struct sigaction *action, struct sigaction *old)
{
    if (!is_daemon_thread) {
        return __real_sigaction(signum, action, old);
    }
    if (const auto result = failing("sigaction", std::to_string(signum))) {
        return *result;
    }
    EXPECT_EQ(action->sa_flags, 0) << "an interrupted wait must not be resumed";
    EXPECT_FALSE(sigismember(&action->sa_mask, SIGTERM));
    state().handlers[signum] = *action;
    return 0;
}

int __wrap_socket(int domain, int type, int protocol)
{
    if (const auto result = failing("socket", protocol == IPPROTO_UDP ? "udp" : "")) {
        return *result;
    }
    EXPECT_EQ(domain, AF_INET);
    EXPECT_EQ(type & ~SOCK_CLOEXEC, SOCK_DGRAM);
    return internal::open_descriptor("socket");
}

int __wrap_setsockopt(int fd, int level, int option, const void *value, socklen_t size)
{
    const char *const name = option_name(level, option);
    int result;
    descriptor *const socket = use(fd, "setsockopt", result, name);
    if (socket == nullptr) {
        return result;
    }
    std::string setting = name;
    if (size == sizeof(ip_mreqn)) {
        ip_mreqn request;
        memcpy(&request, value, sizeof request);
        setting += " " + address_text(request.imr_multiaddr) + " " + address_text(request.imr_address) + " " +
                   std::to_string(request.imr_ifindex);
    } else {
        EXPECT_EQ(size, sizeof(int));
        int number = 0;
        memcpy(&number, value, sizeof number);
        setting += " " + std::to_string(number);
    }
    socket->settings.push_back(setting);
    return 0;
}

int __wrap_bind(int fd, const sockaddr *address, socklen_t size)
{
    int result;
    descriptor *const socket = use(fd, "bind", result);
    if (socket == nullptr) {
        return result;
    }
    sockaddr_in internet;
    EXPECT_EQ(size, sizeof internet);
    memcpy(&internet, address, sizeof internet);
    EXPECT_EQ(internet.sin_family, AF_INET);
    socket->settings.push_back("bind " + address_text(internet.sin_addr) + ":" +
                               std::to_string(ntohs(internet.sin_port)));
    socket->is_bound = true;
    return 0;
}

ssize_t __wrap_sendto(int fd, const void *bytes, size_t size, int flags, const sockaddr *address,
                      socklen_t address_size)
{
    sockaddr_in internet;
    EXPECT_EQ(address_size, sizeof internet);
    memcpy(&internet, address, sizeof internet);
    const std::string destination = address_text(internet.sin_addr);
    int result;
    if (use(fd, "sendto", result, destination) == nullptr) {
        return result;
    }
    EXPECT_EQ(flags, 0);
    EXPECT_EQ(internet.sin_family, AF_INET);
    state().sent_datagrams.push_back({.address = destination,
                                      .bytes = std::string(static_cast<const char *>(bytes), size),
                                      .port = ntohs(internet.sin_port)});
    return static_cast<ssize_t>(size);
}

ssize_t __wrap_recvfrom(int fd, void *buffer, size_t size, int flags, sockaddr *address,
                        socklen_t *address_size)
{
    int result;
    descriptor *const socket = use(fd, "recvfrom", result);
    if (socket == nullptr) {
        return result;
    }
    if (socket->input.empty()) {
        if ((flags & MSG_DONTWAIT) == 0) {
            ADD_FAILURE() << "a blocking recvfrom with nothing to receive";
        }
        errno = EAGAIN;
        return -1;
    }
    const datagram received = socket->input.front();
    socket->input.pop_front();
    sockaddr_in source = {};
    source.sin_family = AF_INET;
    source.sin_port = htons(received.port);
    EXPECT_EQ(inet_pton(AF_INET, received.address.c_str(), &source.sin_addr), 1);
    if (address != nullptr) {
        memcpy(address, &source, std::min<size_t>(*address_size, sizeof source));
        *address_size = sizeof source;
    }
    const size_t copied = received.bytes.copy(static_cast<char *>(buffer), size);
    return static_cast<ssize_t>((flags & MSG_TRUNC) != 0 ? received.bytes.size() : copied);
}

int __wrap_ioctl(int fd, unsigned long request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    ifreq *const argument = va_arg(arguments, ifreq *);
    va_end(arguments);
    const std::string name(argument->ifr_name, strnlen(argument->ifr_name, sizeof argument->ifr_name));
    int result;
    if (use(fd, "ioctl", result, name) == nullptr) {
        return result;
    }
    const auto found = state().interfaces.find(name);
    if (found == state().interfaces.end()) {
        errno = ENODEV;
        return -1;
    }
    if (request == SIOCGIFFLAGS) {
        argument->ifr_flags = static_cast<short>(found->second ? IFF_UP : 0);
    } else {
        EXPECT_EQ(request, static_cast<unsigned long>(SIOCGIFHWADDR));
        EXPECT_EQ(name, "eth0");
        memcpy(argument->ifr_hwaddr.sa_data, LOCAL_MAC, sizeof LOCAL_MAC);
    }
    return 0;
}

unsigned __wrap_if_nametoindex(const char *name)
{
    EXPECT_STREQ(name, "fire");
    return failing("if_nametoindex", name) ? 0 : 3;
}

} // extern "C"

void *wrapped_new(size_t size, const std::nothrow_t &) noexcept asm(ALLOCATION_NAME_TEXT("__wrap__Znw"));
void *wrapped_new_array(size_t size, const std::nothrow_t &) noexcept
    asm(ALLOCATION_NAME_TEXT("__wrap__Zna"));

extern "C" [[gnu::weak]] void __lsan_ignore_object(const void *object);

void *wrapped_new(size_t size, const std::nothrow_t &tag) noexcept
{
    if (failing("new")) {
        return nullptr;
    }
    void *const object = real_new(size, tag);
    if (std::exchange(state().expects_leak, false) && __lsan_ignore_object != nullptr) {
        __lsan_ignore_object(object);
    }
    return object;
}

void *wrapped_new_array(size_t size, const std::nothrow_t &tag) noexcept
{
    return failing("new") ? nullptr : real_new_array(size, tag);
}
