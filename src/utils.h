// What all modules share: the range of node numbers, the termination flag, time arithmetic, topic parsers,
// software versions.
#pragma once

#include "common/lumlog.h"

#include <cstddef>
#include <cstdint>
#include <ctime>

constexpr uint8_t MAX_NODE_NUMBER = 255;

// Asks the process to stop: the event loop returns before its next wait, and waits that repeat give up.
// Called by the SIGTERM handler and by every callback that meets a fault it can't handle.
void terminate();
int is_terminated();

// The monotonic clock, which every interval is measured by. 0, or -1 after logging why.
[[nodiscard]] int get_time(timespec &now_out, log_place caller);

// 1 when a is later than b, -1 when earlier, 0 when equal or either is null (which is logged).
[[nodiscard]] int timespec_cmp(const timespec *a, const timespec *b);
// |a - b| and a + b of normalised times, normalised; {-1, -1} when either is null (which is logged).
timespec timespec_diff(const timespec *a, const timespec *b);
timespec timespec_sum(const timespec *a, const timespec *b);

// The six bytes of the first level of the topic, never the very first level, that starts with a MAC address
// such as 00-1A-2B-3C-4D-5E, in a static buffer that the next success overwrites; null when there is none.
// Reads like sscanf("%2X-..."): one or two digits of either case, and blanks and signs before each.
const uint8_t *find_mac_addr_in_topic(const char *topic);

// The port (hwinfo's numbers) in a topic local/diag/port/<PORT>/...: 0, or -1 with *port_out untouched.
[[nodiscard]] int find_port_in_local_topic(const char *topic, int *port_out);

// Software versions of the card: each fills two fields of fixed width, padded with blanks and not terminated,
// with the text before and after the first colon of its source. 0, or -1 with both fields blank.
//
//     get_eos_version      first line of /REVISION
//     get_priapp_version   first line of /REVISION_PRIAPP
//     get_eboot_version    bootrev="NAME:VERSION TAIL" in /proc/cmdline; of the tail, what follows its first
//                          dash is set against the right edge of the version field
[[nodiscard]] int get_eos_version(char *name, size_t name_size, char *version, size_t version_size);
[[nodiscard]] int get_priapp_version(char *name, size_t name_size, char *version, size_t version_size);
[[nodiscard]] int get_eboot_version(char *name, size_t name_size, char *version, size_t version_size);
