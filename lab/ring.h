// Ring protection seen from one node: the ring is intact while no node reports a failed ring port.
//
// As in ITU-T G.8032, a node with a failed port floods R-APS "signal fail" messages through what is left of
// the ring, at once and then every second, and "no request" messages when the port is back. The kernel's
// spanning tree does the switching; these messages only tell every node that the ring is degraded.
//
//     0       1       2       3       4       5       6                      12
//     +-------+-------+-------+-------+-------+-------+----------------------+----------+-------+
//     | level,| op-   | flags | TLV   | state | status| node's MAC address   | 24 bytes | end   |
//     | vers. | code  | 0     | offset|       |       |                      | reserved | TLV 0 |
//     +-------+-------+-------+-------+-------+-------+----------------------+----------+-------+
//     20 28 00 20 B0 00 02 00 00 00 00 03 (24 times 00) 00      signal fail at 02-00-00-00-00-03
#pragma once

// Opens the socket through which the messages go and come, -1 with errno on failure. They travel on the
// interface "fire" and name the node by the MAC address given.
int ring_open(const unsigned char *mac);

// Notes whether one of this node's own ports has failed; tells the others when that has changed.
void ring_set_own_failure(bool failed);

// Takes the pending messages from the socket.
void ring_receive();

// Once a second: repeats this node's signal fail and forgets nodes that have fallen silent.
void ring_tick();

bool ring_is_intact();
