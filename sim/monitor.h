// Who watches a run. Each invariant is a checker that hears of everything and fails the run when it doesn't hold.
#pragma once

#include "mqtt_broker.h"

#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

namespace sim
{

class node;
class world;

// A request that a client has made and the daemon has been given.
struct client_request {
    uint32_t client;
    uint32_t transaction;
    enum class kind { SUBSCRIBE, UNSUBSCRIBE, DISCONNECT, TARGETS, OTHER } type;
    std::vector<size_t> targets = {}; // nodes
    std::string filter = {};
    topic_id target_topic = 0;      // where the targets publish
    std::string_view expected = {}; // how the answer begins behind the numbers; empty: any
};

class checker
{
public:
    explicit checker(world &where) : world_(where) {}
    virtual ~checker() = default;
    checker(const checker &) = delete;
    checker &operator=(const checker &) = delete;

    virtual void starts(node &) {}
    virtual void told_to_stop(node &) {}
    virtual void killed(node &) {}
    virtual void ended(node &, int /*status*/) {}
    virtual void broker_stops(node &) {}
    virtual void excuse(node &, const char * /*why*/) {} // this may end the daemon
    virtual void logs(node &, const char * /*line*/) {}
    virtual void sends(node &, uint32_t /*address*/, std::span<const uint8_t> /*datagram*/) {}
    virtual void receives(node &, uint32_t /*sender*/, std::span<const uint8_t> /*datagram*/) {}
    virtual void published(node &, const mqtt_message &) {}
    virtual void requested(node &, const client_request &) {}
    virtual void connectivity_changed() {}
    virtual void sample() {} // now and then
    virtual void calm() {}   // after a quiet time

protected:
    world &world_;
};

// Passes everything on to all checkers.
class monitor
{
public:
    void add(std::unique_ptr<checker> added) { checkers_.push_back(std::move(added)); }

    void starts(node &which) { tell(&checker::starts, which); }
    void told_to_stop(node &which) { tell(&checker::told_to_stop, which); }
    void killed(node &which) { tell(&checker::killed, which); }
    void ended(node &which, int status) { tell(&checker::ended, which, status); }
    void broker_stops(node &which) { tell(&checker::broker_stops, which); }
    void excuse(node &which, const char *why) { tell(&checker::excuse, which, why); }
    void logs(node &which, const char *line) { tell(&checker::logs, which, line); }
    void sends(node &which, uint32_t address, std::span<const uint8_t> datagram)
    {
        tell(&checker::sends, which, address, datagram);
    }
    void receives(node &which, uint32_t sender, std::span<const uint8_t> datagram)
    {
        tell(&checker::receives, which, sender, datagram);
    }
    void published(node &which, const mqtt_message &message) { tell(&checker::published, which, message); }
    void requested(node &which, const client_request &request) { tell(&checker::requested, which, request); }
    void connectivity_changed() { tell(&checker::connectivity_changed); }
    void sample() { tell(&checker::sample); }
    void calm() { tell(&checker::calm); }

private:
    template <typename Method, typename... Arguments>
    void tell(Method method, Arguments &&...arguments)
    {
        for (const auto &each : checkers_) {
            ((*each).*method)(arguments...);
        }
    }

    std::vector<std::unique_ptr<checker>> checkers_;
};

// The invariants; each file says what a user loses when its does not hold.
std::unique_ptr<checker> make_topics_checker(world &where);
std::unique_ptr<checker> make_requests_checker(world &where);
std::unique_ptr<checker> make_statistics_checker(world &where);
std::unique_ptr<checker> make_performance_checker(world &where);
std::unique_ptr<checker> make_subscriptions_checker(world &where);
std::unique_ptr<checker> make_ends_checker(world &where);
std::unique_ptr<checker> make_resources_checker(world &where);
std::unique_ptr<checker> make_packets_checker(world &where);
std::unique_ptr<checker> make_payloads_checker(world &where);

} // namespace sim
