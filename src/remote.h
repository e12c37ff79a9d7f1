// Node-to-node communication on the fire network, in the packets of packet.h. Functions return 0, or -1 after
// logging why.
#pragma once

#include <cstddef>
#include <cstdint>

// Opens the multicast socket on the fire interface and makes the module's MQTT subscriptions; called at
// start-up.
[[nodiscard]] int remote_init();

// Sends a whole packet to ip, an IPv4 address in dotted text, with one sendto.
[[nodiscard]] int send_packet(const char *ip, const uint8_t *buf, size_t len);

// Multicasts this node's encoded summary (1014 bytes at most).
[[nodiscard]] int remote_send_summary(const uint8_t *data, size_t length);

// Tells all nodes that this one leaves; called at shutdown.
[[nodiscard]] int remote_send_goodbye();

// The outcome of a request that was accepted (returned 0), called once: acknowledged is 1, within about a
// second of the acknowledgement, or 0, ten seconds after the first of ten unanswered transmissions. A refused
// request (-1) never calls it, nor does one that a fault of its timer or of sending ends together with the
// daemon. arg stays the caller's.
using request_result_cb = void (*)(int acknowledged, void *arg);

// Requests to the node that topic, a filter pub/diag/<MAC>/..., names: to send what changes on its matching
// topics to this node every period seconds (0: once), for this client, and to stop. Filters are valid and of
// 1003 and 1005 characters at most.
[[nodiscard]] int remote_subscribe(const char *topic, uint32_t client_id, uint16_t period,
                                   request_result_cb callback, void *arg);
[[nodiscard]] int remote_unsubscribe(const char *topic, uint32_t client_id, request_result_cb callback,
                                     void *arg);

// Ends every subscription of the client on all nodes; sent ten times, never acknowledged.
[[nodiscard]] int remote_unsubscribe_all(uint32_t client_id);

// Renews the client's subscriptions on all nodes, which otherwise expire 1200 s after they were made.
[[nodiscard]] int remote_send_client_keepalive(uint32_t client_id);

// Reset the statistics of one port of the node mac, and of all ports of all other nodes. Not acknowledged.
[[nodiscard]] int remote_reset_stats(const uint8_t *mac, int port);
[[nodiscard]] int remote_reset_all_stats();

// Requests that make the node mac publish value on its ACTIVATE_TOPIC or REMOTE_DOWNLOAD_TOPIC.
[[nodiscard]] int remote_activate(const uint8_t *mac, uint8_t value, request_result_cb callback, void *arg);
[[nodiscard]] int remote_set_remote_download(const uint8_t *mac, uint8_t value, request_result_cb callback,
                                             void *arg);
