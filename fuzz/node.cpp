#include "node.h"

#include "auth.h"
#include "broker.h"
#include "broker/challenge.h"
#include "command.h"
#include "event.h"
#include "packet.h"
#include "remote.h"
#include "stats.h"
#include "summary.h"
#include "topics.h"
#include "utils.h"

#include <arpa/inet.h>
#include <mosquitto.h>
#include <net/if.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <list>
#include <optional>
#include <unordered_map>
#include <vector>

// This file itself is built without the sanitizers, which would only slow it down.
#ifdef HAS_ADDRESS_SANITIZER
#include <sanitizer/asan_interface.h>
#include <sanitizer/lsan_interface.h>
#else
#define __asan_poison_memory_region(address, size) (static_cast<void>(address), static_cast<void>(size))
#define __asan_unpoison_memory_region(address, size) (static_cast<void>(address), static_cast<void>(size))
#endif

// All variables of the daemon's modules; the linker script gathers them in one section.
extern uint64_t state_start[] asm("__start_diag_state");
extern uint64_t state_end[] asm("__stop_diag_state");

namespace fuzz
{

namespace
{

using std::chrono::nanoseconds;

constexpr uint8_t NODE_NUMBER = 7;
constexpr int FIRST_DESCRIPTOR = 20000; // no descriptor of the kernel
constexpr nanoseconds MONOTONIC_START = seconds(1000);
constexpr time_t WALL_START = 1'700'000'000;
char any_file[] = "bootrev=\"name:1.2.3\"\n";

// The faults that end the daemon by intent, by a message that is logged on their paths only.
constexpr const char *MEANT_TO_END[] = {
    "couldn't process reset-stats request",        // for a port that is not tracked
    "couldn't publish data on topic",              // topic data that no broker takes
    "couldn't check if pub/diag/",                 // a served filter that the matcher rejects
    "couldn't send subscribe/unsubscribe request", // to a fire address that is none
    "couldn't udpate port media in summary",       // a media code that does not exist
};

const word_table WORDS = {
#include "secrets.inc"
};

struct descriptor {
    bool is_open = true;
    event_callback callback = nullptr; // null: not watched
    void *arg = nullptr;
    std::optional<nanoseconds> expiry = {}; // of a timer
    nanoseconds interval{};
};

struct subscription {
    std::string filter;
    broker_callback callback;
    void *arg;
    bool is_removed;
};

struct message {
    std::string topic;
    std::vector<uint8_t> payload; // exactly as large as the message, so that no reader passes its end unseen
};

enum class allocator { NEW, NEW_ARRAY, MALLOC };

// What a run changes, apart from the daemon's variables.
struct {
    nanoseconds now;
    std::vector<descriptor> descriptors;
    std::list<subscription> subscriptions; // newest first
    std::deque<message> messages;          // on their way from the broker
    bytes datagram;                        // that waits in the socket
    uint8_t sender;
    bytes unused; // what it left of the buffer that it was read into, not to be looked at
    std::string challenge;
    bool is_meant_to_end;
} node;

// Keys are complemented addresses: the leak check must not find the memory through this table.
std::unordered_map<uintptr_t, allocator> memory;

[[noreturn, gnu::format(printf, 1, 2)]] void fail(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
    fputc('\n', stderr);
    abort();
}

//
// The daemon's variables and memory
//

// Word by word: memcpy would meet the sanitizer's guards between the variables.
void copy_words(const uint64_t *from, volatile uint64_t *to, size_t count)
{
    for (size_t i = 0; i < count; i++) {
        to[i] = from[i];
    }
}

void restore_variables()
{
    static const std::vector<uint64_t> first = [] {
        std::vector<uint64_t> copy(static_cast<size_t>(state_end - state_start));
        copy_words(state_start, copy.data(), copy.size());
        return copy;
    }();
    copy_words(first.data(), state_start, first.size());
}

void *keep(void *allocated, allocator from)
{
    memory.emplace(~reinterpret_cast<uintptr_t>(allocated), from);
    return allocated;
}

// True when the daemon's own, false when it is the C library's.
bool forget(void *released, allocator by)
{
    const auto found = memory.find(~reinterpret_cast<uintptr_t>(released));
    if (found == memory.end()) {
        return false;
    }
    if (found->second != by) {
        fail("memory is returned by another operator than it came from");
    }
    memory.erase(found);
    return true;
}

void free_all()
{
    for (const auto &[key, from] : memory) {
        auto *const held =
            reinterpret_cast<void *>(~key); // NOLINT(performance-no-int-to-ptr): hidden for a reason
        switch (from) {
        case allocator::NEW:
            operator delete(held);
            break;
        case allocator::NEW_ARRAY:
            operator delete[](held);
            break;
        case allocator::MALLOC:
            free(held);
            break;
        }
    }
    memory.clear();
}

// What is held must be in somebody's hands.
void check_for_leaks()
{
#ifdef HAS_ADDRESS_SANITIZER
    // A check takes milliseconds: each file of a corpus gets one, then few inputs do.
    constexpr unsigned FIRST_RUNS = 300;
    constexpr unsigned RUNS_PER_CHECK = 10'000;
    static unsigned runs;
    runs++;
    if ((runs <= FIRST_RUNS || runs % RUNS_PER_CHECK == 0) && __lsan_do_recoverable_leak_check() != 0) {
        fail("memory has leaked");
    }
#endif
}

//
// Running
//

descriptor *find_descriptor(int fd)
{
    errno = EBADF;
    if (fd == -1) {
        return nullptr;
    }
    const auto index = static_cast<size_t>(fd - FIRST_DESCRIPTOR);
    if (fd < FIRST_DESCRIPTOR || index >= node.descriptors.size() || !node.descriptors[index].is_open) {
        fail("descriptor %d is used but not open", fd);
    }
    return &node.descriptors[index];
}

int open_descriptor(const descriptor &opened)
{
    node.descriptors.push_back(opened);
    return static_cast<int>(node.descriptors.size()) - 1 + FIRST_DESCRIPTOR;
}

void deliver_messages()
{
    while (!node.messages.empty() && is_terminated() == 0) {
        const message received = std::move(node.messages.front());
        node.messages.pop_front();
        // A callback may subscribe, in front of the walk, and unsubscribe.
        for (const subscription &each : node.subscriptions) {
            bool matches = false;
            mosquitto_topic_matches_sub(each.filter.c_str(), received.topic.c_str(), &matches);
            if (matches && !each.is_removed && is_terminated() == 0) {
                each.callback(received.topic.c_str(),
                              received.payload.empty() ? nullptr : received.payload.data(),
                              static_cast<int>(received.payload.size()), each.arg);
            }
        }
        node.subscriptions.remove_if([](const subscription &each) { return each.is_removed; });
    }
}

// Serves the timers that expire up to a moment, in their order.
void serve_timers(nanoseconds end)
{
    while (is_terminated() == 0) {
        size_t next = node.descriptors.size();
        for (size_t i = 0; i < node.descriptors.size(); i++) {
            const descriptor &each = node.descriptors[i];
            if (each.is_open && each.callback != nullptr && each.expiry && *each.expiry <= end &&
                (next == node.descriptors.size() || *each.expiry < *node.descriptors[next].expiry)) {
                next = i;
            }
        }
        if (next == node.descriptors.size()) {
            return;
        }
        const descriptor served = node.descriptors[next];
        node.now = std::max(node.now, *served.expiry);
        served.callback(static_cast<int>(next) + FIRST_DESCRIPTOR, EPOLLIN, served.arg);
        if (node.descriptors[next].is_open && node.descriptors[next].expiry == served.expiry) {
            fail("a timer's expiry stays unread");
        }
        deliver_messages();
    }
}

bool is_topic(const char *topic)
{
    return topic[0] != '\0' &&
           mosquitto_validate_utf8(topic, static_cast<int>(strlen(topic))) == MOSQ_ERR_SUCCESS &&
           mosquitto_pub_topic_check(topic) == MOSQ_ERR_SUCCESS;
}

int publish_own(const char *topic, const void *payload, size_t length)
{
    if (!is_topic(topic)) {
        return -1;
    }
    const auto *const start = static_cast<const uint8_t *>(payload);
    node.messages.push_back({topic, {start, start + length}});
    if (strcmp(topic, CHALLENGE_TOPIC) == 0) {
        node.challenge.assign(start, start + length);
    }
    return 0;
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

} // namespace

void start_node()
{
    restore_variables();
    node = {};
    node.now = MONOTONIC_START;
    srand(NODE_NUMBER);
    if (stats_init() == -1 || remote_init() == -1 || summary_init(NODE_NUMBER) == -1 || auth_init() == -1 ||
        command_init(NODE_NUMBER) == -1) {
        fail("the node doesn't start");
    }
    deliver_messages();
}

void end_node()
{
    if (is_terminated() != 0 && !node.is_meant_to_end) {
        fail("the daemon has ended itself");
    }
    if (is_terminated() == 0) {
        for (const descriptor &each : node.descriptors) {
            if (each.is_open && each.callback == nullptr) {
                fail("a descriptor is open that nothing watches");
            }
        }
        check_for_leaks();
    }
    static_cast<void>(remote_send_goodbye());
    free_all();
}

void receive_datagram(uint8_t sender, bytes datagram)
{
    if (is_terminated() != 0) {
        return;
    }
    node.datagram = datagram;
    node.sender = sender;
    const auto socket = std::ranges::find_if(node.descriptors, [](const descriptor &each) {
        return each.is_open && each.callback != nullptr && !each.expiry;
    });
    socket->callback(static_cast<int>(socket - node.descriptors.begin()) + FIRST_DESCRIPTOR, EPOLLIN,
                     socket->arg);
    __asan_unpoison_memory_region(node.unused.data(), node.unused.size());
    deliver_messages();
}

void publish(const std::string &topic, bytes payload)
{
    if (is_terminated() == 0 && is_topic(topic.c_str())) {
        node.messages.push_back({topic.c_str(), {payload.begin(), payload.end()}});
        deliver_messages();
    }
}

void run_for(seconds time)
{
    const nanoseconds end = node.now + time;
    serve_timers(end);
    node.now = std::max(node.now, end);
}

void stall_for(seconds time)
{
    node.now += time;
    serve_timers(node.now);
}

std::string right_response()
{
    return challenge_response(node.challenge, WORDS).value();
}

} // namespace fuzz

//
// The event loop and the broker session
//

using namespace fuzz;

int event_add(int fd, uint32_t, event_callback callback, void *arg)
{
    descriptor *const watched = find_descriptor(fd);
    watched->callback = callback;
    watched->arg = arg;
    return 0;
}

int event_remove(int fd)
{
    find_descriptor(fd)->callback = nullptr;
    return 0;
}

int broker_subscribe(const char *filter, broker_callback callback, void *arg)
{
    node.subscriptions.push_front({filter, callback, arg, false});
    return 0;
}

int broker_unsubscribe(const char *filter)
{
    for (subscription &each : node.subscriptions) {
        each.is_removed = each.is_removed || each.filter == filter;
    }
    return 0;
}

int broker_publish(const char *topic, const void *payload, size_t length)
{
    return publish_own(topic, payload, length);
}

int broker_publish_unretained(const char *topic, const void *payload, size_t length)
{
    return publish_own(topic, payload, length);
}

int broker_unpublish(const char *topic)
{
    return publish_own(topic, nullptr, 0);
}

//
// The system
//

extern "C" {

int __wrap_timerfd_create(int, int)
{
    return open_descriptor({.expiry = nanoseconds::max()});
}

int __wrap_timerfd_settime(int fd, int, const itimerspec *time, itimerspec *)
{
    descriptor *const timer = find_descriptor(fd);
    const nanoseconds first = to_duration(time->it_value);
    timer->expiry = first == nanoseconds(0) ? nanoseconds::max() : node.now + first;
    timer->interval = to_duration(time->it_interval);
    return 0;
}

FILE *__wrap_fopen(const char *, const char *)
{
    return fmemopen(any_file, strlen(any_file), "r");
}

ssize_t __wrap_read(int fd, void *buffer, size_t)
{
    descriptor *const source = find_descriptor(fd);
    if (source->expiry.value_or(nanoseconds::max()) > node.now) {
        fail("a read would block");
    }
    const uint64_t expiries =
        source->interval == nanoseconds(0)
            ? 1
            : static_cast<uint64_t>((node.now - *source->expiry) / source->interval) + 1;
    source->expiry = source->interval == nanoseconds(0)
                         ? nanoseconds::max()
                         : *source->expiry + static_cast<int64_t>(expiries) * source->interval;
    memcpy(buffer, &expiries, sizeof expiries);
    return sizeof expiries;
}

int __wrap_close(int fd)
{
    descriptor *const closed = find_descriptor(fd);
    if (closed == nullptr) {
        return -1;
    }
    *closed = {.is_open = false};
    return 0;
}

int __wrap_clock_gettime(clockid_t, timespec *time)
{
    *time = to_timespec(node.now);
    return 0;
}

// The pauses of a large first send.
int __wrap_nanosleep(const timespec *, timespec *)
{
    return 0;
}

time_t __wrap_time(time_t *)
{
    return WALL_START + (node.now - MONOTONIC_START) / seconds(1);
}

int __wrap_socket(int, int, int)
{
    return open_descriptor({});
}

int __wrap_setsockopt(int, int, int, const void *, socklen_t)
{
    return 0;
}

int __wrap_bind(int, const sockaddr *, socklen_t)
{
    return 0;
}

unsigned __wrap_if_nametoindex(const char *)
{
    return 1;
}

int __wrap_ioctl(int, unsigned long, ifreq *request)
{
    memcpy(request->ifr_hwaddr.sa_data, LOCAL_MAC, sizeof LOCAL_MAC);
    return 0;
}

ssize_t __wrap_recvfrom(int fd, void *buffer, size_t size, int, sockaddr *address, socklen_t *)
{
    find_descriptor(fd);
    sockaddr_in sender = {};
    sender.sin_family = AF_INET;
    sender.sin_addr.s_addr = htonl(0x0A000000U + node.sender);
    memcpy(address, &sender, sizeof sender);
    const size_t length = std::min(size, node.datagram.size());
    memcpy(buffer, node.datagram.data(), length);
    node.unused = {static_cast<const uint8_t *>(buffer) + length, size - length};
    __asan_poison_memory_region(node.unused.data(), node.unused.size());
    return static_cast<ssize_t>(node.datagram.size());
}

ssize_t __wrap_sendto(int fd, const void *, size_t size, int, const sockaddr *, socklen_t)
{
    if (find_descriptor(fd) == nullptr) {
        return -1;
    }
    if (size > MAX_PACKET_SIZE) {
        fail("a packet of %zu bytes is sent", size);
    }
    return static_cast<ssize_t>(size);
}

[[gnu::format(printf, 2, 3)]] void __wrap_syslog(int, const char *format, ...)
{
    static const bool is_shown = getenv("FUZZ_LOG") != nullptr;
    char line[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    if (is_shown) {
        fprintf(stderr, "%s\n", line);
    }
    node.is_meant_to_end =
        node.is_meant_to_end || std::ranges::any_of(MEANT_TO_END, [&line](const char *message) {
            return strstr(line, message) != nullptr;
        });
}

void *__wrap_malloc(size_t size)
{
    return keep(malloc(size), allocator::MALLOC);
}

void __wrap_free(void *released)
{
    forget(released, allocator::MALLOC);
    free(released);
}

void *wrap_new(size_t size, const std::nothrow_t &tag) noexcept
    asm("__wrap__Znw" SIZE_T_CODE "RKSt9nothrow_t");
void *wrap_new(size_t size, const std::nothrow_t &tag) noexcept
{
    return keep(operator new(size, tag), allocator::NEW);
}

void *wrap_new_array(size_t size, const std::nothrow_t &tag) noexcept
    asm("__wrap__Zna" SIZE_T_CODE "RKSt9nothrow_t");
void *wrap_new_array(size_t size, const std::nothrow_t &tag) noexcept
{
    return keep(operator new[](size, tag), allocator::NEW_ARRAY);
}

void wrap_delete(void *released) noexcept asm("__wrap__ZdlPv");
void wrap_delete(void *released) noexcept
{
    if (released != nullptr && !forget(released, allocator::NEW)) {
        fail("memory is returned twice");
    }
    operator delete(released);
}

void wrap_sized_delete(void *released, size_t) noexcept asm("__wrap__ZdlPv" SIZE_T_CODE);
void wrap_sized_delete(void *released, size_t) noexcept
{
    wrap_delete(released);
}

void wrap_delete_array(void *released) noexcept asm("__wrap__ZdaPv");
void wrap_delete_array(void *released) noexcept
{
    if (released != nullptr && !forget(released, allocator::NEW_ARRAY)) {
        fail("memory is returned twice");
    }
    operator delete[](released);
}

} // extern "C"
