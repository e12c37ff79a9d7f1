// Sessions with the brokers of a site, each served by a thread of its own, which connects again whenever one is lost.
#pragma once

#include "broker/session.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>

class signal_input;

class site_brokers
{
public:
    enum class state {
        CONNECTING,
        LOADING, // what is retained comes
        THERE,   // all of it has come
        AWAY,
    };
    // Called from the threads, one at a time, under the lock.
    struct listener {
        std::function<void(size_t broker, std::string_view topic, std::span<const uint8_t> payload,
                           bool is_retained)>
            message;
        std::function<void(size_t broker, state now)> change;
    };

    site_brokers(const std::vector<broker_address> &addresses, const broker_login &login,
                 std::vector<std::string> filters, listener handlers);
    ~site_brokers();
    site_brokers(const site_brokers &) = delete;
    site_brokers &operator=(const site_brokers &) = delete;

    // Waits until each broker is there, or away. Throws when none is there.
    void load(const signal_input &signals);
    // Waits until something has come, or can be read from another descriptor instead; until a signal asks to end, or the time is
    // over.
    wait_end wait(const signal_input &signals, std::chrono::milliseconds limit, int other = -1);
    // Waits for all of it; take_signal says which signals end the wait.
    wait_end wait(const signal_input &signals, std::chrono::milliseconds limit, const wait_input &input,
                  const std::function<bool(int)> &take_signal);
    // Takes more filters in: what their topics have retained has come when this returns.
    void subscribe(const std::vector<std::string> &more, const signal_input &signals);

    // The same for a loop of the caller's: look_after() is due when the descriptor can be read, and each second. Brokers that say
    // nothing, not even when they are asked, are taken to be away.
    int descriptor() const { return event; }
    void look_after();

    // Whoever looks at what the listener has taken in holds this.
    std::unique_lock<std::mutex> lock() { return std::unique_lock(mutex); }

    size_t count() const { return links.size(); }
    const broker_address &address(size_t broker) const { return links[broker].where; }
    state state_of(size_t broker) const { return links[broker].now; }
    const std::string &reason(size_t broker) const { return links[broker].reason; } // of AWAY

    // Sends at QoS 1 to the broker.
    void publish(size_t broker, const std::string &topic, const std::string &payload);

private:
    struct link {
        site_brokers *owner;
        size_t index;
        broker_address where;
        mosquitto *client = nullptr;
        state now = state::CONNECTING;
        std::string reason = {};
        int awaited = 0;                                  // the request whose answer comes last; 0: none
        bool is_behind_barrier = false;                   // it is the barrier's, not that of the last filter
        std::chrono::steady_clock::time_point heard = {}; // when anything last came
        std::chrono::steady_clock::time_point told = {};  // the broker, something while it loads
        std::optional<std::chrono::steady_clock::time_point> asked = {}; // since, for a sign of life
        bool is_silent = false; // away for its silence; the connection is still there
        std::thread server = {};
    };

    void open(link &opened, const broker_login &login);
    void serve(link &served);
    void set_state(link &changed, state now, const std::string &reason = "");
    void wake() const;
    void hear(link &from);
    static bool is_loading(const link &one);
    bool is_settled();
    std::string settle(const signal_input &signals); // why some are away
    void ask(link &asked, std::span<const std::string> wanted);

    std::deque<link> links;
    std::vector<std::string> filters;
    listener handlers;
    std::mutex mutex;
    std::condition_variable ending;
    bool is_ending = false;
    int event;
};
