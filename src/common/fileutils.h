// One-bit GPIO value files and one-byte register files. Logs as component "lumlog".
#pragma once

#include <cstdint>

// 0 or 1, the file's first character; -1 when it can't be read or is neither.
[[nodiscard]] int fileutils_read_gpio(const char *path);

// Reads a register written as text: the file's first four characters must be one number in C notation (0x2a,
// 0255, 0012), of which the low 8 bits count. 0, or -1 with value_out untouched.
[[nodiscard]] int fileutils_read_register_u8(const char *path, uint8_t *value_out);
