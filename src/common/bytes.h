// Integers in byte buffers of any alignment: the wire is big-endian, the card's own processes write host
// order.
#pragma once

#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>

template <std::unsigned_integral T>
constexpr T load_be(const uint8_t *bytes)
{
    T value = 0;
    for (size_t i = 0; i < sizeof(T); i++) {
        value = static_cast<T>((value << 8) | bytes[i]);
    }
    return value;
}

template <std::unsigned_integral T>
constexpr void store_be(uint8_t *bytes, T value)
{
    for (size_t i = sizeof(T); i-- > 0;) {
        bytes[i] = static_cast<uint8_t>(value);
        value = static_cast<T>(value >> 8);
    }
}

template <std::unsigned_integral T>
constexpr T load_le(const uint8_t *bytes)
{
    T value = 0;
    for (size_t i = sizeof(T); i-- > 0;) {
        value = static_cast<T>((value << 8) | bytes[i]);
    }
    return value;
}

template <std::unsigned_integral T>
constexpr void store_le(uint8_t *bytes, T value)
{
    for (size_t i = 0; i < sizeof(T); i++) {
        bytes[i] = static_cast<uint8_t>(value);
        value = static_cast<T>(value >> 8);
    }
}

template <std::integral T>
T load_host(const uint8_t *bytes)
{
    T value;
    memcpy(&value, bytes, sizeof value);
    return value;
}

template <std::integral T>
void store_host(uint8_t *bytes, T value)
{
    memcpy(bytes, &value, sizeof value);
}

// The same for integers whose width, 8 bytes at most, a table gives. What does not fit is cut off.
constexpr uint64_t load_be(const uint8_t *bytes, size_t width)
{
    uint64_t value = 0;
    for (size_t i = 0; i < width; i++) {
        value = (value << 8) | bytes[i];
    }
    return value;
}

constexpr void store_be(uint8_t *bytes, size_t width, uint64_t value)
{
    for (size_t i = width; i-- > 0;) {
        bytes[i] = static_cast<uint8_t>(value);
        value >>= 8;
    }
}

// Where the low bytes of a 64-bit integer begin in memory.
constexpr size_t host_low_bytes(size_t width)
{
    return std::endian::native == std::endian::big ? sizeof(uint64_t) - width : 0;
}

inline uint64_t load_host(const uint8_t *bytes, size_t width)
{
    uint8_t value[sizeof(uint64_t)] = {};
    memcpy(value + host_low_bytes(width), bytes, width);
    return load_host<uint64_t>(value);
}

inline void store_host(uint8_t *bytes, size_t width, uint64_t value)
{
    uint8_t all[sizeof value];
    store_host(all, value);
    memcpy(bytes, all + host_low_bytes(width), width);
}
