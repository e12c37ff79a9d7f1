// The node's system log: what its processes send to /dev/log goes, one line a message, to the log file.
//
//     2026-03-01 12:00:00.123456 local7.err diag: [ERROR] diag(17) - remote:87 - packet is too small ...
#pragma once

// Opens /dev/log and the file, -1 with errno on failure. The socket is given back.
int node_log_open(const char *path);

// Writes the pending messages to the file.
void node_log_receive();
