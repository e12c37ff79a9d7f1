// Unchanged full summaries of many nodes through the receive path, against loops that do nothing else.
//
//     bench_receive flood ADDRESS NODES SECONDS    sends them, each node's in turn, as fast as it can
//     bench_receive learn ADDRESS NODES            sends each once, slowly
//     bench_receive bare                           recvfrom on the daemon's socket settings
//     bench_receive waiting                        epoll_wait before each: one datagram for each readiness
#include "common/bytes.h"
#include "common/netif.h"
#include "packet.h"
#include "summary_record.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <thread>
#include <vector>

namespace
{

constexpr size_t BATCH = 32;
using packet_bytes = std::array<uint8_t, HEADER_SIZE + SUMMARY_MAX_PAYLOAD>;

[[noreturn]] void die(const char *what)
{
    perror(what);
    exit(EXIT_FAILURE);
}

packet_bytes full_summary(unsigned node)
{
    uint8_t data[SUMMARY_SIZE] = {};
    data[SUMMARY_NODE_NUM] = static_cast<uint8_t>(node % 255 + 1);
    data[SUMMARY_GREEN] = 0x03;
    data[SUMMARY_MEDIA_SMF] = 0x03;
    data[SUMMARY_FIRE_PORTS] = 0x03;
    data[SUMMARY_RINGS] = 0x01;
    memset(data + SUMMARY_EBOOT_NAME, ' ', SUMMARY_SIZE - SUMMARY_EBOOT_NAME);
    uint8_t payload[SUMMARY_MAX_PAYLOAD];
    const size_t length = summary_encode(data, (1U << SUMMARY_INFO_COUNT) - 1, payload);

    packet_bytes packet{};
    uint8_t mac[MAC_SIZE] = {0x06};
    store_be(mac + 2, node);
    packet_write_header(packet.data(), PACKET_SUMMARY, mac, length);
    memcpy(&packet[HEADER_SIZE], payload, length);
    return packet;
}

int connect_to(const char *address)
{
    sockaddr_in target{};
    target.sin_family = AF_INET;
    target.sin_port = htons(REMOTE_PORT);
    if (inet_pton(AF_INET, address, &target.sin_addr) != 1) {
        die(address);
    }
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (connect(fd, reinterpret_cast<const sockaddr *>(&target), sizeof target) == -1) {
        die("connect");
    }
    return fd;
}

void learn(const char *address, unsigned nodes)
{
    const int fd = connect_to(address);
    for (unsigned node = 0; node < nodes; node++) {
        const packet_bytes packet = full_summary(node);
        if (send(fd, packet.data(), packet.size(), 0) == -1) {
            die("send");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

void flood(const char *address, unsigned nodes, unsigned seconds)
{
    const int fd = connect_to(address);
    std::vector<packet_bytes> packets;
    for (unsigned node = 0; node < nodes; node++) {
        packets.push_back(full_summary(node));
    }
    std::vector<iovec> parts(packets.size() + BATCH);
    std::vector<mmsghdr> messages(packets.size() + BATCH);
    for (size_t i = 0; i < messages.size(); i++) {
        packet_bytes &packet = packets[i % packets.size()];
        parts[i] = {.iov_base = packet.data(), .iov_len = packet.size()};
        messages[i].msg_hdr.msg_iov = &parts[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    size_t next = 0;
    for (const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
         std::chrono::steady_clock::now() < end;) {
        const int sent = sendmmsg(fd, &messages[next], BATCH, 0);
        next = (next + (sent > 0 ? static_cast<size_t>(sent) : 0)) % packets.size();
    }
}

[[noreturn]] void receive(bool waits)
{
    const int fd = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    ip_mreqn group{};
    inet_pton(AF_INET, MULTICAST_GROUP, &group.imr_multiaddr);
    group.imr_ifindex = static_cast<int>(if_nametoindex(FIRE_INTERFACE));
    const int priority = 4;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(REMOTE_PORT);
    if (setsockopt(fd, SOL_SOCKET, SO_PRIORITY, &priority, sizeof priority) == -1 ||
        setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group) == -1 ||
        bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == -1) {
        die("socket");
    }
    const int poll = epoll_create1(0);
    epoll_event event{};
    event.events = EPOLLIN;
    epoll_ctl(poll, EPOLL_CTL_ADD, fd, &event);
    for (;;) {
        if (waits && epoll_wait(poll, &event, 1, -1) == -1) {
            die("epoll_wait");
        }
        uint8_t buffer[MAX_PACKET_SIZE];
        sockaddr_in sender;
        socklen_t length = sizeof sender;
        if (recvfrom(fd, buffer, sizeof buffer, MSG_TRUNC, reinterpret_cast<sockaddr *>(&sender), &length) ==
            -1) {
            die("recvfrom");
        }
    }
}

} // namespace

int main(int argc, char **argv)
{
    const std::string_view mode = argc > 1 ? argv[1] : "";
    if (mode == "bare" || mode == "waiting") {
        receive(mode == "waiting");
    } else if (mode == "learn" && argc == 4) {
        learn(argv[2], static_cast<unsigned>(atoi(argv[3])));
    } else if (mode == "flood" && argc == 5) {
        flood(argv[2], static_cast<unsigned>(atoi(argv[3])), static_cast<unsigned>(atoi(argv[4])));
    } else {
        fprintf(stderr,
                "usage: bench_receive flood ADDRESS NODES SECONDS | learn ADDRESS NODES | bare | waiting\n");
        return 2;
    }
    return 0;
}
