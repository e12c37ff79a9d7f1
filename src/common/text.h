// Text: formatted in place, received from outside (MQTT payloads are not NUL-terminated and may hold
// anything), copied.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string_view>

// A short text that is formatted in place and cut off at its size.
template <size_t SIZE>
struct formatted_text {
    [[gnu::format(printf, 2, 3)]] explicit formatted_text(const char *format, ...)
    {
        va_list arguments;
        va_start(arguments, format);
        static_cast<void>(vsnprintf(text, sizeof text, format, arguments));
        va_end(arguments);
    }
    char text[SIZE];
};
using topic_text = formatted_text<64>; // has room for each one of topics.h

// The payload as text: up to its first NUL, or whole. A null payload is the empty text.
std::string_view payload_text(const void *payload, int length);

// Reads the whole text as an unsigned number, decimal, 0x-prefixed hexadecimal or 0-prefixed octal; the empty
// text is 0. False, with value untouched, for a sign, a blank, anything left over or a number above
// 4294967295.
bool parse_u32(std::string_view text, uint32_t &value);

// Reads a byte from the one or two hexadecimal digits at the start of text; returns how many they are. 0
// leaves value untouched.
size_t parse_hex_byte(const char *text, uint8_t &value);

// A copy, a text terminated, that its owner frees; null when there is no memory.
std::unique_ptr<char[]> copy_text(std::string_view text);
std::unique_ptr<uint8_t[]> copy_bytes(const void *bytes, size_t length);
