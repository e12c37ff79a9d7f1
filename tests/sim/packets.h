// Packets of other nodes, written out independently of the daemon's encoder.
#pragma once

#include "platform.h"

namespace sim
{

inline const std::string PEER_MAC = bytes("02 00 00 00 00 09");
inline const std::string PEER_MAC_TEXT = "02-00-00-00-00-09";

// What the end of the daemon logs after a packet whose handling failed: the socket is closed.
inline const lines FATAL_PACKET = {"remote: couldn't process new packet",
                                   "remote: couldn't send packet (errno 9)",
                                   "remote: couldn't send goodbye message"};

inline std::string big_endian_16(size_t value)
{
    return {static_cast<char>(value >> 8), static_cast<char>(value)};
}

// A whole packet; version and length field are those of a correct one unless given.
inline std::string packet_bytes(int type, const std::string &payload, const std::string &mac = PEER_MAC)
{
    return std::string{1, static_cast<char>(type)} + mac + big_endian_16(payload.size()) + payload;
}

// A section of a summary.
inline std::string section(int type, const std::string &data)
{
    return static_cast<char>(type) + big_endian_16(data.size()) + data;
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

inline void receive_summary(const std::string &sections, const std::string &mac = PEER_MAC)
{
    receive_datagram(packet_bytes(1, sections, mac));
}

inline void receive_goodbye(const std::string &mac = PEER_MAC)
{
    receive_datagram(packet_bytes(12, "", mac));
}

} // namespace sim
