// One node on a simulated platform: the daemon's own modules and its main on virtual clocks and timers, an
// in-memory MQTT client library and broker, captured datagrams, and failures on request.
//
// The daemon runs on a thread of its own, strictly in turns with the test: it runs while the test is inside
// start(), run(), advance() or a function that says so, until it waits for input or for a time that the test
// has not granted. In between the test may look at anything and may call functions of the daemon itself.
//
// Using a descriptor after its close, closing it twice, leaving one open that nothing watches, blocking for
// good and spinning without end fail the test.
#pragma once

#include "mqtt.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/types.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace sim
{

using namespace std::chrono_literals;
using duration = std::chrono::nanoseconds;
using lines = std::vector<std::string>;

//
// Running the daemon
//

// Runs a function as the daemon; its result is the exit status.
void start(std::function<int()> daemon);

// Runs the daemon's main with these options behind the program's name.
void start_daemon(std::vector<std::string> options);

// The same with -n, expects it to reach its event loop, and forgets what it sent on the way.
void start_node(int number);

// Lets the daemon do what is to be done now, or in the time given; it has ended or waits on return.
void run();
void advance(duration time);

// Delivers a signal that a handler is installed for, at the daemon's present wait.
void raise_signal(int signum);

bool is_running();
std::optional<int> exit_status();

// Time since the start of the simulation.
duration now();

// The wall clock in seconds since 1970; it runs on with the virtual time.
void set_wall_clock(time_t seconds);

// What the daemon has logged, "source: text" a line, the oldest first, since the last call.
lines take_log();

//
// Failures
//

// A failure of calls of a system function, of a function of the MQTT library, or of "new", an allocation that
// may fail.
class failure
{
public:
    // code_or_result: errno, or the result of a library function. about: a topic, file, option or interface;
    // "" for any.
    failure(const char *function, int code_or_result, std::string about = "")
        : call(function), code(code_or_result), detail(std::move(about))
    {
    }
    // The first of the matching calls from now on that fails.
    failure &from(unsigned nth_call) { return first = nth_call, *this; }
    // How many in a row fail.
    failure &times(unsigned number) { return count = number, *this; }
    // The errno that a library function leaves.
    failure &leaving(int number) { return library_errno = number, *this; }
    // What a system function returns instead of -1.
    failure &returning(int value) { return result = value, *this; }

    std::string call;
    int code;
    std::string detail;
    unsigned first = 1;
    unsigned count = 1;
    int library_errno = 0;
    int result = -1;
};
void fail(const failure &failure);

// The daemon never frees the next allocation that may fail, and means to.
void expect_leak();

// Runs the action at the start of the next call of the function, optionally only one about detail. The
// action runs on the daemon's turn.
void before(const char *call, const std::string &detail, std::function<void()> action);

//
// Network
//

inline constexpr uint8_t LOCAL_MAC[] = {0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E};
inline const std::string LOCAL_MAC_TEXT = "00-1A-2B-3C-4D-5E";

struct datagram {
    std::string address;
    std::string bytes;
    uint16_t port = 50004;
    bool operator==(const datagram &) const = default;
};

// Sends the daemon a datagram and lets it run.
void receive_datagram(const std::string &bytes, const std::string &from = "10.0.0.2");
// Those the daemon has sent since the last call.
std::vector<datagram> take_datagrams();

// Settings of the daemon's UDP socket in the order in which it made them, "SO_PRIORITY 4"; empty when it is
// closed.
lines socket_settings();

// Whether "eth0" (with LOCAL_MAC) and "fire" are up; a missing one doesn't exist.
std::map<std::string, bool> &interfaces();

//
// Files, descriptors, timers
//

// The text of a file that the daemon may read; no text: there is no such file. At first there are
// /REVISION, /REVISION_PRIAPP, /proc/cmdline and CARD_ADDRESS_FILE.
inline constexpr const char *CARD_ADDRESS_FILE = "/sim/card_address";
void set_file(const std::string &path, std::optional<std::string> text);

// The descriptor of an open timer last armed so, -1 when there is none.
int find_timer(duration first, duration interval = 0s);

// Kinds of the open descriptors in the order of their opening: "epoll", "timer", "socket", "mqtt", "file".
lines open_descriptors();
int descriptor_of(const std::string &kind);

// Reports these epoll events on a descriptor until it is closed.
void inject_events(int fd, uint32_t events);

//
// Bytes as text
//

std::string hex(std::string_view bytes);        // "01 0C"
std::string bytes(std::string_view hex_digits); // blanks between are skipped

void PrintTo(const datagram &datagram, std::ostream *stream);

inline lines operator+(lines first, const lines &second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// Every test ends with SIGTERM, an orderly end of the daemon and nothing left in the log.
class node : public testing::Test
{
protected:
    void TearDown() override;
};

} // namespace sim
