// What a broker's diagnostic topics say about the network: topic and payload in, a model and one line of text
// for each change out. Nothing here talks to a broker, or looks at a clock
// but current_moment().
//
// Every value keeps whether its topic is published at all and whether it could be decoded: a payload of the
// wrong form is never shown in part.
#pragma once

#include "common/netif.h"
#include "hwinfo/hwinfo.h"
#include "records.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

using mac_address = std::array<uint8_t, MAC_SIZE>;
std::string mac_text(const mac_address &mac);

// Two readings of one instant: steady for ages, wall for what people read.
struct moment {
    std::chrono::steady_clock::time_point steady;
    std::chrono::system_clock::time_point wall;
};

moment current_moment();

// The last value of a topic.
template <typename T>
struct fact {
    bool is_published = false; // false: never heard of, or withdrawn
    size_t size = 0;           // length of the payload
    std::optional<T> value;    // empty while is_published: the payload is malformed
};

// The topics pub/diag/<MAC>/<name> that hold one value.
enum node_topic {
    TOPIC_PORT_SUMMARY,
    TOPIC_PORT_MEDIA,
    TOPIC_JOB_REV,
    TOPIC_JOB_NAME,
    TOPIC_DOWNLOAD_STATUS,
    TOPIC_CF_FREE_SPACE,
    TOPIC_M301,
    TOPIC_M702,
    TOPIC_COMM_LOSS,
    TOPIC_DOWNLOAD_PENDING,
    TOPIC_REPEATER,
    TOPIC_SOFTWARE_VERSIONS,
    TOPIC_CARD_ADDR,
    NODE_TOPICS,
};
// The daemon withdraws the first eleven when a node leaves; the others stay.
constexpr int NODE_TOPICS_WITHDRAWN = TOPIC_SOFTWARE_VERSIONS;

enum class value_kind {
    TEXT,
    NUMBER,
    FLAG,      // "on" or "off"
    STRUCTURE, // taken apart in struct node
};

struct node_topic_info {
    const char *name;  // last level of the topic
    const char *label; // for people
    value_kind kind;
};
node_topic_info node_topic_of(int topic);

// One code for each front port; the code for none where the topic doesn't name the port.
using port_codes = std::array<int, LUM_FRONT_PORTS>;

using stats_record = std::array<uint8_t, STATS_BLOCK_SIZE>;
using pm_record = std::array<uint8_t, PM_RECORD_SIZE>;

struct stats_sample {
    stats_record record;
    moment when;
};

// Statistics and performance records of one port, as published.
struct port_records {
    fact<stats_record> stats;
    // The last two statistics whose time is known, for rates: a retained message doesn't tell when it was published.
    std::optional<stats_sample> sample;
    std::optional<stats_sample> sample_before;
    std::map<std::string, fact<pm_record>, std::less<>> pm; // by slot: "period0" ... "day6"
    fact<std::string> last_period;                          // the slot closed last
    fact<std::string> last_day;
    // The statistics when the running period began, and when that was; empty until a period has been seen to
    // close. The daemon publishes a period only when it closes.
    std::optional<stats_record> period_start;
    std::optional<moment> period_start_time;
    bool is_reset_seen = false; // and no period closed since: the running period began with the totals
};

struct software_version {
    std::string name;
    std::string version;
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

struct listed_ports {
    mac_address mac;
    uint8_t number;
    uint8_t ports; // bit n: port n
};

struct miswired_link {
    uint8_t number;
    uint8_t port;
    uint8_t peer_number;
    uint8_t peer_port;
    bool operator==(const miswired_link &) const = default;
};

enum port_list {
    LIST_LINK_DOWN,
    LIST_GROUND,
    LIST_MISWIRED,
    PORT_LISTS,
};

struct network {
    fact<mac_address> local;
    fact<bool> ring_degraded;
    std::map<unsigned, fact<int32_t>> rings; // of the local node, see ring_state_text()
    std::array<fact<std::vector<listed_ports>>, PORT_LISTS> lists;
    fact<std::vector<miswired_link>> miswired_links; // not published: no miswired link
    std::map<mac_address, node> nodes;               // also nodes that have left, see is_present

    bool is_local(const mac_address &mac) const { return local.value == mac; }
};

// Upper-case name of a port, or its number where it has none.
std::string port_text(int port);

// A port's number from its name in upper or lower case, empty for anything else.
std::optional<int> parse_port(std::string_view text);

// "7/A to 9/C": the ends as node number and port.
std::string miswired_link_text(const miswired_link &link);

// "closed", "open" or "not configured".
const char *ring_state_text(int32_t state);

// "green", "yellow" or "red".
const char *colour_name(int status);

// A topic pub/diag/<MAC>/<name> or pub/diag/<MAC>/<PORT>/<name>.
struct topic_place {
    mac_address mac;
    std::optional<int> port;
    std::string_view name; // within the topic's text
};
std::optional<topic_place> parse_topic_place(std::string_view topic);

// A node_topic, -1 for other names.
int node_topic_named(std::string_view name);

std::optional<int> port_list_of_topic(std::string_view topic); // a port_list

enum class change_detail {
    NETWORK, // not the contents of statistics and performance records
    RECORDS,
};

// Takes in one message and returns the changes it means, one line each. Of a retained message, which tells
// what was before the subscription, there are none. Topics that aren't known are passed over.
std::vector<std::string> network_apply(network &net, std::string_view topic, std::span<const uint8_t> payload,
                                       bool is_retained, const moment &now,
                                       change_detail detail = change_detail::NETWORK);

// An unsigned big-endian field of a published record.
uint64_t field_value(std::span<const uint8_t> record, size_t offset, size_t width);

// How much a counter grew each second between the last two statistics. Empty when their times aren't known, and for
// what isn't a counter of traffic.
std::optional<double> field_rate(const port_records &records, const stats_field &field);

// What the running period has of a field so far: the statistics less what they were when it began. Before the first
// close that is everything since a reset; without one, what a port counted before its first statistics message is in
// its totals but not in the period, so that only the counters copied from that message are known. Empty when the
// beginning wasn't seen, when there are no statistics, and for the time.
std::optional<uint64_t> running_period_value(const port_records &records, const pm_field &field);

// The node a user means: "local", a MAC address in either case with dashes, colons, dots or nothing between its
// bytes, or a number from 1 to 255.
struct node_reference {
    bool is_local = false;
    std::optional<mac_address> mac;
    std::optional<uint8_t> number;
};
std::optional<node_reference> parse_node_reference(std::string_view text);

// The nodes of the model that a reference fits: several where cards share a number.
std::vector<const node *> find_nodes(const network &net, const node_reference &reference);
