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

// A received packet that has passed its checks.
struct packet {
    uint8_t type;
    const uint8_t *source_mac;
    std::span<const uint8_t> payload;
    char reply_address[IP_STR_SIZE]; // dotted text
};

// Checks a datagram of true size size, of which buffer holds the first MAX_PACKET_SIZE bytes at most, and
// fills packet_out with an empty reply address. False, after logging what is wrong, when it is to be dropped.
bool packet_parse(const uint8_t *buffer, size_t size, packet &packet_out);

// Opens the multicast socket on the fire interface and makes the module's MQTT subscriptions; called at
// start-up.
int remote_init();

// Sends a whole packet to ip, an IPv4 address in dotted text, with one sendto.
int send_packet(const char *ip, const uint8_t *buf, size_t len);

// Multicasts this node's encoded summary (1014 bytes at most).
int remote_send_summary(const uint8_t *data, size_t length);

// Tells all nodes that this one leaves; called at shutdown.
int remote_send_goodbye();
