// Binary and text records published for clients, declared once for the daemon that writes them and the tools
// that read them. Integers are big-endian.
#pragma once

#include "common/netif.h"

#include <cstddef>

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

// local/diag/port/<PORT>/status: the ring-protection (ERPS, ITU-T G.8032) state of a port, written by the
// ring protection process in host byte order. A state with no bit set but bit 2 means that the port is up.
constexpr size_t ERPS_STATUS_FLAGS = 0;       // 1 byte
constexpr size_t ERPS_STATUS_STATE = 4;       // 32 bits
constexpr size_t ERPS_STATUS_PEER_PORT = 76;  // 32 bits
constexpr size_t ERPS_STATUS_PEER_NODE = 80;  // 32 bits
constexpr size_t ERPS_STATUS_PEER_FLAGS = 88; // 1 byte
constexpr size_t ERPS_STATUS_SIZE = 92;
constexpr unsigned ERPS_STATE_UP_MASK = 1U << 2;
