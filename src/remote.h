// Node-to-node communication on the fire network: UDP over IPv4, port 50004, multicast group 224.22.33.44.
// Functions return 0, or -1 after logging why.
//
// Every packet starts with
//
//     0       1       2                       8               10
//     +-------+-------+-----------------------+---------------+------------
//     | 01    | type  | source MAC            | length        | payload ...
//     +-------+-------+-----------------------+---------------+------------
//
// with the length of the payload big-endian, for example a goodbye from 00-11-22-33-44-55:
//
//     01 0C 00 11 22 33 44 55 00 00
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <span>

constexpr uint16_t REMOTE_PORT = 50004;
constexpr const char *MULTICAST_GROUP = "224.22.33.44";
constexpr const char *FIRE_INTERFACE = "fire";
constexpr size_t MAX_PACKET_SIZE = 1024;
constexpr size_t HEADER_SIZE = 10;
constexpr uint8_t PACKET_VERSION = 1;

constexpr size_t PACKET_OFFSET_VERSION = 0;
constexpr size_t PACKET_OFFSET_TYPE = 1;
constexpr size_t PACKET_OFFSET_SOURCE_MAC = 2;
constexpr size_t PACKET_OFFSET_LENGTH = 8;

enum packet_type : uint8_t {
    PACKET_SUMMARY = 1,
    PACKET_SUBSCRIBE = 2,
    PACKET_UNSUBSCRIBE = 3,
    PACKET_UNSUBSCRIBE_ALL = 4,
    PACKET_ACK = 5,
    PACKET_TOPIC_DATA = 6,
    PACKET_CLIENT_KEEPALIVE = 7,
    PACKET_RESET_STATS = 8,
    PACKET_RESET_ALL_STATS = 9,
    PACKET_ACTIVATE = 10,
    PACKET_REMOTE_DOWNLOAD = 11,
    PACKET_GOODBYE = 12,
};
constexpr size_t PACKET_TYPES = 12;

constexpr size_t IP_STR_SIZE = 16;

// Where the byte of an activate or remote download goes, retained, on the broker of the node that it is for.
constexpr const char *ACTIVATE_TOPIC = "local/activate";
constexpr const char *REMOTE_DOWNLOAD_TOPIC = "local/remotedl";

// Requests (subscribe, unsubscribe, unsubscribe all, activate, remote download) start their payload with a request id and
// are sent each second, ten times at most, until the target acknowledges that id; unsubscribe all goes to all nodes, is
// not acknowledged, and is sent ten times. Layouts of the payloads, offsets from their start:
//
//     SUBSCRIBE          request id (4)  client id (4)  period (2)  topic filter  00
//     UNSUBSCRIBE        request id (4)  client id (4)  topic filter  00
//     UNSUBSCRIBE_ALL    request id (4)  client id (4)
//     ACK                request id (4)
//     TOPIC_DATA         topic  00  message
//     CLIENT_KEEPALIVE   client id (4)
//     RESET_STATS        port (1), signed
//     ACTIVATE, REMOTE_DOWNLOAD    request id (4)  value (1)
//
// For example node 00-11-22-33-44-55 acknowledges request 258:
//
//     01 05 00 11 22 33 44 55 00 04 00 00 01 02
constexpr size_t REQUEST_CLIENT_ID = 4;
constexpr size_t SUBSCRIBE_PERIOD = 8;
constexpr size_t SUBSCRIBE_FILTER = 10;
constexpr size_t UNSUBSCRIBE_FILTER = 8;
constexpr size_t DOWNLOAD_VALUE = 4;

// A received packet that has passed its checks.
struct packet {
    uint8_t type;
    const uint8_t *source_mac;
    std::span<const uint8_t> payload;
    in_addr sender;
};

// Checks a datagram of true size size, of which buffer holds the first MAX_PACKET_SIZE bytes at most, and
// fills packet_out but for its sender. False, after logging what is wrong, when it is to be dropped.
bool packet_parse(const uint8_t *buffer, size_t size, packet &packet_out);

// Opens the multicast socket on the fire interface and makes the module's MQTT subscriptions; called at
// start-up.
[[nodiscard]] int remote_init();

// Sends a whole packet to ip, an IPv4 address in dotted text, with one sendto.
[[nodiscard]] int send_packet(const char *ip, const uint8_t *buf, size_t len);

// Multicasts this node's encoded summary (1014 bytes at most).
[[nodiscard]] int remote_send_summary(const uint8_t *data, size_t length);

// Tells all nodes that this one leaves; called at shutdown.
[[nodiscard]] int remote_send_goodbye();

// The outcome of a request that was accepted (returned 0), called once: acknowledged is 1, within about a second of the
// acknowledgement, or 0, ten seconds after the first of ten unanswered transmissions. A refused request (-1) never
// calls it, nor does one that a fault of its timer or of sending ends together with the daemon. arg stays the caller's.
using request_result_cb = void (*)(int acknowledged, void *arg);

// Requests to the node that topic, a filter pub/diag/<MAC>/..., names: to send what changes on its matching topics to
// this node every period seconds (0: once), for this client, and to stop. Filters are valid and of 1003 and 1005
// characters at most.
[[nodiscard]] int remote_subscribe(const char *topic, uint32_t client_id, uint16_t period,
                                   request_result_cb callback, void *arg);
[[nodiscard]] int remote_unsubscribe(const char *topic, uint32_t client_id, request_result_cb callback,
                                     void *arg);

// Ends every subscription of the client on all nodes; sent ten times, never acknowledged.
[[nodiscard]] int remote_unsubscribe_all(uint32_t client_id);

// Renews the client's subscriptions on all nodes, which otherwise expire 1200 s after they were made.
[[nodiscard]] int remote_send_client_keepalive(uint32_t client_id);

// Resets the statistics of a port of the node mac, and of all ports of all other nodes. Sent once, not acknowledged.
[[nodiscard]] int remote_reset_stats(const uint8_t *mac, int port);
[[nodiscard]] int remote_reset_all_stats();

// Requests that make the node mac publish value on its ACTIVATE_TOPIC or REMOTE_DOWNLOAD_TOPIC.
[[nodiscard]] int remote_activate(const uint8_t *mac, uint8_t value, request_result_cb callback, void *arg);
[[nodiscard]] int remote_set_remote_download(const uint8_t *mac, uint8_t value, request_result_cb callback,
                                             void *arg);
