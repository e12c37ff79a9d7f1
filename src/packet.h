// The packets that nodes exchange on the fire network: UDP over IPv4, port 50004, multicast group
// 224.22.33.44. Declared once for the daemon and for programs that link no module of it.
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

// Requests (subscribe, unsubscribe, unsubscribe all, activate, remote download) start their payload with a
// request id and are sent each second, ten times at most, until the target acknowledges that id; unsubscribe
// all goes to all nodes, is not acknowledged, and is sent ten times. Layouts of the payloads, offsets from
// their start:
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
constexpr size_t REQUEST_ID_SIZE = sizeof(uint32_t);
constexpr size_t CLIENT_ID_SIZE = sizeof(uint32_t);
constexpr size_t REQUEST_CLIENT_ID = 4;
constexpr size_t SUBSCRIBE_PERIOD = 8;
constexpr size_t SUBSCRIBE_FILTER = 10;
constexpr size_t UNSUBSCRIBE_FILTER = 8;
constexpr size_t DOWNLOAD_VALUE = 4;

// Writes the header of a packet, HEADER_SIZE bytes; the payload follows it directly.
void packet_write_header(uint8_t *header, packet_type type, const uint8_t *source_mac, size_t payload_length);

// A received packet that has passed its checks. MAC address and payload stand in the buffer that was parsed.
struct packet {
    uint8_t type; // a packet_type
    const uint8_t *source_mac;
    std::span<const uint8_t> payload;
    in_addr sender;
};

// Whether a datagram is to be handled: then packet_out is filled but for its sender, else what is wrong is
// logged. size is the datagram's own, also where buffer holds only its first MAX_PACKET_SIZE bytes.
[[nodiscard]] bool packet_parse(const uint8_t *buffer, size_t size, packet &packet_out);

// Whether a table has the row of each type in the order of the types.
template <typename Row>
constexpr bool packet_rows_in_order(const Row (&rows)[PACKET_TYPES])
{
    for (size_t i = 0; i < PACKET_TYPES; i++) {
        if (rows[i].type != i + 1) {
            return false;
        }
    }
    return true;
}
