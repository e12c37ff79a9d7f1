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

// The same for integers whose width, 2, 4 or 8 bytes, a table gives. What does not fit is cut off.
template <typename Work>
constexpr auto with_integer_of(size_t width, Work work)
{
    switch (width) {
    case sizeof(uint16_t):
        return work(uint16_t{});
    case sizeof(uint32_t):
        return work(uint32_t{});
    default:
        return work(uint64_t{});
    }
}

constexpr uint64_t load_be(const uint8_t *bytes, size_t width)
{
    return with_integer_of(width, [&](auto type) -> uint64_t { return load_be<decltype(type)>(bytes); });
}

constexpr void store_be(uint8_t *bytes, size_t width, uint64_t value)
{
    with_integer_of(width, [&](auto type) { store_be(bytes, static_cast<decltype(type)>(value)); });
}

inline uint64_t load_host(const uint8_t *bytes, size_t width)
{
    return with_integer_of(width, [&](auto type) -> uint64_t { return load_host<decltype(type)>(bytes); });
}

inline void store_host(uint8_t *bytes, size_t width, uint64_t value)
{
    with_integer_of(width, [&](auto type) { store_host(bytes, static_cast<decltype(type)>(value)); });
}
