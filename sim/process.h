// A process that runs the daemon's real main: with variables, memory, descriptors and a stack of its own, on a machine
// that is simulated. All processes share this program's address space: the variables of the daemon's modules lie in one
// section, which holds those of the process that runs.
#pragma once

#include "fiber.h"
#include "heap.h"
#include "machine.h"
#include "random.h"
#include "shared_bytes.h"
#include "timeline.h"

#include <csignal>
#include <deque>
#include <functional>
#include <string>
#include <vector>

struct mosquitto;

namespace sim
{

enum class file_kind {
    CLOSED,
    EPOLL,
    TIMER,
    SOCKET,    // not bound
    DATAGRAMS, // bound
    SESSION,
    REGULAR
};

constexpr nanoseconds NEVER = nanoseconds::max();

struct descriptor {
    file_kind kind = file_kind::CLOSED;
    bool is_watched = false;
    bool is_queued = false; // among the ready ones
    void *watch = nullptr;
    nanoseconds expiry = NEVER; // of a timer
    nanoseconds interval{};
    uint32_t armed = 0; // counts the settings of the timers with this number
    const std::string *content = nullptr;
    size_t offset = 0; // in it
    bool has_error = false;
};

// How the process has set its datagram socket up.
struct socket_settings {
    uint16_t port = 0;
    uint32_t group = 0; // that it has joined
    unsigned group_interface = 0;
    unsigned sending_interface = 0;
    bool loops = true; // what it sends to the group comes back
    int priority = 0;
    int receive_buffer = 0;
    bool operator==(const socket_settings &) const = default;
};

struct datagram {
    uint32_t sender;
    shared_bytes bytes;
};

class process
{
public:
    static constexpr int FIRST_DESCRIPTOR = 3;

    explicit process(machine &host) : host_(host) {}
    process(const process &) = delete;
    process &operator=(const process &) = delete;
    ~process() { kill(); }

    // The process whose code runs now.
    static process &running();

    void start(std::vector<std::string> options);
    bool is_alive() const { return is_alive_; }
    bool is_serving() const { return is_serving_; } // it has come to its event loop
    void send_sigterm();
    void kill(); // ended() is not called
    // A process that gets no processor: what happens meanwhile waits for it.
    void set_frozen(bool is_frozen);
    void receive(const datagram &received);
    // Runs what calls the program's functions, as if the program did while it waits; it may not wait itself.
    void call(const std::function<void()> &what);

    // The descriptor of the first is FIRST_DESCRIPTOR.
    const std::vector<descriptor> &descriptors() const { return descriptors_; }
    const socket_settings &socket() const { return socket_; }
    size_t count_descriptors() const;
    size_t count_allocations() const { return memory_.count(); }
    size_t find_leak();
    // A descriptor that is open but watched by nobody, besides the one that watches; -1 when there is none.
    int find_unwatched() const;

    // For the system calls and the client library, which run on this process.
    machine &host() { return host_; }
    heap &memory() { return memory_; }
    bool fails(system_call call); // with errno set
    int open(const descriptor &opened);
    descriptor *find(int fd); // null, with errno set, when it isn't open
    void close(int fd);
    void arm(int fd, nanoseconds expiry, nanoseconds interval);
    bool is_readable(const descriptor &file) const;
    void mark_ready(int fd);
    int take_ready();
    bool is_signalled() const { return is_signalled_; }
    bool take_signal();
    void set_sigterm_handler(void (*handler)(int)) { sigterm_handler_ = handler; }
    std::deque<datagram> &datagrams() { return datagrams_; }
    socket_settings &socket() { return socket_; }
    void attach_session(int fd, mosquitto *client);
    // Lets the others run until something has happened to this process.
    void wait();
    void set_serving() { is_serving_ = true; }
    void wait_until(nanoseconds end);
    [[noreturn]] void exit(int status);
    void srand(unsigned seed) { random_ = random_stream(seed); }
    int rand();

    // Lets the process do all that it can do now.
    void run();

private:
    static void run_program(void *self);
    void end();
    void load();
    void wake(uint64_t start);
    void expire(uint64_t fd_and_armed);

    machine &host_;
    bool is_alive_ = false;
    bool is_serving_ = false;
    bool is_frozen_ = false;
    bool is_signalled_ = false;
    uint32_t starts_ = 0;
    std::vector<std::string> options_;
    std::vector<char *> arguments_; // not on the stack, which is left behind when the process ends
    int status_ = 0;
    random_stream random_{1};
    void (*sigterm_handler_)(int) = nullptr;
    std::vector<uintptr_t> variables_;
    heap memory_;
    fiber fiber_;
    std::vector<descriptor> descriptors_;
    std::deque<int> closed_; // numbers that have been in use, the oldest first
    std::deque<int> ready_;
    std::deque<datagram> datagrams_;
    socket_settings socket_;
    mosquitto *client_ = nullptr;
};

// The messages that wait for a client of the broker; defined with the client library.
bool has_input(const mosquitto &client);
// Frees the client of a process that ends without doing so.
void drop_client(mosquitto *client);

} // namespace sim
