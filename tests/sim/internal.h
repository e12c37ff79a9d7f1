// What the parts of the simulated platform share.
#pragma once

#include "platform.h"

namespace sim::internal
{

constexpr duration MONOTONIC_START = 1000s;

// Counts the call and runs what before() has set for it. The failure that it is to have, or null.
const failure *find_failure(const char *call, std::string_view detail = {});

// The same for a system function: the value to return, with errno set.
std::optional<int> failing(const char *call, std::string_view detail = {});

enum class wakeup { READY, TIMEOUT, SIGNAL };

// Blocks the daemon until is_ready, until the time that deadline gives (none: for ever) or until a signal,
// whose handler has run then. Virtual time passes meanwhile.
wakeup wait(const std::function<bool()> &is_ready, const std::function<std::optional<duration>()> &deadline);

int open_descriptor(const std::string &kind);
void close_descriptor(int fd);

// Of the client library's socket.
bool is_mqtt_readable();
bool is_mqtt_writable();

} // namespace sim::internal
