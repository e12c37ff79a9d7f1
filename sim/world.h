// Everything in one run: the time, the network, the cards, their clients, what is planned and who watches.
#pragma once

#include "client.h"
#include "fire_network.h"
#include "monitor.h"
#include "node.h"
#include "plan.h"
#include "random.h"
#include "timeline.h"
#include "topic_table.h"

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sim
{

struct settings {
    uint64_t seed = 1;
    size_t nodes = 10;
    nanoseconds length = hours(1);
    topology shape = topology::RING;
    nanoseconds trace_from{};
};

// What has happened in a run.
struct tally {
    uint64_t events;
    uint64_t datagrams;
    uint64_t received;
    uint64_t lost;
    uint64_t publications;
    uint64_t facts;
    uint64_t requests;
    uint64_t answers;
    uint64_t relayed;
    uint64_t daemon_starts;
    uint64_t daemon_ends;
    uint64_t log_lines;
    uint64_t checks;
    uint64_t happened[HAPPENINGS];
};

struct violation {
    char invariant[64];
    char text[512];
    nanoseconds when;
    int64_t nodes[2]; // -1: none
};

// Who is told how the run goes.
struct reporter {
    void (*progress)(nanoseconds now, const tally &so_far);
    void (*violated)(const violation &found, const tally &so_far); // does not return
};

// Purposes of random streams.
enum class purpose : uint64_t { PLAN = 1, NETWORK, BROKER, FACTS, CLIENT, ADDRESSES, CHECKS };

class world
{
public:
    // The trace goes to this file unless it is null.
    world(const settings &chosen, FILE *trace, const reporter &out);

    // Carries the plan out.
    void run(const std::vector<planned> &plan);

    timeline &clock() { return clock_; }
    topic_table &topics() { return topics_; }
    fire_network &fire() { return fire_; }
    monitor &watch() { return monitor_; }
    tally &count() { return tally_; }
    size_t size() const { return nodes_.size(); }
    node &at(size_t index) { return *nodes_[index]; }
    random_stream random(purpose what, size_t index = 0) const
    {
        return random_stream(settings_.seed, static_cast<uint64_t>(what), index);
    }
    nanoseconds stats_period() const { return seconds(20); }
    // Since when no datagram has been lost, doubled or overtaken on purpose.
    nanoseconds fair_since() const { return fair_since_; }
    std::vector<std::pair<topic_id, shared_bytes>> addresses_known_to(size_t index);
    const std::vector<size_t> &peers_of(size_t index) const { return peers_[index]; }
    // The node with the address; size() when there is none.
    size_t find_node(std::span<const uint8_t> mac) const;
    // The node whose own topic this is; size() for none.
    static constexpr size_t OWN_TOPIC_PREFIX = std::string_view("pub/diag/02-00-00-00-00-01/").size();
    size_t find_owner(std::string_view topic) const;

    void connectivity_changed() { monitor_.connectivity_changed(); }

    bool is_traced() const { return trace_ != nullptr && clock_.now() >= settings_.trace_from; }
    [[gnu::format(printf, 3, 4)]] void trace(size_t node, const char *format, ...);
    void trace_bytes(size_t node, const char *what, uint32_t address, const shared_bytes &datagram);
    void trace_message(size_t node, const mqtt_message &message);
    [[noreturn, gnu::format(printf, 4, 5)]] void fail(const char *invariant, size_t node, const char *format,
                                                      ...);
    [[noreturn, gnu::format(printf, 5, 6)]] void fail(const char *invariant, size_t node, size_t other,
                                                      const char *format, ...);

private:
    void happen(uint64_t index);
    void happen_to_network(const planned &item);
    void happen_to_node(const planned &item, node &target, random_stream &random);
    void happen_to_broker(const planned &item, node &target, random_stream &random);
    void mend(uint64_t index);
    void cut(const planned &item);
    void set_ends(size_t link, bool is_whole);
    void storm(node &target, random_stream &random);
    void garbage(node &target, random_stream &random);
    void bad_input(node &target, random_stream &random);
    void change_link(size_t node, int port, bool is_down);
    void sample(uint64_t);
    void calm(uint64_t);
    [[noreturn, gnu::format(printf, 5, 0)]] void report(const char *invariant, int64_t node, int64_t other,
                                                        const char *format, va_list arguments);

    settings settings_;
    timeline clock_;
    topic_table topics_;
    fire_network fire_;
    monitor monitor_;
    tally tally_{};
    std::vector<std::unique_ptr<node>> nodes_;
    std::vector<std::unique_ptr<client_group>> clients_;
    std::vector<std::vector<size_t>> peers_; // whose fire addresses each card knows
    const std::vector<planned> *plan_ = nullptr;
    std::vector<unsigned> cuts_; // of each link, how many are not mended yet
    nanoseconds fair_since_{};
    FILE *trace_;
    reporter out_;
};

} // namespace sim
