// Datagrams as docs/protocol.md has them, read without the daemon's own code.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace sim::wire
{

enum type : uint8_t {
    SUMMARY = 1,
    SUBSCRIBE,
    UNSUBSCRIBE,
    UNSUBSCRIBE_ALL,
    ACK,
    TOPIC_DATA,
    CLIENT_KEEPALIVE,
    RESET_STATS,
    RESET_ALL_STATS,
    ACTIVATE,
    REMOTE_DOWNLOAD,
    GOODBYE,
};

constexpr size_t TYPES = 12;
// Offsets in the header, and its size.
constexpr size_t TYPE = 1;
constexpr size_t MAC = 2;
constexpr size_t LENGTH = 8;
constexpr size_t HEADER = 10;
constexpr size_t LARGEST = 1024;
constexpr uint32_t GROUP = 0xE016212CU; // 224.22.33.44
constexpr size_t SECTIONS = 9;
constexpr uint16_t SECTION_LENGTHS[SECTIONS] = {1, 5, 6, 25, 2, 11, 10, 1, 150};

struct packet {
    type kind;
    std::span<const uint8_t> mac;
    std::span<const uint8_t> payload;

    uint16_t u16(size_t offset) const
    {
        return static_cast<uint16_t>(payload[offset] << 8 | payload[offset + 1]);
    }
    uint32_t u32(size_t offset) const { return uint32_t{u16(offset)} << 16 | u16(offset + 2); }
    // The text up to its NUL; null when there is none.
    std::optional<std::string_view> text(size_t offset) const
    {
        const std::string_view rest(reinterpret_cast<const char *>(payload.data()) + offset,
                                    payload.size() - offset);
        const size_t end = rest.find('\0');
        return end == std::string_view::npos ? std::nullopt : std::optional(rest.substr(0, end));
    }
};

constexpr size_t LEAST_PAYLOAD[TYPES + 1] = {0, 0, 12, 10, 8, 4, 2, 4, 1, 0, 5, 5, 0};
constexpr size_t FILTER_OF_SUBSCRIBE = 10;
constexpr size_t FILTER_OF_UNSUBSCRIBE = 8;

// Null for what a receiver drops.
inline std::optional<packet> read(std::span<const uint8_t> datagram)
{
    if (datagram.size() < HEADER || datagram.size() > LARGEST) {
        return std::nullopt;
    }
    const auto length = static_cast<size_t>(datagram[LENGTH] << 8 | datagram[LENGTH + 1]);
    const uint8_t kind = datagram[TYPE];
    if (length > datagram.size() - HEADER || kind == 0 || kind > TYPES || length < LEAST_PAYLOAD[kind]) {
        return std::nullopt;
    }
    const packet found = {static_cast<type>(kind), datagram.subspan(MAC, 6),
                          datagram.subspan(HEADER, length)};
    if ((kind == SUBSCRIBE && !found.text(FILTER_OF_SUBSCRIBE)) ||
        (kind == UNSUBSCRIBE && !found.text(FILTER_OF_UNSUBSCRIBE))) {
        return std::nullopt;
    }
    if (kind == TOPIC_DATA) {
        const auto topic = found.text(0);
        if (!topic || topic->size() + 1 == length) {
            return std::nullopt;
        }
    }
    return found;
}

// Requests that the receiver acknowledges.
constexpr bool is_request(type kind)
{
    return kind == SUBSCRIBE || kind == UNSUBSCRIBE || kind == ACTIVATE || kind == REMOTE_DOWNLOAD;
}

} // namespace sim::wire
