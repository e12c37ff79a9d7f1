#include "network/recording.h"

#include "common/text.h"

#include <nlohmann/json.hpp>

#include <cmath>

namespace
{

using json = nlohmann::ordered_json;

constexpr int VERSION = 1;
constexpr const char *VERSION_FIELD = "diagctl_recording";
constexpr size_t MAX_TOPIC_LENGTH = 65535;
constexpr double MILLISECONDS = 1000;

std::string hex_of(std::span<const uint8_t> payload)
{
    constexpr const char *DIGITS = "0123456789ABCDEF";
    std::string hex;
    for (const uint8_t byte : payload) {
        hex += DIGITS[byte >> 4];
        hex += DIGITS[byte & 0xF];
    }
    return hex;
}

std::optional<std::vector<uint8_t>> bytes_of(const std::string &hex)
{
    std::vector<uint8_t> bytes(hex.size() / 2);
    for (size_t i = 0; i < bytes.size(); i++) {
        if (parse_hex_byte(hex.c_str() + 2 * i, bytes[i]) != 2) {
            return {};
        }
    }
    return hex.size() % 2 == 0 ? std::optional(bytes) : std::nullopt;
}

// The length of the printable character that text begins with, 0 where there is none.
size_t character_length(std::span<const uint8_t> text)
{
    const uint8_t first = text[0];
    if (first < 0x80) {
        return first >= ' ' && first != 0x7F ? 1 : 0;
    }
    const size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < length) {
        return 0;
    }
    uint32_t code = first & (0xFFU >> (length + 1));
    for (const uint8_t byte : text.subspan(1, length - 1)) {
        if ((byte & 0xC0) != 0x80) {
            return 0;
        }
        code = code << 6 | (byte & 0x3F);
    }
    constexpr uint32_t SMALLEST[] = {0, 0, 0xA0, 0x800, 0x10000}; // 0x80 to 0x9F are control characters
    const bool is_surrogate = code >= 0xD800 && code <= 0xDFFF;
    return code >= SMALLEST[length] && code <= 0x10FFFF && !is_surrogate ? length : 0;
}

} // namespace

bool is_printable(std::span<const uint8_t> payload)
{
    while (!payload.empty()) {
        const size_t length = character_length(payload);
        if (length == 0) {
            return false;
        }
        payload = payload.subspan(length);
    }
    return true;
}

std::string payload_display(std::span<const uint8_t> payload)
{
    return is_printable(payload) ? std::string(payload.begin(), payload.end()) : "0x" + hex_of(payload);
}

std::string recording_head(const std::string &started)
{
    return json{{VERSION_FIELD, VERSION}, {"started", started}}.dump();
}

std::string recording_line(double time, bool is_retained, std::string_view topic,
                           std::span<const uint8_t> payload)
{
    json line = {{"time", std::round(time * MILLISECONDS) / MILLISECONDS},
                 {"retained", is_retained},
                 {"topic", std::string(topic)}};
    if (is_printable(payload)) {
        line["text"] = std::string(payload.begin(), payload.end());
    } else {
        line["hex"] = hex_of(payload);
    }
    return line.dump();
}

std::optional<std::string> parse_recording_head(const std::string &line)
{
    const json head = json::parse(line, nullptr, false);
    if (!head.is_object() || !head.contains("started") || !head["started"].is_string() ||
        head.value(VERSION_FIELD, json()) != VERSION) {
        return {};
    }
    return head["started"].get<std::string>();
}

std::optional<recorded_message> parse_recording_line(const std::string &line)
{
    const json object = json::parse(line, nullptr, false);
    const auto has = [&](const char *name, bool (json::*is_type)() const noexcept) {
        return object.contains(name) && (object[name].*is_type)();
    };
    if (!object.is_object() || !has("time", &json::is_number) || !has("retained", &json::is_boolean) ||
        !has("topic", &json::is_string) || has("text", &json::is_string) == has("hex", &json::is_string)) {
        return {};
    }
    recorded_message message = {object["time"], object["retained"], object["topic"], {}};
    if (message.time < 0 || message.topic.empty() || message.topic.size() > MAX_TOPIC_LENGTH ||
        message.topic.find_first_of("+#") != std::string::npos) {
        return {};
    }
    if (object.contains("text")) {
        const std::string text = object["text"];
        message.payload.assign(text.begin(), text.end());
        return message;
    }
    std::optional<std::vector<uint8_t>> bytes = bytes_of(object["hex"]);
    if (!bytes) {
        return {};
    }
    message.payload = std::move(*bytes);
    return message;
}
