// The one MQTT session, to the broker on this card.
//
// Every publication and subscription has QoS 1 and is sent again each second, three times at most, until the
// broker acknowledges it; the daemon stops when that is not enough. There is no reconnection: a lost session
// stops it too. All functions return 0, or -1 after logging why.
#pragma once

#include <cstddef>

// A message that matches a subscription. topic and payload are valid only during the call; the payload is not
// terminated, and length 0 is the removal of a retained value. arg is what broker_subscribe was given. The
// callback may subscribe and unsubscribe anything.
using broker_callback = void (*)(const char *topic, const void *payload, int length, void *arg);

// Connects and waits for the broker's answer, 5 s at most once the TCP connection stands; while nobody
// listens it tries again every 50 ms without limit. Returns 0 without a session when termination is requested
// meanwhile.
[[nodiscard]] int broker_connect();

// Closes the session and frees the client.
[[nodiscard]] int broker_disconnect();

// Publishes retained, and not retained. Neither pointer may be null, also where length is 0.
[[nodiscard]] int broker_publish(const char *topic, const void *payload, size_t length);
[[nodiscard]] int broker_publish_unretained(const char *topic, const void *payload, size_t length);

// Removes the retained value of the topic.
[[nodiscard]] int broker_unpublish(const char *topic);

// Calls callback for every message whose topic matches the filter, until broker_unsubscribe. Filters may
// repeat: each record is called, the newest first.
[[nodiscard]] int broker_subscribe(const char *filter, broker_callback callback, void *arg);

// Forgets every subscription of exactly this filter, be it none, and tells the broker.
[[nodiscard]] int broker_unsubscribe(const char *filter);
