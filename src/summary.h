// The summaries of all nodes: this node's own, fed by local topics and by the port statistics, and every
// other node's, of which changes come within 3 s and all of it each minute. From them come the per-node
// topics pub/diag/<MAC>/... and the network-wide lists. Functions return 0, or -1 after logging why, unless
// said otherwise.
#pragma once

#include <cstddef>
#include <cstdint>

// Port types as summary_update_type takes them.
enum summary_port_type {
    SUMMARY_PORT_FIRE,
    SUMMARY_PORT_SPUR,
    SUMMARY_PORT_OTHER,
};

// Starts the module; called once at start-up, after the fire communications. node_number: 1..255, or 0 for
// none.
[[nodiscard]] int summary_init(uint8_t node_number);

// Changes of this node's ports, from the port statistics. port: hwinfo's numbers; down and grounded: 0 or 1;
// status: port_status; media: hwinfo's numbers up to LUM_TYPE_NONE; type: summary_port_type. The CPU port has
// no place in the summary: no byte changes for it.
[[nodiscard]] int summary_update_link(int port, int down);
[[nodiscard]] int summary_update_ground(int port, int grounded);
[[nodiscard]] int summary_update_status(int port, int status);
[[nodiscard]] int summary_update_media(int port, int media);
[[nodiscard]] int summary_update_type(int port, int type);

// Applies a summary received from the node mac; a node not heard of before gets a record.
[[nodiscard]] int summary_process(const uint8_t *mac, const uint8_t *payload, size_t length);

// Forgets the node mac and withdraws what was published for it. The local node is never forgotten.
[[nodiscard]] int summary_clear(const uint8_t *mac);

// Writes the MAC addresses of the nodes with this number, 6 bytes each, as many as fit into capacity bytes;
// returns how many. That there are more is logged.
size_t summary_get_mac_addrs(uint8_t node_number, uint8_t *macs_out, size_t capacity);
