// What a broker's diagnostic topics say about the network: topic and payload in, a model and the changes that
// they mean out. Nothing here talks to a broker or a terminal or looks at a clock.
//
// Every value keeps whether its topic is published at all and whether it could be decoded.
#pragma once

#include "network/change.h"
#include "network/names.h"
#include "network/payloads.h"

#include <chrono>
#include <map>

// Two readings of one instant: steady for ages, wall for what people read.
struct moment {
    std::chrono::steady_clock::time_point steady;
    std::chrono::system_clock::time_point wall;
};

// The last value of a topic.
template <typename T>
struct fact {
    bool is_published = false; // false: never heard of, or withdrawn
    size_t size = 0;           // length of the payload
    std::optional<T> value;    // empty while is_published: the payload is malformed

    bool is_malformed() const { return is_published && !value; }
};

struct stats_sample {
    stats_record record;
    moment when;
};

// Statistics and performance records of one port, as published.
struct port_records {
    fact<stats_record> stats;
    // The last two statistics whose time is known, for rates: a retained message doesn't tell when it was
    // published.
    std::optional<stats_sample> sample;
    std::optional<stats_sample> sample_before;
    std::map<std::string, fact<pm_record>, std::less<>> pm; // by slot: "period0" ... "day6"
    fact<std::string> last_period;                          // the slot closed last
    fact<std::string> last_day;
    // The statistics when the running period began; empty until a period has been seen to close. The daemon
    // publishes a period only when it closes.
    std::optional<stats_record> period_start;
    bool is_reset_seen = false; // and no period closed since: the running period began with the totals
};

struct node {
    mac_address mac{};
    bool is_present = false; // one of the topics withdrawn with a node is published
    // Known once a network-wide list has named the node: no topic of the node itself tells it.
    std::optional<uint8_t> number;
    std::array<fact<std::string>, NODE_TOPICS> facts; // decoded, for people
    std::array<bool, NODE_TOPICS> is_heard{};         // what comes next on the topic is a change
    std::optional<port_codes> colours;                // PORT_STATUS_*, empty unless port_summary is valid
    std::optional<port_codes> media;                  // LUM_TYPE_*, empty unless port_media is valid
    std::vector<software_version> versions;           // operating system image, boot loader, application
    std::map<int, port_records> ports;                // by port number, the CPU port included
    std::optional<moment> last_change;                // of anything but ports; empty: none since the start
};

// What one card says of the whole network.
struct card_view {
    fact<mac_address> local; // the card itself
    fact<bool> ring_degraded;
    std::map<unsigned, fact<int32_t>> rings; // of the card itself, see ring_state_text()
    std::array<fact<port_list_value>, PORT_LISTS> lists;
    fact<std::vector<miswired_link>> miswired_links; // not published: no miswired link

    bool is_local(const mac_address &mac) const { return local.value == mac; }
    // The ports of a node that a list names.
    unsigned listed(port_list list, const mac_address &mac) const
    {
        return lists[list].value ? ports_in(*lists[list].value, mac) : 0;
    }
};

struct network : card_view {
    std::map<mac_address, node> nodes; // also nodes that have left, see is_present
    node_names names;

    // What can be looked at as a node: it is present, or the card itself.
    bool has(const node &item) const { return item.is_present || is_local(item.mac); }
};

enum class change_detail {
    NETWORK, // not the contents of statistics and performance records
    RECORDS,
};

// Takes in one message and returns the changes it means. Of a retained message, which tells what was before
// the subscription, there are none. Topics that aren't known are passed over.
changes network_apply(network &net, std::string_view topic, bytes payload, bool is_retained,
                      const moment &now, change_detail detail = change_detail::NETWORK);

// How much a counter grew each second between the last two statistics. Empty when their times aren't known,
// and for what isn't a counter of traffic.
std::optional<double> field_rate(const port_records &records, const stats_field &field);

// What the running period has of a field so far: the statistics less what they were when it began. Before the
// first close that is everything since a reset; without one, what a port counted before its first statistics
// message is in its totals but not in the period, so that only the counters copied from that message are
// known. Empty when the beginning wasn't seen, when there are no statistics, and for the time.
std::optional<uint64_t> running_period_value(const port_records &records, const pm_field &field);

// The performance records of a port in the order in which they were closed, what can't be decoded first.
enum class pm_kind {
    PERIODS,
    DAYS,
};
struct closed_record {
    std::string slot;
    fact<pm_record> record;
    bool is_last; // closed last

    std::chrono::system_clock::time_point time() const; // only of what can be decoded
};
std::vector<closed_record> closed_records(const node &shown, int port, pm_kind kind);

// The present nodes, the local one among them.
enum class node_order {
    MAC, // the local node first
    NUMBER,
    FAULTS, // most red ports first, then most yellow ones
    CHANGE, // the latest first
};
std::vector<const node *> sorted_nodes(const network &net, node_order order);

// The node a user means: "local", a MAC address in any form that parse_mac() knows, a number from 1 to 255,
// or a name. A name has the addresses that the names give it, none where they don't have it.
struct node_reference {
    bool is_local = false;
    std::optional<uint8_t> number = {};
    std::vector<mac_address> macs = {};
};
std::optional<node_reference> parse_node_reference(std::string_view text, const node_names &names);

// The nodes of the model that a reference fits: several where cards share a number or a name.
std::vector<const node *> find_nodes(const network &net, const node_reference &reference);

// Whether a change is one of the node's or nodes': it names it by address or number, or as an end of a link.
bool concerns(const network &net, const node_reference &reference, const change &item);
