// Integers in byte buffers of any alignment: the wire is big-endian, the card's own processes write host
// order.
#pragma once

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
