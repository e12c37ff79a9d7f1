// Another node on the fire network: its packets, written out independently of the daemon's encoder, and what it is sent.
#pragma once

#include "card.h"
#include "packet.h"

#include <algorithm>

namespace card
{

inline const std::string PEER_MAC = bytes("02 00 00 00 00 09");
inline const std::string PEER_MAC_TEXT = "02-00-00-00-00-09";
inline const std::string PEER_TOPIC = "pub/diag/" + PEER_MAC_TEXT;
inline const std::string PEER_IP_TOPIC = "local/diag/node/" + PEER_MAC_TEXT + "/fire_ip";
inline constexpr const char *PEER_IP = "10.0.0.2";
inline constexpr const char *GROUP = "224.22.33.44";

inline const uint8_t *peer_mac()
{
    return reinterpret_cast<const uint8_t *>(PEER_MAC.data());
}

// A big-endian number.
inline std::string be(size_t value, size_t width)
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

// A whole packet; version and length field are those of a correct one.
inline std::string packet_bytes(int type, const std::string &payload, const std::string &mac = PEER_MAC)
{
    return std::string{1, static_cast<char>(type)} + mac + be(payload.size(), 2) + payload;
}

inline datagram to(const std::string &address, packet_type type, const std::string &payload = "")
{
    return {address, packet_bytes(type, payload, LOCAL_MAC)};
}

inline datagram to_peer(packet_type type, const std::string &payload)
{
    return to(PEER_IP, type, payload);
}

inline datagram to_all(packet_type type, const std::string &payload = "")
{
    return to(GROUP, type, payload);
}

// What the daemon has sent since the last call, without its summaries.
inline datagrams take_packets()
{
    datagrams packets = take_datagrams();
    std::erase_if(packets, [](const datagram &sent) { return sent.bytes.at(1) == PACKET_SUMMARY; });
    return packets;
}

// A section of a summary.
inline std::string section(int type, const std::string &data)
{
    return static_cast<char>(type) + be(data.size(), 2) + data;
}

// All nine sections of 211 bytes of summary data.
inline std::string sections_of(const std::string &data)
{
    constexpr size_t LENGTHS[] = {1, 5, 6, 25, 2, 11, 10, 1, 150};
    std::string sections;
    size_t offset = 0;
    for (int type = 0; type < 9; type++) {
        sections += section(type, data.substr(offset, LENGTHS[type]));
        offset += LENGTHS[type];
    }
    return sections;
}

inline void receive_packet(int type, const std::string &payload, const std::string &from = PEER_IP)
{
    receive_datagram(packet_bytes(type, payload), from);
}

inline void receive_summary(const std::string &sections, const std::string &mac = PEER_MAC)
{
    receive_datagram(packet_bytes(PACKET_SUMMARY, sections, mac));
}

inline void receive_goodbye(const std::string &mac = PEER_MAC)
{
    receive_datagram(packet_bytes(PACKET_GOODBYE, "", mac));
}

// A node that knows where to reach that peer.
inline void start_node_with_peer()
{
    start_node();
    publish(PEER_IP_TOPIC, PEER_IP);
}

class node_with_peer : public node
{
protected:
    void SetUp() override { start_node_with_peer(); }
};

} // namespace card
