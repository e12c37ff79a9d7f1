// Binary and text records in topics, declared once for the daemon and the tools: what clients read, its
// integers big-endian, and what the card's own processes write, in host byte order.
#pragma once

#include "common/netif.h"

#include <array>
#include <cstddef>
#include <cstdint>

// pub/diag/net/fire/link_down, grnd_list and miswired: one record for each node that has a port to list.
//
//     0                       6       7       8
//     +-----------------------+-------+-------+      00 1A 2B 3C 4D 5E 07 05
//     | MAC address           | node  | ports |      node 7, ports A and C
//     +-----------------------+-------+-------+
//
// An empty list is a single zero byte.
constexpr size_t PORT_LIST_MAC = 0;
constexpr size_t PORT_LIST_NODE_NUM = MAC_SIZE;
constexpr size_t PORT_LIST_PORTS = MAC_SIZE + 1;
constexpr size_t PORT_LIST_RECORD_SIZE = MAC_SIZE + 2;
constexpr size_t PORT_LIST_MAX = 250;

// pub/diag/net/fire/miswired_links: one record for each link, seen from the end met first.
//
//     0       1       2       3       4
//     +-------+-------+-------+-------+      07 00 09 02
//     | node  | port  | peer  | peer  |      node 7's port A leads to node 9's port C
//     |       |       | node  | port  |
//     +-------+-------+-------+-------+
//
// With no miswired link the topic is removed.
constexpr size_t MISWIRED_LINK_NODE_NUM = 0;
constexpr size_t MISWIRED_LINK_PORT = 1;
constexpr size_t MISWIRED_LINK_PEER_NODE_NUM = 2;
constexpr size_t MISWIRED_LINK_PEER_PORT = 3;
constexpr size_t MISWIRED_LINK_SIZE = 4;
constexpr size_t MISWIRED_LINKS_MAX = 50;

// pub/diag/<MAC>/software_versions: "NAME:VERSION;" for the operating system image, the boot loader and the
// primary application, each name padded to 10 and each version to 40 characters.
constexpr size_t VERSIONS_TEXT_NAME_SIZE = 10;
constexpr size_t VERSIONS_TEXT_VERSION_SIZE = 40;
constexpr size_t VERSIONS_TEXT_SIZE = 3 * (VERSIONS_TEXT_NAME_SIZE + 1 + VERSIONS_TEXT_VERSION_SIZE + 1);

// Status of a port, published by its colour in pub/diag/<MAC>/port_summary.
enum port_status {
    PORT_STATUS_GREEN,
    PORT_STATUS_YELLOW,
    PORT_STATUS_RED,
    PORT_STATUS_NONE,
};

// local/diag/ring/<n>/status: a 32-bit signed integer in host byte order, below 0 for a ring that isn't
// configured; a ring in any state but closed is open.
constexpr size_t RING_STATUS_SIZE = sizeof(int32_t);
constexpr int32_t RING_STATUS_CLOSED = 2;

// local/diag/port/<PORT>/status: the ring-protection (ERPS, ITU-T G.8032) state of a port, written by the
// ring protection process in host byte order. A state with no bit set but bit 2 means that the port is up.
constexpr size_t ERPS_STATUS_FLAGS = 0;       // 1 byte
constexpr size_t ERPS_STATUS_STATE = 4;       // 32 bits
constexpr size_t ERPS_STATUS_PEER_PORT = 76;  // 32 bits
constexpr size_t ERPS_STATUS_PEER_NODE = 80;  // 32 bits
constexpr size_t ERPS_STATUS_PEER_FLAGS = 88; // 1 byte
constexpr size_t ERPS_STATUS_SIZE = 92;
constexpr unsigned ERPS_STATE_UP_MASK = 1U << 2;

// local/diag/port/<PORT>/stats: the counters of a port, written by the port handling process in host byte
// order. pub/diag/<MAC>/<PORT>/stats: the same layout as published by the daemon, big-endian.
//
//          0               4               8               12
//          +---------------+---------------+---------------+---------------+
//      0   | count64_0                     | good_frames                   |
//     16   | link_down_s.  | link_down_c.  | erps_down_c.  | erps_down_s.  |
//     32   | errored_fr.   | error_ratio   | count32_40    | count32_44    |
//     48   | count32_48    | count32_52    | value32_56    | dsl_count_60  |
//     64   | v16_64|
//          +-------+
//
// Published for a port with 258 good and 2 errored frames since its last reset, 7692 ppm, whose link was down
// once, for 3 s; the other counters have come to 1, 40, 44, 48 and 52, value32_56 is 100 and value16_64 is 7:
//
//     00 00 00 00 00 00 00 01 00 00 00 00 00 00 01 02
//     00 00 00 03 00 00 00 01 00 00 00 00 00 00 00 00
//     00 00 00 02 00 00 1E 0C 00 00 00 28 00 00 00 2C
//     00 00 00 30 00 00 00 34 00 00 00 64 00 00 00 00
//     00 07
constexpr size_t STATS_COUNT64_0 = 0;
constexpr size_t STATS_GOOD_FRAMES = 8;
constexpr size_t STATS_LINK_DOWN_SECONDS = 16;
constexpr size_t STATS_LINK_DOWN_COUNT = 20;
constexpr size_t STATS_ERPS_DOWN_COUNT = 24;
constexpr size_t STATS_ERPS_DOWN_SECONDS = 28;
constexpr size_t STATS_ERRORED_FRAMES = 32;
constexpr size_t STATS_ERROR_RATIO_PPM = 36;
constexpr size_t STATS_COUNT32_40 = 40;
constexpr size_t STATS_COUNT32_44 = 44;
constexpr size_t STATS_COUNT32_48 = 48;
constexpr size_t STATS_COUNT32_52 = 52;
constexpr size_t STATS_VALUE32_56 = 56;
constexpr size_t STATS_DSL_COUNT_60 = 60;
constexpr size_t STATS_VALUE16_64 = 64;
constexpr size_t STATS_BLOCK_SIZE = 66;

// Where the daemon's current value of a field comes from.
enum class stats_origin {
    COPIED,       // the payload
    KEPT,         // the daemon's own account; its place in the payload is not read
    ADDED_ON_DSL, // the payload's increments, added up while the port's media is DSL
};

// What is published of the current value.
enum class stats_treatment {
    DIFFERENCED, // what has come since the last reset, modulo 2^(8 * width)
    PASSED,      // all of it
};

struct stats_field {
    size_t offset;
    size_t width; // in bytes; all are unsigned
    const char *name;
    stats_origin origin;
    stats_treatment treatment;
};

inline constexpr std::array<stats_field, 15> STATS_FIELDS = {{
    {STATS_COUNT64_0, 8, "count64_0", stats_origin::COPIED, stats_treatment::DIFFERENCED},
    {STATS_GOOD_FRAMES, 8, "good_frames", stats_origin::COPIED, stats_treatment::DIFFERENCED},
    {STATS_LINK_DOWN_SECONDS, 4, "link_down_seconds", stats_origin::KEPT, stats_treatment::DIFFERENCED},
    {STATS_LINK_DOWN_COUNT, 4, "link_down_count", stats_origin::KEPT, stats_treatment::DIFFERENCED},
    {STATS_ERPS_DOWN_COUNT, 4, "erps_down_count", stats_origin::KEPT, stats_treatment::DIFFERENCED},
    {STATS_ERPS_DOWN_SECONDS, 4, "erps_down_seconds", stats_origin::KEPT, stats_treatment::DIFFERENCED},
    {STATS_ERRORED_FRAMES, 4, "errored_frames", stats_origin::COPIED, stats_treatment::DIFFERENCED},
    {STATS_ERROR_RATIO_PPM, 4, "error_ratio_ppm", stats_origin::KEPT, stats_treatment::PASSED},
    {STATS_COUNT32_40, 4, "count32_40", stats_origin::COPIED, stats_treatment::DIFFERENCED},
    {STATS_COUNT32_44, 4, "count32_44", stats_origin::COPIED, stats_treatment::DIFFERENCED},
    {STATS_COUNT32_48, 4, "count32_48", stats_origin::COPIED, stats_treatment::DIFFERENCED},
    {STATS_COUNT32_52, 4, "count32_52", stats_origin::COPIED, stats_treatment::DIFFERENCED},
    {STATS_VALUE32_56, 4, "value32_56", stats_origin::COPIED, stats_treatment::PASSED},
    {STATS_DSL_COUNT_60, 4, "dsl_count_60", stats_origin::ADDED_ON_DSL, stats_treatment::DIFFERENCED},
    {STATS_VALUE16_64, 2, "value16_64", stats_origin::COPIED, stats_treatment::PASSED},
}};

// The field at this offset; only for offsets of fields.
consteval const stats_field &stats_field_at(size_t offset)
{
    size_t i = 0;
    while (STATS_FIELDS[i].offset != offset) {
        i++;
    }
    return STATS_FIELDS[i];
}

// pub/diag/<MAC>/<PORT>/pm/period0 to period95, pm/day0 to day6: the performance-monitoring record of a
// closed quarter hour or day, big-endian. pm/last_period and pm/last_day name the slot closed last, as text
// ("period12", "day3").
//
//          0               4               8               12
//          +---------------+---------------+---------------+---------------+
//      0   | time                          | count64_0                     |
//     16   | good_frames                   | errored_frames                |
//     32   | link_down_c.  | link_down_s.  | erps_down_c.  | erps_down_s.  |
//     48   | error_ratio   | dsl_count_60  |
//          +---------------+---------------+
//
// A period closed at 2024-01-01 10:15:00 UTC with 258 good and 2 errored frames, 7692 ppm since the last
// reset, and the link down once, for 3 s:
//
//     00 00 00 00 65 92 90 A4 00 00 00 00 00 00 00 00
//     00 00 00 00 00 00 01 02 00 00 00 00 00 00 00 02
//     00 00 00 01 00 00 00 03 00 00 00 00 00 00 00 00
//     00 00 1E 0C 00 00 00 00
constexpr size_t PM_TIME = 0;
constexpr size_t PM_COUNT64_0 = 8;
constexpr size_t PM_GOOD_FRAMES = 16;
constexpr size_t PM_ERRORED_FRAMES = 24;
constexpr size_t PM_LINK_DOWN_COUNT = 32;
constexpr size_t PM_LINK_DOWN_SECONDS = 36;
constexpr size_t PM_ERPS_DOWN_COUNT = 40;
constexpr size_t PM_ERPS_DOWN_SECONDS = 44;
constexpr size_t PM_ERROR_RATIO_PPM = 48;
constexpr size_t PM_DSL_COUNT_60 = 52;
constexpr size_t PM_RECORD_SIZE = 56;

constexpr unsigned PM_PERIODS = 96; // of 15 minutes: 24 hours
constexpr unsigned PM_DAYS = 7;

// What a field of the PM record holds.
enum class pm_treatment {
    CLOSING_TIME,       // seconds since 1970 UTC at which the period or day was closed, signed
    DIFFERENCED,        // what its source counted during the period; a day adds up its 96 periods
    DIFFERENCED_ON_DSL, // likewise, and 0 while the port's media is not DSL
    PASSED,             // its source's value when the period or day was closed
};

constexpr uint32_t ERROR_RATIO_THRESHOLD = 500; // parts per million
constexpr uint64_t PM_NO_LIMIT = UINT64_MAX;

struct pm_field {
    size_t offset;
    size_t width; // in bytes; where the source is narrower, the upper bytes of a period are 0
    const char *name;
    pm_treatment treatment;
    const stats_field *source; // null for the time
    uint64_t limit;            // more than this is a problem: the port is red, later yellow
};

inline constexpr std::array<pm_field, 10> PM_FIELDS = {{
    {PM_TIME, 8, "time", pm_treatment::CLOSING_TIME, nullptr, PM_NO_LIMIT},
    {PM_COUNT64_0, 8, "count64_0", pm_treatment::DIFFERENCED, &stats_field_at(STATS_COUNT64_0), PM_NO_LIMIT},
    {PM_GOOD_FRAMES, 8, "good_frames", pm_treatment::DIFFERENCED, &stats_field_at(STATS_GOOD_FRAMES),
     PM_NO_LIMIT},
    {PM_ERRORED_FRAMES, 8, "errored_frames", pm_treatment::DIFFERENCED, &stats_field_at(STATS_ERRORED_FRAMES),
     PM_NO_LIMIT},
    {PM_LINK_DOWN_COUNT, 4, "link_down_count", pm_treatment::DIFFERENCED,
     &stats_field_at(STATS_LINK_DOWN_COUNT), 0},
    {PM_LINK_DOWN_SECONDS, 4, "link_down_seconds", pm_treatment::DIFFERENCED,
     &stats_field_at(STATS_LINK_DOWN_SECONDS), 0},
    {PM_ERPS_DOWN_COUNT, 4, "erps_down_count", pm_treatment::DIFFERENCED,
     &stats_field_at(STATS_ERPS_DOWN_COUNT), 0},
    {PM_ERPS_DOWN_SECONDS, 4, "erps_down_seconds", pm_treatment::DIFFERENCED,
     &stats_field_at(STATS_ERPS_DOWN_SECONDS), 0},
    {PM_ERROR_RATIO_PPM, 4, "error_ratio_ppm", pm_treatment::PASSED, &stats_field_at(STATS_ERROR_RATIO_PPM),
     ERROR_RATIO_THRESHOLD},
    {PM_DSL_COUNT_60, 4, "dsl_count_60", pm_treatment::DIFFERENCED_ON_DSL,
     &stats_field_at(STATS_DSL_COUNT_60), 0},
}};

// Fields follow one another without gaps.
template <typename Fields>
constexpr bool is_gapless(const Fields &fields, size_t size)
{
    size_t end = 0;
    for (const auto &field : fields) {
        if (field.offset != end) {
            return false;
        }
        end += field.width;
    }
    return end == size;
}
static_assert(is_gapless(STATS_FIELDS, STATS_BLOCK_SIZE));
static_assert(is_gapless(PM_FIELDS, PM_RECORD_SIZE));
