#include "ring.h"

#include "common/netif.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <map>

namespace
{

constexpr uint16_t ETHERTYPE_CFM = 0x8902;
constexpr uint8_t RAPS_GROUP[MAC_SIZE] = {0x01, 0x19, 0xA7, 0x00, 0x00, 0x01};

constexpr size_t RAPS_SIZE = 37;
constexpr size_t RAPS_STATE = 4;
constexpr size_t RAPS_NODE = 6;
constexpr uint8_t RAPS_HEADER[RAPS_STATE] = {0x20, 40, 0, 32};
constexpr uint8_t STATE_SIGNAL_FAIL = 0xB0;
constexpr uint8_t STATE_NO_REQUEST = 0x00;

// Three messages may be lost before a failed node is forgotten.
constexpr time_t SILENCE_SECONDS = 4;

using mac_address = std::array<uint8_t, MAC_SIZE>;

int ring_fd = -1;
mac_address own_mac;
bool own_failure = false;
std::map<mac_address, time_t> failed_nodes; // with the time of the last message

time_t now()
{
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec;
}

void send_state(uint8_t state)
{
    uint8_t message[RAPS_SIZE] = {};
    memcpy(message, RAPS_HEADER, sizeof RAPS_HEADER);
    message[RAPS_STATE] = state;
    memcpy(message + RAPS_NODE, own_mac.data(), own_mac.size());

    sockaddr_ll group = {};
    group.sll_family = AF_PACKET;
    group.sll_protocol = htons(ETHERTYPE_CFM);
    group.sll_ifindex = static_cast<int>(if_nametoindex("fire"));
    group.sll_halen = sizeof RAPS_GROUP;
    memcpy(group.sll_addr, RAPS_GROUP, sizeof RAPS_GROUP);
    // A failure needs no report: the next second brings the next message.
    sendto(ring_fd, message, sizeof message, 0, reinterpret_cast<sockaddr *>(&group), sizeof group);
}

} // namespace

int ring_open(const unsigned char *mac)
{
    memcpy(own_mac.data(), mac, own_mac.size());
    ring_fd = socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, htons(ETHERTYPE_CFM));
    return ring_fd;
}

void ring_set_own_failure(bool failed)
{
    if (failed != own_failure) {
        own_failure = failed;
        send_state(failed ? STATE_SIGNAL_FAIL : STATE_NO_REQUEST);
    }
}

void ring_receive()
{
    uint8_t message[RAPS_SIZE];
    sockaddr_ll sender = {};
    socklen_t sender_size = sizeof sender;
    ssize_t received;
    while ((received = recvfrom(ring_fd, message, sizeof message, 0, reinterpret_cast<sockaddr *>(&sender),
                                &sender_size)) >= 0) {
        if (received < static_cast<ssize_t>(RAPS_SIZE) || sender.sll_pkttype == PACKET_OUTGOING ||
            memcmp(message, RAPS_HEADER, sizeof RAPS_HEADER) != 0) {
            continue;
        }
        mac_address node;
        memcpy(node.data(), message + RAPS_NODE, node.size());
        if (message[RAPS_STATE] == STATE_SIGNAL_FAIL) {
            failed_nodes[node] = now();
        } else {
            failed_nodes.erase(node);
        }
    }
}

void ring_tick()
{
    if (own_failure) {
        send_state(STATE_SIGNAL_FAIL);
    }
    std::erase_if(failed_nodes, [](const auto &node) { return now() - node.second >= SILENCE_SECONDS; });
}

bool ring_is_intact()
{
    return !own_failure && failed_nodes.empty();
}
