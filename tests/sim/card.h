// One card with the daemon, on the simulated platform of sim/, and a test that plays all that is outside of it: the card's
// other processes and clients at the broker, other nodes on the fire network, time, files, failing calls.
//
// Every test begins with a card of its own, whose daemon doesn't run yet. Whatever the test does, the daemon has done all
// that it can do at this moment of virtual time when the function returns; time passes in advance() alone.
#pragma once

#include "lone_card.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace card
{

using namespace std::chrono_literals;
using duration = std::chrono::nanoseconds;
using lines = std::vector<std::string>;
using sim::system_call;

inline const std::string LOCAL_MAC = {0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E};
inline const std::string LOCAL_MAC_TEXT = "00-1A-2B-3C-4D-5E";
inline const std::string OWN_TOPIC = "pub/diag/" + LOCAL_MAC_TEXT;

//
// The daemon
//

// With a card of its own, the last one's daemon having ended in order. None of what it says at its start is kept.
void start_node(int number = 7);
// The same on the card that there is, with these options; what it says is kept.
void start(const lines &options = {"-n", "7"});
// Ends it by SIGTERM and expects an orderly end, with nothing more in the log and nothing lost.
void stop();
bool is_running();
std::optional<int> exit_status();
sim::process &daemon();
// What the daemon has logged since the last call, "source: text" a line.
lines take_log();

// Calls functions of the daemon as its own code would.
void run_as_daemon(const std::function<void()> &call);
template <typename Call>
auto as_daemon(Call call)
{
    std::optional<decltype(call())> result;
    run_as_daemon([&] { result = call(); });
    return *result;
}

// The next of these calls but for those skipped fails, and at once something else may happen.
void fail(system_call call, int error, unsigned skipped = 0, const std::function<void()> &then = {});

//
// Time
//

duration now();
void advance(duration time);
// The wall clock in seconds since 1970; it runs on.
void set_wall_clock(time_t seconds);
// Whether a timer is armed that expires then, and each interval again.
bool has_timer(duration in, duration interval = 0s);
long count_timers();

//
// The broker
//

struct message {
    std::string topic;
    std::string payload;
    bool retain = true;
    bool operator==(const message &) const = default;
};
using messages = std::vector<message>;
void PrintTo(const message &message, std::ostream *stream);

sim::mqtt_broker &broker();
void publish(const std::string &topic, const std::string &payload, bool retain = true);
// What the broker retains there, "" for nothing.
std::string retained(const std::string &topic);
// What the daemon has published since the last call.
messages take_published();
// All that it has asked the broker for: "PUBLISH topic", "SUBSCRIBE filter", "UNSUBSCRIBE filter".
lines take_requests();
// The ids of its publications.
std::vector<int> take_message_ids();

//
// The fire network
//

struct datagram {
    std::string address;
    std::string bytes;
    duration at{}; // not compared
    bool operator==(const datagram &other) const { return address == other.address && bytes == other.bytes; }
};
using datagrams = std::vector<datagram>;
void PrintTo(const datagram &datagram, std::ostream *stream);

void receive_datagram(const std::string &bytes, const std::string &from = "10.0.0.2");
datagrams take_datagrams();

//
// The card
//

std::map<std::string, sim::network_interface> &interfaces();
std::map<std::string, std::string> &files();

//
// Bytes as text
//

std::string hex(std::string_view bytes);        // "01 0C"
std::string bytes(std::string_view hex_digits); // blanks between are skipped

inline lines operator+(lines first, const lines &second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

class node : public testing::Test
{
protected:
    node();
    ~node() override;
    void TearDown() override { stop(); }
};

// Whose daemon runs as number 7.
class started_node : public node
{
protected:
    void SetUp() override { start_node(); }
};

} // namespace card
