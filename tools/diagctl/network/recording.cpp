#include "network/recording.h"

#include "common/text.h"

#include <fmt/core.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <iterator>

namespace
{

using json = nlohmann::ordered_json;

constexpr int VERSION = 1;
constexpr const char *VERSION_FIELD = "diagctl_recording";
constexpr size_t MAX_TOPIC_LENGTH = 65535;
constexpr double MILLISECONDS = 1000;
constexpr double MAX_TIME = 1e9; // 31 years; a clock has no room for every number

std::string hex_of(bytes payload)
{
    std::string hex;
    for (const uint8_t byte : payload) {
        fmt::format_to(std::back_inserter(hex), "{:02X}", byte);
    }
    return hex;
}

std::optional<std::vector<uint8_t>> bytes_of(const std::string &hex)
{
    std::vector<uint8_t> payload(hex.size() / 2);
    for (size_t i = 0; i < payload.size(); i++) {
        if (parse_hex_byte(hex.c_str() + 2 * i, payload[i]) != 2) {
            return {};
        }
    }
    return hex.size() % 2 == 0 ? std::optional(payload) : std::nullopt;
}

} // namespace

std::string payload_display(bytes payload)
{
    return is_printable(as_text(payload)) ? std::string(as_text(payload)) : "0x" + hex_of(payload);
}

std::string recording_head(const std::string &started)
{
    return json{{VERSION_FIELD, VERSION}, {"started", started}}.dump();
}

std::string recording_line(double time, bool is_retained, std::string_view topic, bytes payload)
{
    json line = {{"time", std::round(time * MILLISECONDS) / MILLISECONDS},
                 {"retained", is_retained},
                 {"topic", std::string(topic)}};
    if (is_printable(as_text(payload))) {
        line["text"] = std::string(as_text(payload));
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
    if (message.time < 0 || message.time > MAX_TIME || message.topic.empty() ||
        message.topic.size() > MAX_TOPIC_LENGTH || message.topic.find_first_of("+#") != std::string::npos) {
        return {};
    }
    if (object.contains("text")) {
        const std::string text = object["text"];
        message.payload.assign(text.begin(), text.end());
        return message;
    }
    std::optional<std::vector<uint8_t>> payload = bytes_of(object["hex"]);
    if (!payload) {
        return {};
    }
    message.payload = std::move(*payload);
    return message;
}
