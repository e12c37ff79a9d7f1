// What the payloads of the diagnostic topics mean. A payload of the wrong form is never decoded in part: its
// decoder returns nothing.
#pragma once

#include "common/bytes.h"
#include "common/netif.h"
#include "hwinfo/hwinfo.h"
#include "records.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

using bytes = std::span<const uint8_t>;

std::string_view as_text(bytes payload);

// Outside text as it can be shown in any terminal: what isn't printable ASCII, and the backslash, as \xNN.
std::string printable(std::string_view text);

// UTF-8 without control characters.
bool is_printable(std::string_view text);

// --- nodes and ports

using mac_address = std::array<uint8_t, MAC_SIZE>;

// "02-00-00-00-00-07", the form of topics, and a MAC address in just that form.
std::string mac_text(const mac_address &mac);
std::optional<mac_address> parse_topic_mac(std::string_view text);
// A MAC address in either case, with dashes, colons, dots or nothing between its bytes.
std::optional<mac_address> parse_mac(std::string_view text);

// Upper-case name of a port, or its number where it has none; back from upper or lower case.
std::string port_text(int port);
std::optional<int> parse_port(std::string_view text);

// "AC": the ports of a mask, of which bit n stands for port n.
std::string port_letters(unsigned ports);

// A topic pub/diag/<MAC>/<name> or pub/diag/<MAC>/<PORT>/<name>.
struct topic_place {
    mac_address mac;
    std::optional<int> port;
    std::string_view name; // within the topic's text
};
std::optional<topic_place> parse_topic_place(std::string_view topic);

// --- the topics pub/diag/<MAC>/<name> that hold one value

// One code for each front port; the code for none where the topic doesn't name the port.
using port_codes = std::array<int, LUM_FRONT_PORTS>;

const char *colour_name(int status); // of a port_status: "green", "yellow" or "red"

std::optional<port_codes> decode_colours(bytes payload); // PORT_STATUS_*
std::optional<port_codes> decode_media(bytes payload);   // LUM_TYPE_*

struct software_version {
    std::string name;
    std::string version;
};
std::optional<std::vector<software_version>> decode_versions(bytes payload);

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
    std::optional<std::string> (*decode)(bytes payload);
};
extern const std::array<node_topic_info, NODE_TOPICS> NODE_TOPIC_INFOS; // by node_topic
std::optional<node_topic> node_topic_named(std::string_view name);

// --- the lists of the network

enum port_list {
    LIST_LINK_DOWN,
    LIST_GROUND,
    LIST_MISWIRED,
    PORT_LISTS,
};

struct port_list_info {
    const char *topic;
    const char *name;  // in JSON and metrics
    const char *label; // in the middle of a sentence
    const char *title;
};
extern const std::array<port_list_info, PORT_LISTS> PORT_LIST_INFOS; // by port_list
std::optional<port_list> port_list_of_topic(std::string_view topic);

struct listed_ports {
    mac_address mac;
    uint8_t number;
    uint8_t ports; // bit n: port n
};
using port_list_value = std::vector<listed_ports>;
std::optional<port_list_value> decode_port_list(bytes payload);
unsigned ports_in(const port_list_value &list, const mac_address &mac); // 0 where it isn't in the list

struct miswired_link {
    uint8_t number;
    uint8_t port;
    uint8_t peer_number;
    uint8_t peer_port;
    bool operator==(const miswired_link &) const = default;
};
std::optional<std::vector<miswired_link>> decode_miswired_links(bytes payload);
std::string miswired_link_text(const miswired_link &link); // "7/A to 9/C": the ends as node number and port

std::optional<bool> decode_ring_degraded(bytes payload);
std::optional<int32_t> decode_ring_state(bytes payload);
const char *ring_state_text(int32_t state); // "closed", "open" or "not configured"

// --- the records of ports

using stats_record = std::array<uint8_t, STATS_BLOCK_SIZE>;
using pm_record = std::array<uint8_t, PM_RECORD_SIZE>;
std::optional<stats_record> decode_stats(bytes payload);
std::optional<pm_record> decode_pm(bytes payload);

// A field of STATS_FIELDS or PM_FIELDS in its record.
template <typename Record, typename Field>
uint64_t field_value(const Record &record, const Field &field)
{
    return load_be(record.data() + field.offset, field.width);
}
int64_t closing_time(const pm_record &record); // in seconds since 1970 UTC

// The slot of a performance record, "period0" to "period95" and "day0" to "day6".
std::optional<std::string> decode_period_slot(bytes payload);
std::optional<std::string> decode_day_slot(bytes payload);
bool is_slot(std::string_view text); // of either
