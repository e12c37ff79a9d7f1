// The system calls of the daemon's modules, which the linker sends here (--wrap), for the process that runs.
#include "mqtt_broker.h"
#include "process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <sanitizer/asan_interface.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>
#include <span>

using namespace sim;

namespace
{

process &self()
{
    return process::running();
}

timespec to_timespec(nanoseconds time)
{
    return {.tv_sec = time / seconds(1),
            .tv_nsec = static_cast<decltype(timespec::tv_nsec)>((time % seconds(1)).count())};
}

nanoseconds to_duration(const timespec &time)
{
    return seconds(time.tv_sec) + nanoseconds(time.tv_nsec);
}

nanoseconds now()
{
    return self().host().clock().now();
}

// What a datagram leaves of the buffer that it is read into: nobody may look at it until the next call.
std::span<const uint8_t> unused;

void set_unused(std::span<const uint8_t> part)
{
    ASAN_UNPOISON_MEMORY_REGION(unused.data(), unused.size());
    unused = part;
    ASAN_POISON_MEMORY_REGION(unused.data(), unused.size());
}

ssize_t read_timer(descriptor &timer, int fd, void *buffer)
{
    if (timer.expiry > now()) {
        self().host().misuse("a read of a timer would block");
    }
    uint64_t expiries = 1;
    nanoseconds next = NEVER;
    if (timer.interval > nanoseconds(0)) {
        expiries += static_cast<uint64_t>((now() - timer.expiry) / timer.interval);
        next = timer.expiry + static_cast<int64_t>(expiries) * timer.interval;
    }
    self().arm(fd, next, timer.interval);
    memcpy(buffer, &expiries, sizeof expiries);
    return sizeof expiries;
}

// Null with errno set when it can't be opened.
const std::string *find_file(const char *path)
{
    if (self().fails(system_call::OPEN)) {
        return nullptr;
    }
    const std::string *const content = self().host().find_file(path);
    if (content == nullptr) {
        errno = ENOENT;
    }
    return content;
}

void *allocate(size_t size, allocator from)
{
    return self().fails(system_call::ALLOCATION) ? nullptr : self().memory().allocate(size, from);
}

void release(void *released, allocator by)
{
    if (released != nullptr && !self().memory().release(released, by)) {
        self().host().misuse("memory is returned twice or by another operator than it came from");
    }
}

} // namespace

extern "C" {

//
// Descriptors
//

int __wrap_epoll_create1(int)
{
    return self().fails(system_call::EPOLL_CREATE1) ? -1 : self().open({.kind = file_kind::EPOLL});
}

int __wrap_epoll_ctl(int, int operation, int fd, epoll_event *event)
{
    if (self().fails(system_call::EPOLL_CTL)) {
        return -1;
    }
    descriptor *const file = self().find(fd);
    if (file == nullptr) {
        return -1;
    }
    const bool adds = operation == EPOLL_CTL_ADD;
    if (file->is_watched == adds) {
        errno = adds ? EEXIST : ENOENT;
        return -1;
    }
    file->is_watched = adds;
    file->watch = adds ? event->data.ptr : nullptr;
    if (adds && self().is_readable(*file)) {
        self().mark_ready(fd);
    }
    return 0;
}

int __wrap_epoll_wait(int, epoll_event *events, int, int)
{
    set_unused({});
    self().set_serving();
    if (self().fails(system_call::EPOLL_WAIT)) {
        return -1;
    }
    for (;;) {
        if (self().take_signal()) {
            errno = EINTR;
            return -1;
        }
        const int fd = self().take_ready();
        if (fd != -1) {
            descriptor &ready = *self().find(fd);
            ready.has_error = ready.has_error || self().fails(system_call::HANG_UP);
            events->events = ready.has_error ? EPOLLIN | EPOLLERR : EPOLLIN;
            events->data.ptr = ready.watch;
            return 1;
        }
        self().wait();
    }
}

int __wrap_poll(pollfd *files, nfds_t count, int)
{
    if (count == 0) {
        return 0;
    }
    files->revents = self().host().broker().conduct().reads ? POLLOUT : 0;
    return files->revents == 0 ? 0 : 1;
}

int __wrap_close(int fd)
{
    set_unused({});
    if (self().find(fd) == nullptr) {
        return -1;
    }
    self().close(fd); // also where it fails, as Linux does
    return self().fails(system_call::CLOSE) ? -1 : 0;
}

ssize_t __wrap_read(int fd, void *buffer, size_t size)
{
    if (self().fails(system_call::READ)) {
        return -1;
    }
    descriptor *const file = self().find(fd);
    if (file == nullptr) {
        return -1;
    }
    if (file->kind == file_kind::TIMER) {
        return read_timer(*file, fd, buffer);
    }
    const size_t length = file->content->copy(static_cast<char *>(buffer), size, file->offset);
    file->offset += length;
    return static_cast<ssize_t>(length);
}

int __wrap_open(const char *path, int, ...)
{
    const std::string *const content = find_file(path);
    return content == nullptr ? -1 : self().open({.kind = file_kind::REGULAR, .content = content});
}

FILE *__wrap_fopen(const char *path, const char *)
{
    const std::string *const content = find_file(path);
    return content == nullptr ? nullptr : fmemopen(const_cast<char *>(content->data()), content->size(), "r");
}

int __wrap_timerfd_create(int, int)
{
    return self().fails(system_call::TIMERFD_CREATE) ? -1 : self().open({.kind = file_kind::TIMER});
}

int __wrap_timerfd_settime(int fd, int flags, const itimerspec *time, itimerspec *)
{
    if (self().fails(system_call::TIMERFD_SETTIME) || self().find(fd) == nullptr) {
        return -1;
    }
    const nanoseconds first = to_duration(time->it_value);
    const nanoseconds start = (flags & TFD_TIMER_ABSTIME) != 0 ? nanoseconds(0) : now();
    self().arm(fd, first == nanoseconds(0) ? NEVER : start + first, to_duration(time->it_interval));
    return 0;
}

//
// Time, signals, the process
//

int __wrap_clock_gettime(clockid_t, timespec *time)
{
    if (self().fails(system_call::CLOCK_GETTIME)) {
        return -1;
    }
    *time = to_timespec(now());
    return 0;
}

time_t __wrap_time(time_t *)
{
    return self().host().wall_clock();
}

int __wrap_nanosleep(const timespec *time, timespec *)
{
    const nanoseconds end = now() + to_duration(*time);
    if (self().fails(system_call::NANOSLEEP)) {
        return -1;
    }
    while (now() < end) {
        if (self().take_signal()) {
            errno = EINTR;
            return -1;
        }
        self().wait_until(end);
    }
    return 0;
}

int __wrap_sigaction(int, const struct sigaction *action, struct sigaction *)
{
    if (self().fails(system_call::SIGACTION)) {
        return -1;
    }
    self().set_sigterm_handler(action->sa_handler);
    return 0;
}

sighandler_t __wrap_signal(int, sighandler_t)
{
    return SIG_DFL;
}

char *__wrap_getenv(const char *name)
{
    static char path[] = "/card/address";
    return strcmp(name, "VEXA_CARD_ADDR_FILE") == 0 ? path : nullptr;
}

pid_t __wrap_getpid()
{
    return self().host().process_id();
}

int __wrap_rand()
{
    return self().rand();
}

void __wrap_srand(unsigned seed)
{
    self().srand(seed);
}

[[noreturn]] void __wrap_exit(int status)
{
    self().exit(status);
}

[[gnu::format(printf, 2, 3)]] void __wrap_syslog(int, const char *format, ...)
{
    char *line = nullptr;
    va_list arguments;
    va_start(arguments, format);
    if (vasprintf(&line, format, arguments) == -1) {
        throw std::bad_alloc();
    }
    va_end(arguments);
    self().host().log(line);
    free(line);
}

//
// The fire network
//

int __wrap_socket(int, int, int)
{
    return self().fails(system_call::SOCKET) ? -1 : self().open({.kind = file_kind::SOCKET});
}

int __wrap_setsockopt(int, int level, int option, const void *value, socklen_t)
{
    if (self().fails(system_call::SETSOCKOPT)) {
        return -1;
    }
    socket_settings &settings = self().socket();
    if (level == IPPROTO_IP && option != IP_MULTICAST_LOOP) {
        ip_mreqn group;
        memcpy(&group, value, sizeof group);
        if (option == IP_ADD_MEMBERSHIP) {
            settings.group = ntohl(group.imr_multiaddr.s_addr);
            settings.group_interface = static_cast<unsigned>(group.imr_ifindex);
        } else {
            settings.sending_interface = static_cast<unsigned>(group.imr_ifindex);
        }
        return 0;
    }
    int number;
    memcpy(&number, value, sizeof number);
    if (level == IPPROTO_IP) {
        settings.loops = number != 0;
    } else {
        (option == SO_PRIORITY ? settings.priority : settings.receive_buffer) = number;
    }
    return 0;
}

int __wrap_bind(int fd, const sockaddr *address, socklen_t)
{
    if (self().fails(system_call::BIND)) {
        return -1;
    }
    sockaddr_in local;
    memcpy(&local, address, sizeof local);
    self().socket().port = ntohs(local.sin_port);
    self().find(fd)->kind = file_kind::DATAGRAMS;
    return 0;
}

unsigned __wrap_if_nametoindex(const char *name)
{
    if (self().fails(system_call::IF_NAMETOINDEX)) {
        return 0;
    }
    const network_interface *const found = self().host().find_interface(name);
    if (found == nullptr) {
        errno = ENODEV;
    }
    return found == nullptr ? 0 : found->index;
}

int __wrap_ioctl(int, unsigned long request, ifreq *asked)
{
    if (self().fails(system_call::IOCTL)) {
        return -1;
    }
    const network_interface *const found = self().host().find_interface(asked->ifr_name);
    if (found == nullptr) {
        errno = ENODEV;
        return -1;
    }
    if (request == SIOCGIFFLAGS) {
        asked->ifr_flags = found->is_up ? IFF_UP : 0;
    } else {
        std::ranges::copy(found->mac, asked->ifr_hwaddr.sa_data);
    }
    return 0;
}

ssize_t __wrap_recvfrom(int, void *buffer, size_t size, int, sockaddr *address, socklen_t *)
{
    set_unused({});
    if (self().fails(system_call::RECVFROM)) {
        return -1;
    }
    if (self().datagrams().empty()) {
        errno = EAGAIN;
        return -1;
    }
    const datagram received = std::move(self().datagrams().front());
    self().datagrams().pop_front();
    sockaddr_in sender = {};
    sender.sin_family = AF_INET;
    sender.sin_addr.s_addr = htonl(received.sender);
    memcpy(address, &sender, sizeof sender);
    const size_t length = std::min(size, received.bytes.size());
    if (length > 0) {
        memcpy(buffer, received.bytes.data(), length);
    }
    set_unused({static_cast<const uint8_t *>(buffer) + length, size - length});
    self().host().consume(received.sender, received.bytes);
    return static_cast<ssize_t>(received.bytes.size());
}

ssize_t __wrap_sendto(int fd, const void *bytes, size_t size, int, const sockaddr *address, socklen_t)
{
    if (self().find(fd) == nullptr || self().fails(system_call::SENDTO)) {
        return -1;
    }
    sockaddr_in destination;
    memcpy(&destination, address, sizeof destination);
    self().host().send(ntohl(destination.sin_addr.s_addr), ntohs(destination.sin_port),
                       shared_bytes(bytes, size));
    return static_cast<ssize_t>(size);
}

//
// Memory
//

void *__wrap_malloc(size_t size)
{
    return allocate(size, allocator::MALLOC);
}

void *__wrap_calloc(size_t count, size_t size)
{
    void *const allocated = allocate(count * size, allocator::MALLOC);
    return allocated == nullptr ? nullptr : memset(allocated, 0, count * size);
}

void __wrap_free(void *released)
{
    release(released, allocator::MALLOC);
}

[[gnu::format(printf, 2, 0)]] int __wrap_vasprintf(char **text, const char *format, va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    const int length = vsnprintf(nullptr, 0, format, arguments);
    *text = static_cast<char *>(allocate(static_cast<size_t>(length) + 1, allocator::MALLOC));
    if (*text == nullptr) {
        va_end(again);
        return -1;
    }
    vsnprintf(*text, static_cast<size_t>(length) + 1, format, again);
    va_end(again);
    return length;
}

void *wrap_new(size_t size, const std::nothrow_t &) noexcept asm("__wrap__Znw" SIZE_T_CODE "RKSt9nothrow_t");
void *wrap_new(size_t size, const std::nothrow_t &) noexcept
{
    return allocate(size, allocator::NEW);
}

void *wrap_new_array(size_t size, const std::nothrow_t &) noexcept
    asm("__wrap__Zna" SIZE_T_CODE "RKSt9nothrow_t");
void *wrap_new_array(size_t size, const std::nothrow_t &) noexcept
{
    return allocate(size, allocator::NEW_ARRAY);
}

void wrap_delete(void *released) noexcept asm("__wrap__ZdlPv");
void wrap_delete(void *released) noexcept
{
    release(released, allocator::NEW);
}

void wrap_sized_delete(void *released, size_t) noexcept asm("__wrap__ZdlPv" SIZE_T_CODE);
void wrap_sized_delete(void *released, size_t) noexcept
{
    release(released, allocator::NEW);
}

void wrap_delete_array(void *released) noexcept asm("__wrap__ZdaPv");
void wrap_delete_array(void *released) noexcept
{
    release(released, allocator::NEW_ARRAY);
}

} // extern "C"
