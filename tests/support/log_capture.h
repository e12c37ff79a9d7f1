// Keeps what the program hands to syslog instead of sending it.
#pragma once

#include <string>
#include <vector>

struct log_line {
    int priority;
    std::string text;
};

// The lines logged since the process started or since the last clear_log(), oldest first.
const std::vector<log_line> &logged_lines();
void clear_log();

using log_messages = std::vector<std::string>;

// The same lines, only what follows "[LEVEL] component(pid) - file:line - ", for comparison with the messages
// that a step must log, in order.
log_messages logged_messages();
