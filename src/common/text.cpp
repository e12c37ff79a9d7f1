#include "common/text.h"

#include <charconv>
#include <cstring>
#include <new>

std::string_view payload_text(const void *payload, int length)
{
    if (payload == nullptr || length <= 0) {
        return {};
    }
    const std::string_view text(static_cast<const char *>(payload), static_cast<size_t>(length));
    return text.substr(0, text.find('\0'));
}

bool parse_u32(std::string_view text, uint32_t &value)
{
    if (text.empty()) {
        value = 0;
        return true;
    }
    int base = 10;
    if (text.starts_with("0x") || text.starts_with("0X")) {
        base = 16;
        text.remove_prefix(2);
    } else if (text.starts_with('0')) {
        base = 8;
    }
    uint32_t number = 0;
    const char *const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number, base);
    if (result.ec != std::errc() || result.ptr != end) {
        return false;
    }
    value = number;
    return true;
}

size_t parse_hex_byte(const char *text, uint8_t &value)
{
    constexpr size_t DIGITS = 2;
    constexpr int HEXADECIMAL = 16;
    const auto result = std::from_chars(text, text + strnlen(text, DIGITS), value, HEXADECIMAL);
    return result.ec == std::errc() ? static_cast<size_t>(result.ptr - text) : 0;
}

std::unique_ptr<char[]> copy_text(std::string_view text)
{
    std::unique_ptr<char[]> copy(new (std::nothrow) char[text.size() + 1]);
    if (copy) {
        text.copy(copy.get(), text.size());
        copy[text.size()] = '\0';
    }
    return copy;
}

std::unique_ptr<uint8_t[]> copy_bytes(const void *bytes, size_t length)
{
    std::unique_ptr<uint8_t[]> copy(new (std::nothrow) uint8_t[length]);
    if (copy) {
        memcpy(copy.get(), bytes, length);
    }
    return copy;
}
