#include "summary.h"

#include "broker.h"
#include "common/bytes.h"
#include "common/lumlog.h"
#include "common/netif.h"
#include "common/record_list.h"
#include "common/text.h"
#include "common/unique_fd.h"
#include "event.h"
#include "hwinfo/hwinfo.h"
#include "records.h"
#include "remote.h"
#include "summary_record.h"
#include "timer.h"
#include "topics.h"
#include "utils.h"

#include <sys/timerfd.h>
#include <unistd.h>
// An index that finds no memory fails like the allocation of the record that it is for.
#define HASH_NONFATAL_OOM 1
#include <uthash.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <memory>
#include <new>
#include <span>
#include <string_view>
#include <utility>

namespace
{

// Operators search for the messages of this file as they are, "subsribe" and "coudln't" included.
constexpr const char *log_source = "summary.c";

constexpr time_t SEND_PERIOD = 3;          // seconds
constexpr time_t PURGE_AGE = 35;           // seconds
constexpr time_t RECENT_CHANGE_WINDOW = 3; // seconds
constexpr timer_names SEND = {"send", "send"};
constexpr timer_names PURGE = {"purge", "purge"};
constexpr uint32_t PERIODIC_SEND_EVERY = 5; // ticks of the send timer
constexpr uint32_t FULL_SEND_EVERY = 20;    // likewise

constexpr size_t PORT_TEXT_SIZE = 128; // of the colours or media of eight ports

// What is known of a node.
struct summary {
    uint8_t mac[MAC_SIZE];
    uint8_t data[SUMMARY_SIZE];
    uint16_t seen;       // bit (1 << type): the section was received since the record was made
    timespec last_heard; // monotonic time of the last summary received
    summary *prev;
    summary *next;
    UT_hash_handle hh;
};

record_list<summary> summaries; // the local node is the oldest
summary *summaries_by_mac;      // the same: in a large network hundreds are looked up a second
summary *local_summary;
timespec info_updates[SUMMARY_INFO_COUNT]; // monotonic, each local section's last change; zero for never
uint32_t num_sends;                        // expiries of the send timer

// Every list is published before the next one is built.
uint8_t port_list[PORT_LIST_MAX * PORT_LIST_RECORD_SIZE];
uint8_t miswired_links[MISWIRED_LINKS_MAX * MISWIRED_LINK_SIZE];

topic_text node_topic(const summary &node, const char *name)
{
    return topic_text(NODE_TOPIC_FORMAT, mac_addr_to_str(node.mac), name);
}

// The bit of a port in a mask, 0 for a port that has none: the CPU port.
uint8_t port_bit(int port)
{
    return port >= LUM_PORT_A && port < LUM_FRONT_PORTS ? static_cast<uint8_t>(1U << port) : uint8_t{0};
}

void set_bits(uint8_t &mask, uint8_t bits, bool on)
{
    mask = static_cast<uint8_t>(on ? mask | bits : mask & ~bits);
}

// The three bytes of a front port in the miswiring section.
size_t miswired_peer_offset(int port)
{
    return SUMMARY_MISWIRED_PEERS + static_cast<size_t>(port) * SUMMARY_MISWIRED_PEER_SIZE;
}

// Notes that a section of the local summary has changed. Without the time the change goes out with the next
// periodic summary.
void stamp_change(summary_info type)
{
    timespec now;
    if (get_time(now, log_source) == 0) {
        info_updates[type] = now;
    }
}

//
// Lists and texts built from the summaries
//

// The nodes whose mask at this offset isn't empty, in the shared buffer.
const uint8_t *format_port_list(size_t mask_offset, size_t &length_out)
{
    size_t length = 0;
    for (const summary &node : summaries) {
        if (length == sizeof port_list) {
            break;
        }
        if (node.data[mask_offset] == 0) {
            continue;
        }
        uint8_t *const record = port_list + length;
        memcpy(record + PORT_LIST_MAC, node.mac, MAC_SIZE);
        record[PORT_LIST_NODE_NUM] = node.data[SUMMARY_NODE_NUM];
        record[PORT_LIST_PORTS] = node.data[mask_offset];
        length += PORT_LIST_RECORD_SIZE;
    }
    if (length == 0) {
        port_list[length++] = 0;
    }
    length_out = length;
    return port_list;
}

int publish_port_list(size_t mask_offset, const char *topic)
{
    size_t length;
    const uint8_t *const list = format_port_list(mask_offset, length);
    if (broker_publish(topic, list, length) == -1) {
        return log_failure("couldn't publish port list to %s", topic);
    }
    return 0;
}

// A link that is seen miswired from both of its ends is listed once.
bool is_link_listed(size_t length, uint8_t node_number, uint8_t port)
{
    for (size_t i = 0; i < length; i += MISWIRED_LINK_SIZE) {
        if (miswired_links[i + MISWIRED_LINK_PEER_NODE_NUM] == node_number &&
            miswired_links[i + MISWIRED_LINK_PEER_PORT] == port) {
            return true;
        }
    }
    return false;
}

size_t format_miswired_links()
{
    size_t length = 0;
    for (const summary &node : summaries) {
        for (int port = LUM_PORT_A; port < LUM_FRONT_PORTS; port++) {
            if ((node.data[SUMMARY_MISWIRED] & port_bit(port)) == 0) {
                continue;
            }
            if (length == sizeof miswired_links) {
                return length;
            }
            const uint8_t *const peer = node.data + miswired_peer_offset(port);
            const uint8_t node_number = node.data[SUMMARY_NODE_NUM];
            const uint8_t local_port = peer[SUMMARY_MISWIRED_LOCAL_PORT];
            if (is_link_listed(length, node_number, local_port)) {
                continue;
            }
            uint8_t *const record = miswired_links + length;
            record[MISWIRED_LINK_NODE_NUM] = node_number;
            record[MISWIRED_LINK_PORT] = local_port;
            record[MISWIRED_LINK_PEER_NODE_NUM] = peer[SUMMARY_MISWIRED_PEER_NODE];
            record[MISWIRED_LINK_PEER_PORT] = peer[SUMMARY_MISWIRED_PEER_PORT];
            length += MISWIRED_LINK_SIZE;
        }
    }
    return length;
}

int publish_miswired_lists()
{
    if (publish_port_list(SUMMARY_MISWIRED, MISWIRED_TOPIC) == -1) {
        return -1;
    }
    if (broker_publish(MISWIRED_LINKS_TOPIC, miswired_links, format_miswired_links()) == -1) {
        return log_failure("couldn't publish miswired links to %s", MISWIRED_LINKS_TOPIC);
    }
    return 0;
}

int publish_miswired()
{
    if (publish_miswired_lists() == -1) {
        return log_failure("couldn't publish miswired ports and links");
    }
    return 0;
}

// Style 7 is the survival of a cut: a node with fire ports has to be on a ring, and none of its rings open.
bool is_degraded_style7(const uint8_t *data)
{
    return data[SUMMARY_FIRE_PORTS] != 0 && (data[SUMMARY_RINGS] == 0 || data[SUMMARY_DEGRADED_RINGS] != 0);
}

int publish_network_style7()
{
    uint8_t degraded = 0;
    for (const summary &node : summaries) {
        if (is_degraded_style7(node.data)) {
            degraded = 1;
            break;
        }
    }
    if (broker_publish(NETWORK_STYLE7_TOPIC, &degraded, sizeof degraded) == -1) {
        log_error("couldn't publish 0x%02X to %s", degraded, NETWORK_STYLE7_TOPIC);
        return log_failure("couldn't publish global style 7 status");
    }
    return 0;
}

// A name for the ports of the mask at this offset of the summary.
struct mask_name {
    size_t offset;
    const char *name;
};

constexpr mask_name PORT_COLOURS[] = {
    {SUMMARY_RED, "red"}, {SUMMARY_YELLOW, "yellow"}, {SUMMARY_GREEN, "green"}};
constexpr mask_name PORT_MEDIA[] = {{SUMMARY_MEDIA_ETH, "eth"},
                                    {SUMMARY_MEDIA_DSL, "dsl"},
                                    {SUMMARY_MEDIA_SMF, "smf"},
                                    {SUMMARY_MEDIA_MMF, "mmf"}};

// Writes {"A":"green","C":"red"}, each front port with the name of the first mask that holds it; false when
// the text does not fit.
bool format_ports(const summary &node, std::span<const mask_name> masks, char (&text)[PORT_TEXT_SIZE])
{
    size_t length = 0;
    text[length++] = '{';
    for (int port = LUM_PORT_A; port < LUM_FRONT_PORTS; port++) {
        const auto mask = std::find_if(masks.begin(), masks.end(), [&](const mask_name &candidate) {
            return (node.data[candidate.offset] & port_bit(port)) != 0;
        });
        if (mask == masks.end()) {
            continue;
        }
        const int written = snprintf(text + length, sizeof text - length, "\"%s\":\"%s\",",
                                     hwinfo_lumport_enum_to_str_bigcap(port), mask->name);
        if (written < 0 || static_cast<size_t>(written) >= sizeof text - length) {
            return false;
        }
        length += static_cast<size_t>(written);
    }
    if (length > 1) {
        length--; // the comma behind the last port
    }
    text[length] = '}';
    text[length + 1] = '\0';
    return true;
}

// Logs a failure, unlike publish_node_bytes below, whose callers name what they publish.
int publish_text(const summary &node, const char *name, const char *text)
{
    const topic_text topic = node_topic(node, name);
    if (broker_publish(topic.text, text, strlen(text)) == -1) {
        return log_failure("couldn't publish %s to %s", text, topic.text);
    }
    return 0;
}

int publish_port_summary(const summary &node)
{
    char text[PORT_TEXT_SIZE];
    if (!format_ports(node, PORT_COLOURS, text)) {
        return log_failure("buffer size too small for port summary");
    }
    return publish_text(node, NODE_PORT_SUMMARY, text);
}

int publish_port_media(const summary &node)
{
    char text[PORT_TEXT_SIZE];
    if (!format_ports(node, PORT_MEDIA, text)) {
        return log_failure("buffer size too small for port media");
    }
    return publish_text(node, NODE_PORT_MEDIA, text);
}

int publish_versions(const summary &node)
{
    constexpr int NAME = VERSIONS_TEXT_NAME_SIZE;
    constexpr int VERSION = VERSIONS_TEXT_VERSION_SIZE;
    const auto field = [&](size_t offset) { return reinterpret_cast<const char *>(node.data + offset); };
    char text[VERSIONS_TEXT_SIZE + 1];
    snprintf(text, sizeof text, "%-*.*s:%-*.*s;%-*.*s:%-*.*s;%-*.*s:%-*.*s;", //
             NAME, NAME, field(SUMMARY_EOS_NAME), VERSION, VERSION, field(SUMMARY_EOS_VERSION), NAME, NAME,
             field(SUMMARY_EBOOT_NAME), VERSION, VERSION, field(SUMMARY_EBOOT_VERSION), NAME, NAME,
             field(SUMMARY_PRIAPP_NAME), VERSION, VERSION, field(SUMMARY_PRIAPP_VERSION));
    return publish_text(node, NODE_SOFTWARE_VERSIONS, text);
}

//
// Sections received from other nodes. Each handler publishes what differs from the record, and everything
// that the record sees for the first time; it returns 0, or -1 when a publication failed.
//

bool mark_seen(summary &node, summary_info type)
{
    const auto bit = static_cast<uint16_t>(1U << type);
    return (std::exchange(node.seen, node.seen | bit) & bit) != 0;
}

// Stores the bytes; true when they are to be published.
bool store_bytes(summary &node, bool seen, size_t offset, const uint8_t *bytes, size_t size)
{
    if (seen && memcmp(node.data + offset, bytes, size) == 0) {
        return false;
    }
    memcpy(node.data + offset, bytes, size);
    return true;
}

// Stores the bytes of a mask that a network-wide list shows, and of what the list shows with it. True when
// the list is to be published: a node seen for the first time with an empty mask is in no list yet.
bool store_listed(summary &node, bool seen, size_t mask_offset, const uint8_t *bytes, size_t size)
{
    return store_bytes(node, seen, mask_offset, bytes, size) && (seen || bytes[0] != 0);
}

int publish_node_bytes(const summary &node, const char *name, const void *bytes, size_t size)
{
    return broker_publish(node_topic(node, name).text, bytes, size);
}

int update_node_num(summary &node, const uint8_t *section)
{
    mark_seen(node, SUMMARY_INFO_NODE_NUM);
    node.data[SUMMARY_NODE_NUM] = section[0];
    return 0;
}

int update_ports_dynamic(summary &node, const uint8_t *section)
{
    const bool seen = mark_seen(node, SUMMARY_INFO_PORTS_DYNAMIC);
    const auto at = [&](size_t offset) { return section + (offset - SUMMARY_LINK_DOWN); };
    if (store_listed(node, seen, SUMMARY_LINK_DOWN, at(SUMMARY_LINK_DOWN), 1) &&
        publish_port_list(SUMMARY_LINK_DOWN, LINK_DOWN_TOPIC) == -1) {
        return -1;
    }
    if (store_listed(node, seen, SUMMARY_GROUND, at(SUMMARY_GROUND), 1) &&
        publish_port_list(SUMMARY_GROUND, GROUND_TOPIC) == -1) {
        return -1;
    }
    if (store_bytes(node, seen, SUMMARY_RED, at(SUMMARY_RED), std::size(PORT_COLOURS)) &&
        publish_port_summary(node) == -1) {
        return log_failure("couldn't publish port summary");
    }
    return 0;
}

int update_ports_static(summary &node, const uint8_t *section)
{
    const bool seen = mark_seen(node, SUMMARY_INFO_PORTS_STATIC);
    const auto at = [&](size_t offset) { return section + (offset - SUMMARY_MEDIA_ETH); };
    if (store_bytes(node, seen, SUMMARY_MEDIA_ETH, at(SUMMARY_MEDIA_ETH), std::size(PORT_MEDIA)) &&
        publish_port_media(node) == -1) {
        return log_failure("couldn't publish port media");
    }
    if (store_bytes(node, seen, SUMMARY_FIRE_PORTS, at(SUMMARY_FIRE_PORTS), 2) &&
        publish_network_style7() == -1) {
        return -1;
    }
    return 0;
}

int update_miswired(summary &node, const uint8_t *section)
{
    const bool seen = mark_seen(node, SUMMARY_INFO_MISWIRED);
    if (store_listed(node, seen, SUMMARY_MISWIRED, section, summary_info_lengths[SUMMARY_INFO_MISWIRED]) &&
        publish_miswired() == -1) {
        return -1;
    }
    return 0;
}

int update_rings(summary &node, const uint8_t *section)
{
    const bool seen = mark_seen(node, SUMMARY_INFO_RINGS);
    if (store_bytes(node, seen, SUMMARY_RINGS, section, summary_info_lengths[SUMMARY_INFO_RINGS]) &&
        publish_network_style7() == -1) {
        return -1;
    }
    return 0;
}

// A text field of the job section, in the order in which they are published.
struct job_field {
    const char *topic;
    size_t offset;
    size_t size;
    const char *failure;
};

constexpr job_field JOB_FIELDS[] = {
    {NODE_JOB_REV, SUMMARY_JOB_REVISION, SUMMARY_JOB_REVISION_SIZE, "couldn't publish job revision"},
    {NODE_JOB_NAME, SUMMARY_JOB_NAME, SUMMARY_JOB_NAME_SIZE, "couldn't publish job name"},
};

void store_job_field(uint8_t *data, const job_field &field, const void *text, size_t length)
{
    memset(data + field.offset, 0, field.size);
    memcpy(data + field.offset, text, length);
}

int update_job(summary &node, const uint8_t *section)
{
    const bool seen = mark_seen(node, SUMMARY_INFO_JOB);
    for (const job_field &field : JOB_FIELDS) {
        const char *const text = reinterpret_cast<const char *>(section + (field.offset - SUMMARY_JOB_NAME));
        const char *const stored = reinterpret_cast<const char *>(node.data + field.offset);
        if (seen && strncmp(stored, text, field.size) == 0) {
            continue;
        }
        const size_t length = strnlen(text, field.size);
        store_job_field(node.data, field, text, length);
        if (publish_node_bytes(node, field.topic, text, length) == -1) {
            return log_failure("%s", field.failure);
        }
    }
    return 0;
}

// A flag of the download section, in the order in which they are published.
struct download_flag {
    const char *topic;
    size_t offset;
    const char *failure;
};

constexpr download_flag DOWNLOAD_FLAGS[] = {
    {NODE_M301, SUMMARY_M301, "couldn't publish M301 status"},
    {NODE_M702, SUMMARY_M702, "couldn't publish M702 status"},
    {NODE_COMM_LOSS, SUMMARY_COMM_LOSS, "couldn't publish comm loss LED status"},
    {NODE_DOWNLOAD_PENDING, SUMMARY_DOWNLOAD_PENDING, "couldn't publish download pending status"},
};

int update_download(summary &node, const uint8_t *section)
{
    // All that the topic's readers expect: larger values lose their last digit.
    constexpr size_t CF_FREE_DIGITS = 9;
    const bool seen = mark_seen(node, SUMMARY_INFO_DOWNLOAD);
    const auto at = [&](size_t offset) { return section + (offset - SUMMARY_DOWNLOAD_STATUS); };
    const uint8_t *const status = at(SUMMARY_DOWNLOAD_STATUS);
    if (store_bytes(node, seen, SUMMARY_DOWNLOAD_STATUS, status, SUMMARY_DOWNLOAD_STATUS_SIZE) &&
        publish_node_bytes(node, NODE_DOWNLOAD_STATUS, status, SUMMARY_DOWNLOAD_STATUS_SIZE) == -1) {
        return log_failure("couldn't publish download status");
    }
    for (const download_flag &flag : DOWNLOAD_FLAGS) {
        const uint8_t *const value = at(flag.offset);
        if (store_bytes(node, seen, flag.offset, value, 1) &&
            publish_node_bytes(node, flag.topic, *value == 1 ? "1" : "0", 1) == -1) {
            return log_failure("%s", flag.failure);
        }
    }
    if (store_bytes(node, seen, SUMMARY_CF_FREE, at(SUMMARY_CF_FREE), sizeof(uint32_t))) {
        const formatted_text<CF_FREE_DIGITS + 1> text("%u", load_le<uint32_t>(at(SUMMARY_CF_FREE)));
        if (publish_node_bytes(node, NODE_CF_FREE_SPACE, text.text, strlen(text.text)) == -1) {
            return log_failure("couldn't publish free space in CF");
        }
    }
    return 0;
}

int update_repeater(summary &node, const uint8_t *section)
{
    const bool seen = mark_seen(node, SUMMARY_INFO_REPEATER);
    if (!store_bytes(node, seen, SUMMARY_REPEATER, section, 1)) {
        return 0;
    }
    const formatted_text<4> text("%u", section[0]);
    if (publish_node_bytes(node, NODE_REPEATER, text.text, strlen(text.text)) == -1) {
        return log_failure("couldn't publish repeater source");
    }
    return 0;
}

int update_versions(summary &node, const uint8_t *section)
{
    const bool seen = mark_seen(node, SUMMARY_INFO_VERSIONS);
    if (store_bytes(node, seen, SUMMARY_EBOOT_NAME, section, summary_info_lengths[SUMMARY_INFO_VERSIONS]) &&
        publish_versions(node) == -1) {
        return log_failure("couldn't publish software versions");
    }
    return 0;
}

using update_func = int (*)(summary &node, const uint8_t *section);
constexpr std::array<update_func, SUMMARY_INFO_COUNT> update_funcs = {
    update_node_num, update_ports_dynamic, update_ports_static, update_miswired, update_rings,
    update_job,      update_download,      update_repeater,     update_versions,
};
static_assert(update_funcs.back() != nullptr); // none is missing

int apply_payload(summary &node, std::span<const uint8_t> payload)
{
    summary_section section;
    for (bool walking = true; walking;) {
        switch (summary_next_section(payload, section)) {
        case summary_walk::SECTION:
            if (update_funcs[section.type](node, section.data.data()) == -1) {
                log_error("couldn't update info for type 0x%02X", section.type);
                return log_failure("couldn't publish all information from summary");
            }
            break;
        case summary_walk::UNKNOWN_TYPE:
            break;
        case summary_walk::WRONG_LENGTH:
            log_error("invalid length for type 0x%02X (%u, should be %u)", section.type, section.length,
                      summary_info_lengths[section.type]);
            break;
        case summary_walk::TRUNCATED:
            log_error("not enough data for given length");
            walking = false;
            break;
        case summary_walk::END:
            walking = false;
            break;
        }
    }
    timespec now;
    if (get_time(now, log_source) == -1) {
        return -1;
    }
    node.last_heard = now;
    return 0;
}

//
// Nodes that come and go
//

summary *find_summary(const uint8_t *mac)
{
    summary *node;
    HASH_FIND(hh, summaries_by_mac, mac, MAC_SIZE, node);
    return node;
}

// Makes the node known by its MAC address, in front of the others; null when there is no memory.
summary *add_summary(std::unique_ptr<summary> node, const uint8_t *mac)
{
    memcpy(node->mac, mac, MAC_SIZE);
    HASH_ADD(hh, summaries_by_mac, mac, MAC_SIZE, node.get());
    return node->hh.tbl == nullptr ? nullptr : summaries.add(std::move(node));
}

std::unique_ptr<summary> take_summary(summary &node)
{
    HASH_DEL(summaries_by_mac, &node);
    return summaries.take(node);
}

// Withdraws what is published for a node that is no longer in the list.
int unpublish_node(const summary &node)
{
    static constexpr const char *TOPICS[] = {
        NODE_PORT_SUMMARY,    NODE_PORT_MEDIA,       NODE_JOB_REV, NODE_JOB_NAME,
        NODE_DOWNLOAD_STATUS, NODE_CF_FREE_SPACE,    NODE_M301,    NODE_M702,
        NODE_COMM_LOSS,       NODE_DOWNLOAD_PENDING, NODE_REPEATER};
    if (node.data[SUMMARY_LINK_DOWN] != 0 && publish_port_list(SUMMARY_LINK_DOWN, LINK_DOWN_TOPIC) == -1) {
        return -1;
    }
    if (node.data[SUMMARY_GROUND] != 0 && publish_port_list(SUMMARY_GROUND, GROUND_TOPIC) == -1) {
        return -1;
    }
    if (node.data[SUMMARY_MISWIRED] != 0 && publish_miswired() == -1) {
        return -1;
    }
    if (is_degraded_style7(node.data) && publish_network_style7() == -1) {
        return -1;
    }
    for (const char *name : TOPICS) {
        const topic_text topic = node_topic(node, name);
        if (broker_unpublish(topic.text) == -1) {
            return log_failure("couldn't unpublish topic %s", topic.text);
        }
    }
    return 0;
}

// Removes a remote node. When its topics can't be withdrawn the daemon is about to end: the record stays
// unlinked and is not freed.
int remove_node(summary &node)
{
    std::unique_ptr<summary> removed = take_summary(node);
    if (unpublish_node(*removed) == -1) {
        static_cast<void>(removed.release());
        return log_failure("couldn't unpublish data from summary");
    }
    return 0;
}

} // namespace

int summary_process(const uint8_t *mac, const uint8_t *payload, size_t length)
{
    if (check_arguments(mac != nullptr && payload != nullptr, log_source) == -1) {
        return -1;
    }
    summary *node = find_summary(mac);
    if (node == nullptr) {
        std::unique_ptr<summary> added(new (std::nothrow) summary{});
        node = added ? add_summary(std::move(added), mac) : nullptr;
        if (node == nullptr) {
            return log_failure("couldn't allocate summary structure");
        }
    }
    return apply_payload(*node, {payload, length});
}

int summary_clear(const uint8_t *mac)
{
    if (check_arguments(mac != nullptr, log_source) == -1) {
        return -1;
    }
    summary *const node = find_summary(mac);
    if (node == nullptr || node == local_summary) {
        return 0;
    }
    return remove_node(*node);
}

size_t summary_get_mac_addrs(uint8_t node_number, uint8_t *macs_out, size_t capacity)
{
    if (check_arguments(macs_out != nullptr, log_source) == -1) {
        return 0;
    }
    size_t count = 0;
    for (const summary &node : summaries) {
        if (node.data[SUMMARY_NODE_NUM] != node_number) {
            continue;
        }
        if (capacity - count * MAC_SIZE < MAC_SIZE) {
            log_error("ignoring MAC address(es) since result array is too small");
            break;
        }
        memcpy(macs_out + count * MAC_SIZE, node.mac, MAC_SIZE);
        count++;
    }
    return count;
}

namespace
{

//
// This node's facts, from the other processes of the card. A message may still come while the session is
// closed after a failed start-up, when there is no record for it.
//

bool is_ready()
{
    return local_summary != nullptr;
}

// Whether the ring protection sees this front port connected to the wrong port.
bool is_miswired(int port, const uint8_t *status)
{
    constexpr uint8_t RING_PORT_FLAG = 1U << 0;
    const bool is_up = (load_host<uint32_t>(status + ERPS_STATUS_STATE) & ~ERPS_STATE_UP_MASK) == 0;
    const uint8_t flags = status[ERPS_STATUS_FLAGS];
    const uint32_t peer_port = load_host<uint32_t>(status + ERPS_STATUS_PEER_PORT);
    const bool same_parity = (static_cast<uint32_t>(port) & 1) == (peer_port & 1);
    return is_up &&
           (flags != status[ERPS_STATUS_PEER_FLAGS] || ((flags & RING_PORT_FLAG) != 0 && same_parity));
}

void store_miswired(int port, const uint8_t *status)
{
    uint8_t *const peer = local_summary->data + miswired_peer_offset(port);
    peer[SUMMARY_MISWIRED_PEER_NODE] =
        static_cast<uint8_t>(load_host<uint32_t>(status + ERPS_STATUS_PEER_NODE));
    peer[SUMMARY_MISWIRED_PEER_PORT] =
        static_cast<uint8_t>(load_host<uint32_t>(status + ERPS_STATUS_PEER_PORT));
    peer[SUMMARY_MISWIRED_LOCAL_PORT] = static_cast<uint8_t>(port);
}

void miswired_cb(const char *topic, const void *payload, int length, void *)
{
    int port;
    if (!is_ready() || find_port_in_local_topic(topic, &port) == -1) {
        return;
    }
    const auto size = static_cast<size_t>(length);
    if (size != 0 && size != ERPS_STATUS_SIZE) {
        log_error("published ERPS port status data has wrong length (%zu, should be %zu)", size,
                  ERPS_STATUS_SIZE);
        return;
    }
    if (port_bit(port) == 0) {
        return;
    }
    uint8_t *const section = local_summary->data + SUMMARY_MISWIRED;
    uint8_t before[summary_info_lengths[SUMMARY_INFO_MISWIRED]];
    memcpy(before, section, sizeof before);

    const uint8_t *const status = static_cast<const uint8_t *>(payload);
    const bool miswired = size != 0 && is_miswired(port, status);
    if (miswired) {
        store_miswired(port, status);
    }
    set_bits(local_summary->data[SUMMARY_MISWIRED], port_bit(port), miswired);
    if (memcmp(section, before, sizeof before) == 0) {
        return;
    }
    stamp_change(SUMMARY_INFO_MISWIRED);
    if (publish_miswired() == -1) {
        terminate();
    }
}

// The ring that the topic names; every number too large for ring_out is the largest.
bool parse_ring(const char *topic, uint64_t &ring_out)
{
    const char *const found = strstr(topic, RING_PREFIX.data());
    if (found == nullptr) {
        return false;
    }
    const char *const number = found + RING_PREFIX.size();
    char *end;
    ring_out = strtoull(number, &end, 10);
    return end != number;
}

void style7_cb(const char *topic, const void *payload, int length, void *)
{
    constexpr uint64_t RINGS = 8; // that have a bit in the masks
    uint64_t ring;
    if (!is_ready() || !parse_ring(topic, ring)) {
        return;
    }
    const auto size = static_cast<size_t>(length);
    if (size != 0 && size != RING_STATUS_SIZE) {
        log_error("published ring status data has wrong length (%zu, should be %zu or 0)", size,
                  RING_STATUS_SIZE);
        return;
    }
    const int32_t state = size == 0 ? -1 : load_host<int32_t>(static_cast<const uint8_t *>(payload));
    const uint8_t bit = ring < RINGS ? static_cast<uint8_t>(1U << ring) : uint8_t{0};
    set_bits(local_summary->data[SUMMARY_RINGS], bit, state >= 0);
    set_bits(local_summary->data[SUMMARY_DEGRADED_RINGS], bit, state >= 0 && state != RING_STATUS_CLOSED);

    stamp_change(SUMMARY_INFO_RINGS);
    if (publish_network_style7() == -1) {
        terminate();
    }
}

void job_info_cb(const char *topic, const void *payload, int length, void *)
{
    if (!is_ready()) {
        return;
    }
    const auto field =
        std::find_if(std::begin(JOB_FIELDS), std::end(JOB_FIELDS),
                     [&](const job_field &candidate) { return strstr(topic, candidate.topic) != nullptr; });
    if (field == std::end(JOB_FIELDS)) {
        log_error("invalid job information topic: %s", topic);
        return;
    }
    const auto size = static_cast<size_t>(length);
    if (size == 0) {
        local_summary->data[field->offset] = 0;
    } else if (size <= field->size) {
        store_job_field(local_summary->data, *field, payload, size);
    } else {
        log_error("published job information on topic %s is too long (%zu, must be at most %zu)", topic, size,
                  field->size);
    }
}

void download_status_cb(const char *, const void *payload, int length, void *)
{
    if (!is_ready()) {
        return;
    }
    const auto size = static_cast<size_t>(length);
    uint8_t *const status = local_summary->data + SUMMARY_DOWNLOAD_STATUS;
    if (size == 0) {
        memset(status, 0, SUMMARY_DOWNLOAD_STATUS_SIZE);
    } else if (size == SUMMARY_DOWNLOAD_STATUS_SIZE) {
        memcpy(status, payload, SUMMARY_DOWNLOAD_STATUS_SIZE);
    } else {
        log_error("published download status has wrong length (%zu, should be %d)", size,
                  static_cast<int>(SUMMARY_DOWNLOAD_STATUS_SIZE));
    }
    stamp_change(SUMMARY_INFO_DOWNLOAD);
}

void cf_free_cb(const char *, const void *payload, int length, void *)
{
    if (!is_ready()) {
        return;
    }
    uint8_t *const stored = local_summary->data + SUMMARY_CF_FREE;
    if (length == 0) {
        store_le<uint32_t>(stored, 0);
        return;
    }
    const std::string_view text = payload_text(payload, length);
    uint32_t free_space;
    if (parse_u32(text, free_space)) {
        store_le(stored, free_space);
    } else {
        log_error("invalid CF free space value %.*s", static_cast<int>(text.size()), text.data());
    }
    stamp_change(SUMMARY_INFO_DOWNLOAD);
}

void download_info_cb(const char *topic, const void *payload, int length, void *)
{
    if (!is_ready()) {
        return;
    }
    if (length > 1) {
        log_error("message published on %s has wrong length (%zu, should be %zu or 0)", topic,
                  static_cast<size_t>(length), size_t{1});
        return;
    }
    const bool on = length == 1 && *static_cast<const char *>(payload) == '1';
    const auto flag = std::find_if(
        std::begin(DOWNLOAD_FLAGS), std::end(DOWNLOAD_FLAGS),
        [&](const download_flag &candidate) { return strstr(topic, candidate.topic) != nullptr; });
    if (flag == std::end(DOWNLOAD_FLAGS)) {
        log_error("invalid download information topic: %s", topic);
    } else {
        local_summary->data[flag->offset] = on ? 1 : 0;
    }
    stamp_change(SUMMARY_INFO_DOWNLOAD);
}

void repeater_cb(const char *, const void *payload, int length, void *)
{
    if (!is_ready()) {
        return;
    }
    uint8_t &repeater = local_summary->data[SUMMARY_REPEATER];
    if (length == 0) {
        repeater = 0;
        return;
    }
    uint32_t value;
    const bool is_valid = parse_u32(payload_text(payload, length), value) && value <= UINT8_MAX;
    repeater = is_valid ? static_cast<uint8_t>(value) : uint8_t{0};
    stamp_change(SUMMARY_INFO_REPEATER);
}

//
// This node's ports, from the port statistics
//

int check_initialized()
{
    if (!is_ready()) {
        return log_failure("local summary is not initialized");
    }
    return 0;
}

// A change of a port's bit in a mask that a network-wide list shows.
int update_listed_mask(int port, bool on, size_t mask_offset, const char *topic)
{
    if (check_initialized() == -1) {
        return -1;
    }
    uint8_t &mask = local_summary->data[mask_offset];
    const uint8_t bit = port_bit(port);
    if (bit == 0 || ((mask & bit) != 0) == on) {
        return 0;
    }
    set_bits(mask, bit, on);
    stamp_change(SUMMARY_INFO_PORTS_DYNAMIC);
    return publish_port_list(mask_offset, topic);
}

} // namespace

int summary_update_link(int port, int down)
{
    return update_listed_mask(port, down != 0, SUMMARY_LINK_DOWN, LINK_DOWN_TOPIC);
}

int summary_update_ground(int port, int grounded)
{
    return update_listed_mask(port, grounded != 0, SUMMARY_GROUND, GROUND_TOPIC);
}

int summary_update_status(int port, int status)
{
    static constexpr size_t MASKS[] = {SUMMARY_GREEN, SUMMARY_YELLOW, SUMMARY_RED}; // by status
    static_assert(PORT_STATUS_GREEN == 0 && PORT_STATUS_YELLOW == 1 && PORT_STATUS_RED == 2);
    if (check_initialized() == -1) {
        return -1;
    }
    const uint8_t bit = port_bit(port);
    for (const size_t mask : MASKS) {
        set_bits(local_summary->data[mask], bit, false);
    }
    if (status >= PORT_STATUS_GREEN && status <= PORT_STATUS_RED) {
        set_bits(local_summary->data[MASKS[status]], bit, true);
    } else if (status != PORT_STATUS_NONE) {
        return log_failure("invalid port status %d", status);
    }
    stamp_change(SUMMARY_INFO_PORTS_DYNAMIC);
    if (publish_port_summary(*local_summary) == -1) {
        return log_failure("couldn't publish local port summary");
    }
    return 0;
}

int summary_update_media(int port, int media)
{
    if (check_initialized() == -1) {
        return -1;
    }
    const uint8_t bit = port_bit(port);
    for (const mask_name &mask : PORT_MEDIA) {
        set_bits(local_summary->data[mask.offset], bit, false);
    }
    if (media >= LUM_TYPE_ETH && media <= LUM_TYPE_MMF) {
        set_bits(local_summary->data[PORT_MEDIA[media].offset], bit, true);
    } else if (media != LUM_TYPE_NONE) {
        return log_failure("invalid media type %d", media);
    }
    if (publish_port_media(*local_summary) == -1) {
        return log_failure("couldn't publish local port media");
    }
    return 0;
}

int summary_update_type(int port, int type)
{
    if (check_initialized() == -1) {
        return -1;
    }
    uint8_t *const data = local_summary->data;
    const bool was_degraded = is_degraded_style7(data);
    const uint8_t bit = port_bit(port);
    set_bits(data[SUMMARY_FIRE_PORTS], bit, type == SUMMARY_PORT_FIRE);
    set_bits(data[SUMMARY_SPUR_PORTS], bit, type == SUMMARY_PORT_SPUR);
    if (type < SUMMARY_PORT_FIRE || type > SUMMARY_PORT_OTHER) {
        return log_failure("invalid port type %d", type);
    }
    if (is_degraded_style7(data) != was_degraded && publish_network_style7() == -1) {
        return -1;
    }
    return 0;
}

namespace
{

//
// Timers
//

// The sections that have a reason to be sent on this tick: a change within the last 3 s, each minute, and
// each 15 s for those that change at all.
unsigned sections_to_send(const timespec &now)
{
    const timespec threshold = {.tv_sec = now.tv_sec - RECENT_CHANGE_WINDOW, .tv_nsec = now.tv_nsec};
    const bool is_full = num_sends % FULL_SEND_EVERY == 0;
    const bool is_periodic = num_sends % PERIODIC_SEND_EVERY == 0;
    unsigned types = 0;
    for (unsigned type = 0; type < SUMMARY_INFO_COUNT; type++) {
        const bool is_static =
            type == SUMMARY_INFO_PORTS_STATIC || type == SUMMARY_INFO_JOB || type == SUMMARY_INFO_VERSIONS;
        const bool is_recent = timespec_cmp(&info_updates[type], &threshold) >= 0;
        if (is_recent || is_full || (is_periodic && !is_static)) {
            types |= 1U << type;
        }
    }
    return types;
}

int send_summary()
{
    timespec now;
    if (get_time(now, log_source) == -1) {
        return -1;
    }
    const unsigned types = sections_to_send(now);
    if (types != 0) {
        uint8_t payload[SUMMARY_MAX_PAYLOAD];
        const size_t length =
            summary_encode(local_summary->data, types | 1U << SUMMARY_INFO_NODE_NUM, payload);
        if (remote_send_summary(payload, length) == -1) {
            return log_failure("coudln't send summary to remote nodes");
        }
    }
    num_sends++;
    return 0;
}

void send_cb(int fd, uint32_t events, void *)
{
    if (timer_take(fd, events, SEND, log_source) == -1 || send_summary() == -1) {
        close(fd);
        terminate();
    }
}

// Removes the nodes silent for 35 s. The next check comes after the age of the node heard last.
int purge_silent(timespec &next_check_out)
{
    timespec now;
    if (get_time(now, log_source) == -1) {
        return -1;
    }
    next_check_out = {.tv_sec = PURGE_AGE, .tv_nsec = 0};
    for (summary &node : summaries) {
        if (&node == local_summary) {
            continue;
        }
        const timespec age = timespec_diff(&now, &node.last_heard);
        if (age.tv_sec >= PURGE_AGE) {
            if (remove_node(node) == -1) {
                return -1;
            }
        } else if (timespec_cmp(&age, &next_check_out) < 0) {
            next_check_out = age;
        }
    }
    if (next_check_out.tv_sec == 0 && next_check_out.tv_nsec == 0) {
        next_check_out.tv_nsec = 1; // zero would disarm the timer for good
    }
    return 0;
}

// Setting the timer also clears its expiry, so that nothing needs to be read.
int set_purge_timer(int fd, const timespec &time)
{
    const itimerspec expiry = {.it_interval = {}, .it_value = time};
    if (timerfd_settime(fd, 0, &expiry, nullptr) == -1) {
        return log_failure("couldn't set purge timer (errno %d)", errno);
    }
    return 0;
}

void purge_cb(int fd, uint32_t events, void *)
{
    timespec next_check;
    if (event_check(events, log_source) == -1 || purge_silent(next_check) == -1 ||
        set_purge_timer(fd, next_check) == -1) {
        close(fd);
        terminate();
    }
}

//
// Start-up
//

int add_timers()
{
    // Nodes that start together send their first summaries spread over three seconds.
    const itimerspec send = {.it_interval = {.tv_sec = SEND_PERIOD, .tv_nsec = 0},
                             .it_value = {.tv_sec = rand() % 3 + 1, .tv_nsec = 0}};
    const itimerspec purge = {.it_interval = {}, .it_value = {.tv_sec = PURGE_AGE, .tv_nsec = 0}};
    unique_fd send_timer;
    unique_fd purge_timer;
    if (timer_start(send_timer, SEND, send, send_cb, nullptr, log_source) == -1 ||
        timer_start(purge_timer, PURGE, purge, purge_cb, nullptr, log_source) == -1) {
        timer_stop(send_timer);
        timer_stop(purge_timer);
        return -1;
    }
    send_timer.release(); // open until the process ends or a tick fails
    purge_timer.release();
    return 0;
}

int subscribe_local_topics()
{
    static constexpr struct {
        const char *name;
        broker_callback callback;
    } NODE_TOPICS[] = {
        {NODE_JOB_REV, job_info_cb},
        {NODE_JOB_NAME, job_info_cb},
        {NODE_DOWNLOAD_STATUS, download_status_cb},
        {NODE_CF_FREE_SPACE, cf_free_cb},
        {NODE_M301, download_info_cb},
        {NODE_M702, download_info_cb},
        {NODE_COMM_LOSS, download_info_cb},
        {NODE_DOWNLOAD_PENDING, download_info_cb},
        {NODE_REPEATER, repeater_cb},
    };
    if (broker_subscribe(PORT_STATUS_FILTER, miswired_cb, nullptr) == -1) {
        return log_failure("couldn't subscribe to topic %s", PORT_STATUS_FILTER);
    }
    if (broker_subscribe(RING_STATUS_FILTER, style7_cb, nullptr) == -1) {
        return log_failure("couldn't subsribe to topic %s", RING_STATUS_FILTER);
    }
    for (const auto &row : NODE_TOPICS) {
        const topic_text filter = node_topic(*local_summary, row.name);
        if (broker_subscribe(filter.text, row.callback, nullptr) == -1) {
            return log_failure("couldn't subsribe to topic %s", filter.text);
        }
    }
    return 0;
}

int publish_empty_lists()
{
    const uint8_t empty_list = 0;
    for (const char *topic : {LINK_DOWN_TOPIC, GROUND_TOPIC, MISWIRED_TOPIC}) {
        if (broker_publish(topic, &empty_list, sizeof empty_list) == -1) {
            return log_failure("couldn't publish empty port list to %s", topic);
        }
    }
    return 0;
}

int fill_versions(uint8_t *data)
{
    static constexpr struct {
        int (*get_version)(char *name, size_t name_size, char *version, size_t version_size);
        size_t name;
        size_t version;
    } SOURCES[] = {
        {get_eboot_version, SUMMARY_EBOOT_NAME, SUMMARY_EBOOT_VERSION},
        {get_eos_version, SUMMARY_EOS_NAME, SUMMARY_EOS_VERSION},
        {get_priapp_version, SUMMARY_PRIAPP_NAME, SUMMARY_PRIAPP_VERSION},
    };
    for (const auto &source : SOURCES) {
        if (source.get_version(reinterpret_cast<char *>(data + source.name), SUMMARY_VERSION_NAME_SIZE,
                               reinterpret_cast<char *>(data + source.version), SUMMARY_VERSION_SIZE) == -1) {
            return -1;
        }
    }
    return 0;
}

// The steps of summary_init, which undoes what they leave when one fails.
int start_local_summary(uint8_t node_number)
{
    std::unique_ptr<summary> record(new (std::nothrow) summary{});
    if (!record) {
        return log_failure("couldn't allocate local summary structure");
    }
    uint8_t mac[MAC_SIZE];
    if (hwinfo_get_local_mac_addr(mac) == -1) {
        return log_failure("couldn't get local MAC address");
    }
    local_summary = add_summary(std::move(record), mac);
    if (local_summary == nullptr) {
        return log_failure("couldn't allocate local summary structure");
    }
    local_summary->data[SUMMARY_NODE_NUM] = node_number;
    if (fill_versions(local_summary->data) == -1) {
        return log_failure("couldn't get software versions");
    }
    if (publish_versions(*local_summary) == -1) {
        return log_failure("couldn't publish software versions");
    }
    if (publish_empty_lists() == -1) {
        return log_failure("couldn't publish empty lists to port topics");
    }
    if (subscribe_local_topics() == -1) {
        return log_failure("couldn't add MQTT-based summary events");
    }
    if (add_timers() == -1) {
        return log_failure("couldn't add timer-based summary events");
    }
    return 0;
}

} // namespace

int summary_init(uint8_t node_number)
{
    if (start_local_summary(node_number) == 0) {
        return 0;
    }
    if (local_summary != nullptr) {
        take_summary(*local_summary);
        local_summary = nullptr;
    }
    return -1;
}
