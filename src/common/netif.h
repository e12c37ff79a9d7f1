// Network interfaces and MAC addresses. Nothing here logs.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t MAC_SIZE = 6;
constexpr size_t MAC_STR_SIZE = 18; // with its NUL

// 1 when the interface is up, 0 when it is down or unknown, -1 when no socket could be opened.
[[nodiscard]] int netif_is_up(const char *name);

// Polls every 50 ms until the interface is up: 0, or -1 after timeout_ms, on an error or on a signal.
[[nodiscard]] int netif_wait_for_up(const char *name, int timeout_ms);

// The text 00-1A-2B-3C-4D-5E in a static buffer that the next call overwrites; null for a null address.
const char *mac_addr_to_str(const uint8_t *mac);
