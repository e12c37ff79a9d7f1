// A node with one peer on the fire network.
#pragma once

#include "packet.h"
#include "packets.h"

#include <algorithm>

namespace sim
{

inline const std::string PEER_TOPIC = "pub/diag/" + PEER_MAC_TEXT;
inline const std::string PEER_IP_TOPIC = "local/diag/node/" + PEER_MAC_TEXT + "/fire_ip";
inline const std::string OWN_TOPIC = "pub/diag/" + LOCAL_MAC_TEXT;
inline constexpr const char *PEER_IP = "10.0.0.2";

inline const uint8_t *peer_mac()
{
    return reinterpret_cast<const uint8_t *>(PEER_MAC.data());
}

// A big-endian integer.
inline std::string be(unsigned value, size_t width)
{
    std::string bytes(width, '\0');
    for (size_t i = width; i-- > 0; value >>= 8) {
        bytes[i] = static_cast<char>(value & 0xFF);
    }
    return bytes;
}

inline std::string terminated(const std::string &text)
{
    return text + '\0';
}

// A packet of the node that is tested.
inline std::string own_packet(packet_type type, const std::string &payload = "")
{
    return packet_bytes(type, payload, std::string(std::begin(LOCAL_MAC), std::end(LOCAL_MAC)));
}

inline datagram to_peer(packet_type type, const std::string &payload)
{
    return {PEER_IP, own_packet(type, payload)};
}

inline datagram to_all(packet_type type, const std::string &payload = "")
{
    return {MULTICAST_GROUP, own_packet(type, payload)};
}

// What the daemon has sent since the last call, without its summaries.
inline std::vector<datagram> take_packets()
{
    std::vector<datagram> packets = take_datagrams();
    std::erase_if(packets, [](const datagram &sent) { return sent.bytes.at(1) == PACKET_SUMMARY; });
    return packets;
}

class fire_network : public node
{
protected:
    void SetUp() override
    {
        start_node(7);
        publish(PEER_IP_TOPIC, PEER_IP);
    }
};

} // namespace sim
