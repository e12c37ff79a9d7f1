// The simulated MQTT broker as a test sees it. The daemon's client library talks to it through a pretended
// socket; like the real library it puts what is published inside a callback on the wire only at its next
// write, and keeps at most 20 unacknowledged publications there.
#pragma once

#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace sim
{

struct message {
    std::string topic;
    std::string payload;
    bool retain = true;
    bool operator==(const message &) const = default;
};
using messages = std::vector<message>;
void PrintTo(const message &message, std::ostream *stream);

struct broker_behaviour {
    unsigned refused_connections = 0; // TCP connections still to be refused
    bool answers_connect = true;
    int connack_code = 0;
    bool answers_publish = true;
    bool answers_subscribe = true;
    bool answers_ping = true;
    int granted_qos = 1;
    bool reads = true; // false: the client's socket is full
};
broker_behaviour &broker();

// Acknowledges the publication that was the nth to be left unanswered, from 0; the daemon runs.
void answer_publication(size_t nth);

// A message from another client; the daemon runs.
void publish(const std::string &topic, const std::string &payload, bool retain = true);

// A message that the broker holds before the daemon subscribes.
void retain(const std::string &topic, const std::string &payload);
std::map<std::string, std::string> &retained();

// Closes the connection; the daemon runs.
void close_connection();

// Publications that the broker has received from the daemon since the last call.
messages take_published();

// Everything that it has received since the last call: "CONNECT", "PUBLISH topic", "SUBSCRIBE filter",
// "UNSUBSCRIBE filter", "PINGREQ", "DISCONNECT".
std::vector<std::string> take_requests();

// Whether the library is set up or a client exists.
bool is_library_in_use();

// How the daemon has set its client up: "id=diag clean=1 host=127.0.0.1 port=1885 keepalive=10 nodelay=1".
std::string client_settings();

} // namespace sim
