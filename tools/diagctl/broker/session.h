// The one session with a broker, driven by the caller's poll loop. A lost session is not taken up again.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

struct broker_address {
    std::string host;
    int port;
};

// Called for each message; topic and payload are valid only during the call.
using message_handler =
    std::function<void(std::string_view topic, std::span<const uint8_t> payload, bool is_retained)>;

// Connects, waits for the broker's answer (5 s at most for the TCP connection, and for the answer), subscribes and hands over
// what the filters' topics have retained: it has all been handled when this returns. False, with the reason in error,
// when there is no such broker or it refuses.
bool session_open(const broker_address &address, const std::vector<std::string> &filters,
                  message_handler handler, std::string &error);

// From here on, before session_open(): a message's is_retained tells whether it was published to be retained, not
// whether it was there before the subscription. Takes a broker that speaks MQTT 5.
void session_keep_retain_flags();

// The same for one more filter of an open session.
bool session_subscribe(const std::string &filter, std::string &error);

// Sends a message at QoS 1. It may still be on its way: session_is_delivered() tells.
bool session_publish(const std::string &topic, std::span<const uint8_t> payload, bool is_retained,
                     std::string &error);

// Whether the broker has acknowledged everything published.
bool session_is_delivered();

enum class session_end {
    DONE,        // is_done said so
    TIMEOUT,     // the time is over
    INTERRUPTED, // one of the signals of signals_open() came
    LOST,        // the session, with the reason in error
};

// Serves the session until something of it happens. is_done is asked after each message or packet, and once a
// second. Signals count once signals_open() was called.
session_end session_wait(const std::function<bool()> &is_done, std::chrono::milliseconds limit,
                         std::string &error);

// For a poll loop of one's own: the socket and the events to poll it for.
int session_socket();
short session_events();

// Does what the polled events allow and keeps the session alive; to be called once a second at least.
// False, with the reason in error, when the session is lost.
bool session_serve(short events, std::string &error);

// Sends what is pending, as far as the socket takes it, and disconnects.
void session_close();
