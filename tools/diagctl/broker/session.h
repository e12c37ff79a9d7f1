// A session with a broker, served while something waits. A lost session is not taken up again: what is called then throws.
#pragma once

#include "failure.h"

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

class signal_input;
struct mosquitto;
struct mosquitto_message;

struct broker_login {
    std::string user;     // empty: none
    std::string password; // ignored without a user
    std::string ca_file;  // empty: no TLS
};
// For a client that isn't connected yet.
void set_login(mosquitto *client, const broker_login &login);
// What a result of the library means, for people; errno still is its call's.
std::string reason_of(int result);

struct broker_address {
    std::string host;
    int port;
    broker_login login = {};

    std::string text() const { return host + ":" + std::to_string(port); }
};

// Called for each message; topic and payload are valid only during the call. True: no other handler gets it.
using message_handler =
    std::function<bool(std::string_view topic, std::span<const uint8_t> payload, bool is_retained)>;

enum class wait_end {
    DONE,        // is_done said so
    TIMEOUT,     // the time is over
    INTERRUPTED, // by a signal
};

// Something else to look at while a session waits.
struct wait_input {
    int descriptor;             // -1: nothing to look at any more
    std::function<void()> take; // called when there is something to read, or the end
};

// A broker that says nothing for a while is asked to: a connection to one that stands still, or is cut off, looks like one to a
// quiet network. The library's keepalive takes up to twenty seconds to tell.
struct sign_of_life {
    static constexpr std::chrono::milliseconds SILENCE{1500};
    static constexpr std::chrono::milliseconds ANSWER_TIME{3000};
    static std::string words(); // no answer came
};

// What tells that everything retained has come: the answers to these subscriptions of a topic without a value, asked for once
// all others are answered. mosquitto answers a subscription before it sends what is retained for it, and while the client
// hasn't taken what was sent before it leaves that lying until it next has something for the client: the answers of several
// subscriptions at once overtake it. When all are answered, either it is on its way or the client has taken everything
// else, so that the first request here sends it, behind its own answer; the answer to the second comes behind it.
namespace barrier
{
constexpr size_t REQUESTS = 2;
}

class session
{
public:
    enum class retain_flags {
        OF_SUBSCRIPTION, // a message's is_retained tells that it was there before the subscription
        AS_PUBLISHED,    // ... that it was published to be retained; takes a broker that speaks MQTT 5
    };
    // Connects: 5 s at most for the TCP connection, and for the broker's answer. watched: see watch(). always: looked at in
    // every wait, that for the broker's answer included.
    explicit session(broker_address broker, const signal_input *watched = nullptr,
                     retain_flags wanted = retain_flags::OF_SUBSCRIPTION, std::span<wait_input> always = {});
    ~session();
    session(const session &) = delete;
    session &operator=(const session &) = delete;

    const broker_address &address() const { return where; }

    // Handlers are asked in the order in which they came.
    void listen(message_handler handler);
    // Subscribes; what the filters' topics have retained has been handled when this returns.
    void subscribe(const std::vector<std::string> &filters);

    // Sends a message at QoS 1. It may still be on its way: is_delivered() tells whether all have been acknowledged.
    void publish(const std::string &topic, std::span<const uint8_t> payload, bool is_retained);
    bool is_delivered() const { return publications_pending == 0; }

    // From here on signals end a wait, or take_signal, given, decides which do.
    void watch(const signal_input &signals, std::function<bool(int signal)> take_signal = {});

    // From here on a broker that gives no sign of life is lost.
    void expect_signs_of_life() { is_life_expected = true; }

    // Serves the session until something of it happens. is_done is asked after each message or packet, and once a second;
    // it may leave next_look the time after which it wants to be asked again.
    static constexpr std::chrono::milliseconds FOREVER = std::chrono::years(10);
    wait_end wait(const std::function<bool()> &is_done, std::chrono::milliseconds limit,
                  std::span<wait_input> inputs = {});
    std::chrono::milliseconds next_look = std::chrono::milliseconds::max();

    [[noreturn]] void report_lost(const std::string &reason) const;

private:
    using library_handle = std::unique_ptr<mosquitto, void (*)(mosquitto *)>;

    void connect();
    void grant(const std::vector<std::string> &filters);
    void wait_for_answer(const std::function<bool()> &is_done);
    bool take_signal();
    bool look(std::chrono::milliseconds limit, std::span<wait_input> inputs);
    void serve(short events);
    std::chrono::milliseconds look_for_life();
    void handle(const mosquitto_message &message) noexcept;
    void install_callbacks();

    broker_address where;
    retain_flags flags;
    std::span<wait_input> standing;
    library_handle client;
    std::vector<message_handler> handlers;
    std::exception_ptr handler_failure; // thrown once the library has returned
    const signal_input *signals = nullptr;
    std::function<bool(int)> decide_signal;
    int connect_answer;
    bool is_open = false;
    size_t subscriptions_granted = 0;
    bool is_subscription_refused = false;
    size_t publications_pending = 0;
    bool is_life_expected = false;
    std::chrono::steady_clock::time_point heard = std::chrono::steady_clock::now();
    std::optional<std::chrono::steady_clock::time_point> asked_for_life;
};
