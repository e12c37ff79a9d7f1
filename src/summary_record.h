// A node's summary as bytes: the data of a node, and the sections in which it goes over the wire. Declared
// once for the daemon and for programs that link no module of it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

// A node's summary is cut into sections, always sent and received whole.
enum summary_info {
    SUMMARY_INFO_NODE_NUM,
    SUMMARY_INFO_PORTS_DYNAMIC,
    SUMMARY_INFO_PORTS_STATIC,
    SUMMARY_INFO_MISWIRED,
    SUMMARY_INFO_RINGS,
    SUMMARY_INFO_JOB,
    SUMMARY_INFO_DOWNLOAD,
    SUMMARY_INFO_REPEATER,
    SUMMARY_INFO_VERSIONS,
    SUMMARY_INFO_COUNT,
};

inline constexpr std::array<uint16_t, SUMMARY_INFO_COUNT> summary_info_lengths = {1,  5,  6, 25, 2,
                                                                                  11, 10, 1, 150};

// Sections follow one another without gaps.
inline constexpr std::array<uint32_t, SUMMARY_INFO_COUNT> summary_info_offsets = [] {
    std::array<uint32_t, SUMMARY_INFO_COUNT> offsets{};
    for (size_t type = 1; type < SUMMARY_INFO_COUNT; type++) {
        offsets[type] = offsets[type - 1] + summary_info_lengths[type - 1];
    }
    return offsets;
}();

// The summary data byte by byte. In a mask bit n stands for front port n, bit 0 for A.
enum summary_offset : size_t {
    SUMMARY_NODE_NUM = 0,  // 1..255, 0 when the node was started without a number
    SUMMARY_LINK_DOWN = 1, // mask: link down
    SUMMARY_GROUND = 2,    // mask: ground fault
    SUMMARY_RED = 3,       // masks of the port status; a port is in one of them at most
    SUMMARY_YELLOW = 4,
    SUMMARY_GREEN = 5,
    SUMMARY_MEDIA_ETH = 6, // masks of the media, in the order of the media codes; likewise
    SUMMARY_MEDIA_DSL = 7,
    SUMMARY_MEDIA_SMF = 8,
    SUMMARY_MEDIA_MMF = 9,
    SUMMARY_FIRE_PORTS = 10,      // mask: ports of type "fire"
    SUMMARY_SPUR_PORTS = 11,      // mask: ports of type "firespur"
    SUMMARY_MISWIRED = 12,        // mask: miswired
    SUMMARY_MISWIRED_PEERS = 13,  // for each front port: peer node number, peer port, this port
    SUMMARY_RINGS = 37,           // bit r: ring r has reported a state
    SUMMARY_DEGRADED_RINGS = 38,  // bit r: ... other than closed
    SUMMARY_JOB_NAME = 39,        // 8 characters, zero-filled, not terminated when full
    SUMMARY_JOB_REVISION = 47,    // 3 characters, likewise
    SUMMARY_DOWNLOAD_STATUS = 50, // 2 bytes as published
    SUMMARY_CF_FREE = 52,         // 32 bits, little-endian
    SUMMARY_M301 = 56,            // flags: 1 on, 0 off
    SUMMARY_M702 = 57,
    SUMMARY_COMM_LOSS = 58,
    SUMMARY_DOWNLOAD_PENDING = 59,
    SUMMARY_REPEATER = 60,   // 0..255
    SUMMARY_EBOOT_NAME = 61, // versions: names of 10 and versions of 40 characters, padded with blanks
    SUMMARY_EBOOT_VERSION = 71,
    SUMMARY_EOS_NAME = 111,
    SUMMARY_EOS_VERSION = 121,
    SUMMARY_PRIAPP_NAME = 161,
    SUMMARY_PRIAPP_VERSION = 171,
    SUMMARY_SIZE = 211,
};
// The three bytes of a port in SUMMARY_MISWIRED_PEERS, which count only while its miswired bit is set.
constexpr size_t SUMMARY_MISWIRED_PEER_NODE = 0;
constexpr size_t SUMMARY_MISWIRED_PEER_PORT = 1;
constexpr size_t SUMMARY_MISWIRED_LOCAL_PORT = 2;
constexpr size_t SUMMARY_MISWIRED_PEER_SIZE = 3;
constexpr size_t SUMMARY_JOB_NAME_SIZE = 8;
constexpr size_t SUMMARY_JOB_REVISION_SIZE = 3;
constexpr size_t SUMMARY_DOWNLOAD_STATUS_SIZE = 2;
constexpr size_t SUMMARY_VERSION_NAME_SIZE = 10;
constexpr size_t SUMMARY_VERSION_SIZE = 40;
static_assert(summary_info_offsets[SUMMARY_INFO_NODE_NUM] == SUMMARY_NODE_NUM);
static_assert(summary_info_offsets[SUMMARY_INFO_PORTS_DYNAMIC] == SUMMARY_LINK_DOWN);
static_assert(summary_info_offsets[SUMMARY_INFO_PORTS_STATIC] == SUMMARY_MEDIA_ETH);
static_assert(summary_info_offsets[SUMMARY_INFO_MISWIRED] == SUMMARY_MISWIRED);
static_assert(summary_info_offsets[SUMMARY_INFO_RINGS] == SUMMARY_RINGS);
static_assert(summary_info_offsets[SUMMARY_INFO_JOB] == SUMMARY_JOB_NAME);
static_assert(summary_info_offsets[SUMMARY_INFO_DOWNLOAD] == SUMMARY_DOWNLOAD_STATUS);
static_assert(summary_info_offsets[SUMMARY_INFO_REPEATER] == SUMMARY_REPEATER);
static_assert(summary_info_offsets[SUMMARY_INFO_VERSIONS] == SUMMARY_EBOOT_NAME);
static_assert(summary_info_lengths.back() > 0); // none is missing
static_assert(summary_info_offsets.back() + summary_info_lengths.back() == SUMMARY_SIZE);

// On the wire a summary is a sequence of sections
//
//     0       1               3
//     +-------+---------------+----------------
//     | type  | length        | data ...            00 00 01 07   node number 7
//     +-------+---------------+----------------
//
// with the length big-endian, in increasing order of types, the node number always among them.
constexpr size_t SUMMARY_SECTION_HEADER_SIZE = 3;
constexpr size_t SUMMARY_MAX_PAYLOAD = SUMMARY_INFO_COUNT * SUMMARY_SECTION_HEADER_SIZE + SUMMARY_SIZE;

struct summary_section {
    uint8_t type;
    uint16_t length;
    std::span<const uint8_t> data;
};

enum class summary_walk {
    SECTION,      // section is of a known type and has its length
    UNKNOWN_TYPE, // only the header was passed over
    WRONG_LENGTH, // section was passed over, data is not to be used
    TRUNCATED,    // section.length runs past the end: the walk is over
    END,          // no header left: the walk is over
};

// Takes the next section off the front of payload.
summary_walk summary_next_section(std::span<const uint8_t> &payload, summary_section &section);

// Writes the sections of data whose bit (1 << type) is set in types; returns the length written.
size_t summary_encode(const uint8_t (&data)[SUMMARY_SIZE], unsigned types,
                      uint8_t (&payload)[SUMMARY_MAX_PAYLOAD]);
