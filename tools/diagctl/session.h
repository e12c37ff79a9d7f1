// The one session with a broker, driven by the caller's poll loop. A lost session is not taken up again.
#pragma once

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

// Connects, waits for the broker's answer (5 s at most once the TCP connection stands) and subscribes.
// False, with the reason in error, when there is no such broker or it refuses.
bool session_open(const broker_address &address, const std::vector<std::string> &filters,
                  message_handler handler, std::string &error);

// The socket and the events to poll it for.
int session_socket();
short session_events();

// Does what the polled events allow and keeps the session alive; to be called once a second at least.
// False, with the reason in error, when the session is lost.
bool session_serve(short events, std::string &error);

void session_close();
