#include "remote.h"

#include "broker.h"
#include "common/bytes.h"
#include "common/lumlog.h"
#include "common/netif.h"
#include "common/unique_fd.h"
#include "event.h"
#include "hwinfo/hwinfo.h"
#include "stats.h"
#include "summary.h"
#include "utils.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace
{

constexpr const char *log_source = "remote";

constexpr int SOCKET_PRIORITY = 4;
constexpr const char *FIRE_IP_FILTER = "local/diag/node/+/fire_ip";

int socket_fd = -1;
uint8_t local_mac_addr[MAC_SIZE];

//
// Packets
//

bool has_nul(std::span<const uint8_t> bytes)
{
    return std::find(bytes.begin(), bytes.end(), uint8_t{0}) != bytes.end();
}

// What a packet of one type must look like, and who handles it.
struct packet_handling {
    packet_type type;
    size_t min_payload;
    size_t text_offset; // of the NUL-terminated topic or filter in the payload; NO_TEXT for types without one
    const char *invalid;
    int (*process)(const packet &received); // null for a type that this node does not serve yet
    const char *failure;                    // null for a type whose handling cannot fail
};
constexpr size_t NO_TEXT = SIZE_MAX;

int process_summary(const packet &received)
{
    return summary_process(received.source_mac, received.payload.data(), received.payload.size());
}

int process_reset_stats(const packet &received)
{
    const auto port = static_cast<int8_t>(received.payload[0]);
    if (stats_reset_port(port) == -1) {
        log_error("couldn't reset port %s's statistics", port_name(port).text);
        return -1;
    }
    return 0;
}

int process_reset_all_stats(const packet &)
{
    return stats_reset_all();
}

int process_goodbye(const packet &received)
{
    if (summary_clear(received.source_mac) == -1) {
        log_error("couldn't clear summary");
        return -1;
    }
    return 0;
}

constexpr packet_handling HANDLING[PACKET_TYPES] = {
    {PACKET_SUMMARY, 0, NO_TEXT, nullptr, process_summary, "couldn't process node summary"},
    {PACKET_SUBSCRIBE, 12, 10, "received invalid subscribe request, ignoring", nullptr,
     "couldn't process subscribe request"},
    {PACKET_UNSUBSCRIBE, 10, 8, "received invalid unsubscribe request, ignoring", nullptr,
     "couldn't process unsubscribe request"},
    {PACKET_UNSUBSCRIBE_ALL, 8, NO_TEXT, "received invalid unsubscribe all request, ignoring", nullptr,
     "couldn't process unsubscribe all request"},
    {PACKET_ACK, 4, NO_TEXT, "received invalid acknowledgement, ignoring", nullptr, nullptr},
    {PACKET_TOPIC_DATA, 0, 0, "received invalid topic data, ignoring", nullptr,
     "couldn't process topic data"},
    {PACKET_CLIENT_KEEPALIVE, 4, NO_TEXT, "received invalid client keepalive, ignoring", nullptr, nullptr},
    {PACKET_RESET_STATS, 1, NO_TEXT, "received invalid reset-stats request, ignoring", process_reset_stats,
     "couldn't process reset-stats request"},
    {PACKET_RESET_ALL_STATS, 0, NO_TEXT, nullptr, process_reset_all_stats,
     "couldn't process reset-all-stats request"},
    {PACKET_ACTIVATE, 5, NO_TEXT, "received invalid activate or remote download request, ignoring", nullptr,
     "couldn't process activate request"},
    {PACKET_REMOTE_DOWNLOAD, 5, NO_TEXT, "received invalid activate or remote download request, ignoring",
     nullptr, "couldn't process remote download request"},
    {PACKET_GOODBYE, 0, NO_TEXT, nullptr, process_goodbye, "couldn't process goodbye message"},
};

// Rows stand in the order of the types.
static_assert([] {
    for (size_t i = 0; i < PACKET_TYPES; i++) {
        if (HANDLING[i].type != i + 1) {
            return false;
        }
    }
    return true;
}());

const packet_handling &handling_of(uint8_t type)
{
    return HANDLING[type - 1];
}

// Writes the header of a packet; the payload follows it directly.
void write_header(uint8_t *header, packet_type type, size_t payload_length)
{
    header[PACKET_OFFSET_VERSION] = PACKET_VERSION;
    header[PACKET_OFFSET_TYPE] = type;
    memcpy(header + PACKET_OFFSET_SOURCE_MAC, local_mac_addr, MAC_SIZE);
    store_be(header + PACKET_OFFSET_LENGTH, static_cast<uint16_t>(payload_length));
}

//
// Receiving
//

enum class reading { DATAGRAM, NOTHING, FAILURE };

// Reads one datagram and its true size, also where it is larger than the buffer. A datagram may have vanished
// since the loop saw it: the kernel drops those with a wrong checksum only when they are read.
reading read_datagram(uint8_t (&buffer)[MAX_PACKET_SIZE], size_t &size_out, sockaddr_in &sender_out)
{
    for (;;) {
        socklen_t sender_length = sizeof sender_out;
        const ssize_t size = recvfrom(socket_fd, buffer, sizeof buffer, MSG_TRUNC | MSG_DONTWAIT,
                                      reinterpret_cast<sockaddr *>(&sender_out), &sender_length);
        if (size != -1) {
            size_out = static_cast<size_t>(size);
            return reading::DATAGRAM;
        }
        if (errno == EAGAIN) {
            return reading::NOTHING;
        }
        if (errno != EINTR) {
            log_error("couldn't receive packet (errno %d)", errno);
            return reading::FAILURE;
        }
        if (is_terminated()) {
            return reading::FAILURE;
        }
    }
}

int process_packet(const packet &received)
{
    const packet_handling &handling = handling_of(received.type);
    if (handling.process != nullptr && handling.process(received) == -1) {
        log_error("%s", handling.failure);
        log_error("couldn't process new packet");
        return -1;
    }
    return 0;
}

int receive_packet()
{
    uint8_t buffer[MAX_PACKET_SIZE];
    size_t size;
    sockaddr_in sender;
    switch (read_datagram(buffer, size, sender)) {
    case reading::NOTHING:
        return 0;
    case reading::FAILURE:
        log_error("couldn't receive new packet");
        return -1;
    case reading::DATAGRAM:
        break;
    }
    packet received;
    if (!packet_parse(buffer, size, received)) {
        return 0;
    }
    inet_ntop(AF_INET, &sender.sin_addr, received.reply_address, sizeof received.reply_address);
    return process_packet(received);
}

void close_socket()
{
    close(socket_fd);
    socket_fd = -1;
}

void receive_cb(int, uint32_t events, void *)
{
    if (events != EPOLLIN) {
        log_error("unexpected event(s) on file descriptor");
    } else if (receive_packet() == 0) {
        return;
    }
    // Closed and forgotten, so that the goodbye of the shutdown fails cleanly.
    close_socket();
    terminate();
}

//
// Start-up
//

// Applies the settings in their order; the caller closes the socket when one fails.
int configure_socket(int fd)
{
    ip_mreqn group{};
    inet_pton(AF_INET, MULTICAST_GROUP, &group.imr_multiaddr);
    group.imr_ifindex = static_cast<int>(if_nametoindex(FIRE_INTERFACE));
    if (group.imr_ifindex == 0) {
        log_error("couldn't get index of interface %s (errno %d)", FIRE_INTERFACE, errno);
        return -1;
    }
    if (setsockopt(fd, SOL_SOCKET, SO_PRIORITY, &SOCKET_PRIORITY, sizeof SOCKET_PRIORITY) == -1) {
        log_error("couldn't set socket priority (errno %d)", errno);
        return -1;
    }
    if (setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group) == -1) {
        log_error("couldn't join multicast group (errno %d)", errno);
        return -1;
    }
    if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &group, sizeof group) == -1) {
        log_error("couldn't set multicast interface (errno %d)", errno);
        return -1;
    }
    const int loop = 0;
    if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof loop) == -1) {
        log_error("couldn't disable multicast looping (errno %d)", errno);
        return -1;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(REMOTE_PORT);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == -1) {
        log_error("couldn't bind socket (errno %d)", errno);
        return -1;
    }
    return 0;
}

int open_socket()
{
    unique_fd fd(socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP));
    if (!fd.is_open()) {
        log_error("couldn't create new socket (errno %d)", errno);
        return -1;
    }
    if (configure_socket(fd.get()) == -1) {
        return -1;
    }
    socket_fd = fd.release();
    return 0;
}

// The facts of the nodes' fire addresses and this node's own topics: nothing reads them as long as the node
// neither sends requests nor serves subscriptions.
void ignore_message_cb(const char *, const void *, int, void *) {}

int start_receiving()
{
    if (event_add(socket_fd, EPOLLIN, receive_cb, nullptr) == -1) {
        log_error("couldn't add socket receive event");
        return -1;
    }
    char own_topics[64];
    snprintf(own_topics, sizeof own_topics, "pub/diag/%s/#", mac_addr_to_str(local_mac_addr));
    for (const char *filter : {FIRE_IP_FILTER, static_cast<const char *>(own_topics)}) {
        if (broker_subscribe(filter, ignore_message_cb, nullptr) == -1) {
            log_error("couldn't subscribe to %s", filter);
            return -1;
        }
    }
    return 0;
}

} // namespace

bool packet_parse(const uint8_t *buffer, size_t size, packet &packet_out)
{
    if (size > MAX_PACKET_SIZE) {
        log_error("received packet is too large for buffer (%zd bytes, buffer is %zu)",
                  static_cast<ssize_t>(size), MAX_PACKET_SIZE);
        return false;
    }
    if (size < HEADER_SIZE) {
        log_error("packet is too small (%zd bytes), ignoring", static_cast<ssize_t>(size));
        return false;
    }
    const uint16_t length = load_be<uint16_t>(buffer + PACKET_OFFSET_LENGTH);
    if (length > size - HEADER_SIZE) {
        log_error("received packet has wrong length (%u, should be %zu), ignoring", length,
                  size - HEADER_SIZE);
        return false;
    }
    const uint8_t type = buffer[PACKET_OFFSET_TYPE];
    if (type == 0 || type > PACKET_TYPES) {
        log_error("packet has invalid type (%02X), ignoring", type);
        return false;
    }
    const packet_handling &handling = handling_of(type);
    const std::span<const uint8_t> payload(buffer + HEADER_SIZE, length);
    if (length < handling.min_payload ||
        (handling.text_offset != NO_TEXT && !has_nul(payload.subspan(handling.text_offset)))) {
        log_error("%s", handling.invalid);
        return false;
    }
    if (type == PACKET_TOPIC_DATA &&
        std::find(payload.begin(), payload.end(), uint8_t{0}) + 1 == payload.end()) {
        log_error("received empty topic data, ignoring");
        return false;
    }
    packet_out = {.type = type,
                  .source_mac = buffer + PACKET_OFFSET_SOURCE_MAC,
                  .payload = payload,
                  .reply_address = {}};
    return true;
}

int remote_init()
{
    if (hwinfo_get_local_mac_addr(local_mac_addr) == -1) {
        log_error("couldn't get local MAC address");
        return -1;
    }
    if (open_socket() == -1) {
        log_error("couldn't open socket");
        return -1;
    }
    if (start_receiving() == -1) {
        event_remove(socket_fd);
        close_socket();
        return -1;
    }
    return 0;
}

int send_packet(const char *ip, const uint8_t *buf, size_t len)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(REMOTE_PORT);
    if (inet_pton(AF_INET, ip, &address.sin_addr) != 1) {
        log_error("invalid IP address %s", ip);
        return -1;
    }
    for (;;) {
        const ssize_t sent =
            sendto(socket_fd, buf, len, 0, reinterpret_cast<const sockaddr *>(&address), sizeof address);
        if (sent == static_cast<ssize_t>(len)) {
            return 0;
        }
        if (sent != -1 || errno != EINTR) {
            log_error("couldn't send packet (errno %d)", errno);
            return -1;
        }
        if (is_terminated()) {
            return -1;
        }
    }
}

int remote_send_summary(const uint8_t *data, size_t length)
{
    if (data == nullptr) {
        log_error("NULL pointer received as argument");
        return -1;
    }
    if (length > MAX_PACKET_SIZE - HEADER_SIZE) {
        log_error("summary data is too big");
        return -1;
    }
    uint8_t buffer[MAX_PACKET_SIZE];
    write_header(buffer, PACKET_SUMMARY, length);
    memcpy(buffer + HEADER_SIZE, data, length);
    if (send_packet(MULTICAST_GROUP, buffer, HEADER_SIZE + length) == -1) {
        log_error("couldn't send node summary");
        return -1;
    }
    return 0;
}

int remote_send_goodbye()
{
    uint8_t buffer[HEADER_SIZE];
    write_header(buffer, PACKET_GOODBYE, 0);
    if (send_packet(MULTICAST_GROUP, buffer, sizeof buffer) == -1) {
        log_error("couldn't send goodbye message");
        return -1;
    }
    return 0;
}
