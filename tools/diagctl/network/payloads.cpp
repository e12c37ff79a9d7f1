#include "network/payloads.h"

#include "common/text.h"
#include "summary_record.h"
#include "topics.h"

#include <fmt/core.h>
#include <mosquitto.h>

#include <algorithm>
#include <charconv>

namespace
{

constexpr const char *COLOUR_NAMES[] = {"green", "yellow", "red"}; // by port_status

// The words of a version field with one blank between them: it is padded, also within, and what came from a
// file ends with the line's end.
std::string words(std::string_view text)
{
    constexpr std::string_view BLANKS = " \n";
    std::string joined;
    for (size_t start = 0; (start = text.find_first_not_of(BLANKS, start)) != std::string_view::npos;) {
        const std::string_view word = text.substr(start, text.find_first_of(BLANKS, start) - start);
        joined.append(joined.empty() ? "" : " ").append(printable(word));
        start += word.size();
    }
    return joined;
}

// Takes two hexadecimal digits off the front.
bool take_hex_byte(std::string_view &text, uint8_t &value)
{
    if (text.size() < 2) {
        return false;
    }
    const auto result = std::from_chars(text.data(), text.data() + 2, value, 16);
    if (result.ec != std::errc() || result.ptr != text.data() + 2) {
        return false;
    }
    text.remove_prefix(2);
    return true;
}

// With separator 0 the bytes follow one another directly.
std::optional<mac_address> parse_separated_mac(std::string_view text, char separator)
{
    mac_address mac{};
    for (size_t i = 0; i < mac.size(); i++) {
        if (i > 0 && separator != 0) {
            if (!text.starts_with(separator)) {
                return {};
            }
            text.remove_prefix(1);
        }
        if (!take_hex_byte(text, mac[i])) {
            return {};
        }
    }
    if (!text.empty()) {
        return {};
    }
    return mac;
}

std::optional<int> parse_topic_port(std::string_view text)
{
    for (int port = LUM_PORT_A; port <= LUM_PORT_CPU; port++) {
        if (text == hwinfo_lumport_enum_to_str_bigcap(port)) {
            return port;
        }
    }
    return {};
}

// {"A":"green","C":"red"}: each front port once at most. name_of gives the word of a code, codes counting
// from 0 to count - 1; ports that are left out get none.
std::optional<port_codes> parse_port_codes(bytes payload, const char *(*name_of)(int), int count, int none)
{
    port_codes codes;
    codes.fill(none);
    std::string_view text = as_text(payload);
    if (!text.starts_with('{') || !text.ends_with('}') || text.size() < 2) {
        return {};
    }
    text = text.substr(1, text.size() - 2);
    while (!text.empty()) {
        const std::string_view entry = text.substr(0, text.find(','));
        text.remove_prefix(entry.size());
        if (text == ",") {
            return {};
        }
        text.remove_prefix(std::min<size_t>(text.size(), 1));
        // "A":"word"
        constexpr size_t WORD = 5;
        if (entry.size() <= WORD || entry[0] != '"' || entry.substr(2, 3) != "\":\"" || entry.back() != '"') {
            return {};
        }
        const std::optional<int> port = parse_topic_port(entry.substr(1, 1));
        const std::string_view word = entry.substr(WORD, entry.size() - WORD - 1);
        int code = 0;
        while (code < count && word != name_of(code)) {
            code++;
        }
        if (!port || code == count || codes[static_cast<size_t>(*port)] != none) {
            return {};
        }
        codes[static_cast<size_t>(*port)] = code;
    }
    return codes;
}

// The decoders of the topics that hold one value: empty for a malformed payload.

std::optional<std::string> valid_if(bool is_valid, bytes payload)
{
    return is_valid ? std::optional(std::string(as_text(payload))) : std::nullopt;
}

std::optional<std::string> decode_port_summary(bytes payload)
{
    return valid_if(decode_colours(payload).has_value(), payload);
}

std::optional<std::string> decode_port_media(bytes payload)
{
    return valid_if(decode_media(payload).has_value(), payload);
}

template <size_t SIZE>
std::optional<std::string> decode_text(bytes payload)
{
    if (payload.size() > SIZE) {
        return {};
    }
    return printable(payload_text(payload.data(), static_cast<int>(payload.size())));
}

std::optional<std::string> decode_download_status(bytes payload)
{
    if (payload.size() != SUMMARY_DOWNLOAD_STATUS_SIZE) {
        return {};
    }
    return fmt::format("{:02X} {:02X}", payload[0], payload[1]);
}

template <uint32_t MAX>
std::optional<std::string> decode_number(bytes payload)
{
    uint32_t value = 0;
    if (!parse_u32(as_text(payload), value) || value > MAX) {
        return {};
    }
    return std::to_string(value);
}

std::optional<std::string> decode_flag(bytes payload)
{
    if (payload.size() != 1) {
        return {};
    }
    return payload[0] == '1' ? "on" : "off";
}

std::optional<std::string> decode_version_list(bytes payload)
{
    const auto versions = decode_versions(payload);
    if (!versions) {
        return {};
    }
    std::string text;
    for (const software_version &item : *versions) {
        text += fmt::format("{}{} {}", text.empty() ? "" : ", ", item.name, item.version);
    }
    return text;
}

constexpr uint32_t ANY_U32 = UINT32_MAX;
constexpr uint32_t REPEATER_MAX = 255;
constexpr uint32_t CARD_ADDR_MAX = 127;

template <size_t SIZE>
std::optional<std::array<uint8_t, SIZE>> decode_record(bytes payload)
{
    std::array<uint8_t, SIZE> record;
    if (payload.size() != SIZE) {
        return {};
    }
    std::copy(payload.begin(), payload.end(), record.begin());
    return record;
}

// "period0" to "period95" for count 96: no leading zeros, no signs.
bool is_slot_of(std::string_view text, std::string_view prefix, unsigned count)
{
    if (!text.starts_with(prefix)) {
        return false;
    }
    text.remove_prefix(prefix.size());
    unsigned slot = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), slot);
    return result.ec == std::errc() && result.ptr == text.data() + text.size() && slot < count &&
           (text.size() == 1 || text[0] != '0');
}

std::optional<std::string> decode_slot(bytes payload, std::string_view prefix, unsigned count)
{
    return is_slot_of(as_text(payload), prefix, count) ? std::optional(std::string(as_text(payload)))
                                                       : std::nullopt;
}

} // namespace

const std::array<node_topic_info, NODE_TOPICS> NODE_TOPIC_INFOS = {{
    {NODE_PORT_SUMMARY, "port colours", value_kind::STRUCTURE, decode_port_summary},
    {NODE_PORT_MEDIA, "port media", value_kind::STRUCTURE, decode_port_media},
    {NODE_JOB_REV, "job revision", value_kind::TEXT, decode_text<SUMMARY_JOB_REVISION_SIZE>},
    {NODE_JOB_NAME, "job name", value_kind::TEXT, decode_text<SUMMARY_JOB_NAME_SIZE>},
    {NODE_DOWNLOAD_STATUS, "download status", value_kind::TEXT, decode_download_status},
    {NODE_CF_FREE_SPACE, "free space in CF", value_kind::NUMBER, decode_number<ANY_U32>},
    {NODE_M301, "M301", value_kind::FLAG, decode_flag},
    {NODE_M702, "M702", value_kind::FLAG, decode_flag},
    {NODE_COMM_LOSS, "comm loss", value_kind::FLAG, decode_flag},
    {NODE_DOWNLOAD_PENDING, "download pending", value_kind::FLAG, decode_flag},
    {NODE_REPEATER, "repeater", value_kind::NUMBER, decode_number<REPEATER_MAX>},
    {NODE_SOFTWARE_VERSIONS, "versions", value_kind::STRUCTURE, decode_version_list},
    {NODE_CARD_ADDR, "card address", value_kind::NUMBER, decode_number<CARD_ADDR_MAX>},
}};

const std::array<port_list_info, PORT_LISTS> PORT_LIST_INFOS = {{
    {LINK_DOWN_TOPIC, "link_down", "link-down list", "Link down"},
    {GROUND_TOPIC, "ground_fault", "ground list", "Ground fault"},
    {MISWIRED_TOPIC, "miswired", "miswired list", "Miswired"},
}};

std::string_view as_text(bytes payload)
{
    return {reinterpret_cast<const char *>(payload.data()), payload.size()};
}

std::string printable(std::string_view text)
{
    std::string shown;
    for (const char c : text) {
        if (c >= ' ' && c <= '~' && c != '\\') {
            shown += c;
        } else {
            shown += fmt::format("\\x{:02X}", static_cast<uint8_t>(c));
        }
    }
    return shown;
}

bool is_printable(std::string_view text)
{
    return text.empty() ||
           mosquitto_validate_utf8(text.data(), static_cast<int>(text.size())) == MOSQ_ERR_SUCCESS;
}

std::string mac_text(const mac_address &mac)
{
    return fmt::format("{:02X}-{:02X}-{:02X}-{:02X}-{:02X}-{:02X}", mac[0], mac[1], mac[2], mac[3], mac[4],
                       mac[5]);
}

std::optional<mac_address> parse_topic_mac(std::string_view text)
{
    const std::optional<mac_address> mac = parse_separated_mac(text, '-');
    if (mac && mac_text(*mac) != text) {
        return {};
    }
    return mac;
}

std::optional<mac_address> parse_mac(std::string_view text)
{
    for (const char separator : {'-', ':', '.', '\0'}) {
        if (const std::optional<mac_address> mac = parse_separated_mac(text, separator)) {
            return mac;
        }
    }
    return {};
}

std::string port_text(int port)
{
    const char *const name = hwinfo_lumport_enum_to_str_bigcap(port);
    return name != nullptr ? name : std::to_string(port);
}

std::optional<int> parse_port(std::string_view text)
{
    std::string upper(text);
    for (char &c : upper) {
        c = static_cast<char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);
    }
    return parse_topic_port(upper);
}

std::string port_letters(unsigned ports)
{
    std::string text;
    for (int port = 0; port < LUM_FRONT_PORTS; port++) {
        if ((ports & (1U << port)) != 0) {
            text += port_text(port);
        }
    }
    return text;
}

std::optional<topic_place> parse_topic_place(std::string_view topic)
{
    if (!topic.starts_with(DIAG_PREFIX)) {
        return {};
    }
    topic.remove_prefix(DIAG_PREFIX.size());
    const size_t slash = topic.find('/');
    const std::optional<mac_address> mac = parse_topic_mac(topic.substr(0, slash));
    if (!mac || slash == std::string_view::npos) {
        return {};
    }
    topic.remove_prefix(slash + 1);
    const size_t port_end = topic.find('/');
    const std::optional<int> port = parse_topic_port(topic.substr(0, port_end));
    if (port && port_end != std::string_view::npos) {
        return topic_place{*mac, port, topic.substr(port_end + 1)};
    }
    return topic_place{*mac, {}, topic};
}

const char *colour_name(int status)
{
    return COLOUR_NAMES[status];
}

std::optional<port_codes> decode_colours(bytes payload)
{
    return parse_port_codes(payload, colour_name, PORT_STATUS_NONE, PORT_STATUS_NONE);
}

std::optional<port_codes> decode_media(bytes payload)
{
    return parse_port_codes(payload, hwinfo_lumtype_enum_to_str, LUM_TYPE_NONE, LUM_TYPE_NONE);
}

std::optional<std::vector<software_version>> decode_versions(bytes payload)
{
    if (payload.size() != VERSIONS_TEXT_SIZE) {
        return {};
    }
    std::vector<software_version> versions;
    for (std::string_view text = as_text(payload); !text.empty();) {
        constexpr size_t COLON = VERSIONS_TEXT_NAME_SIZE;
        constexpr size_t SEMICOLON = COLON + 1 + VERSIONS_TEXT_VERSION_SIZE;
        if (text[COLON] != ':' || text[SEMICOLON] != ';') {
            return {};
        }
        versions.push_back(
            {words(text.substr(0, COLON)), words(text.substr(COLON + 1, VERSIONS_TEXT_VERSION_SIZE))});
        text.remove_prefix(SEMICOLON + 1);
    }
    return versions;
}

std::optional<node_topic> node_topic_named(std::string_view name)
{
    const auto found = std::find_if(NODE_TOPIC_INFOS.begin(), NODE_TOPIC_INFOS.end(),
                                    [&](const node_topic_info &info) { return name == info.name; });
    return found == NODE_TOPIC_INFOS.end()
               ? std::nullopt
               : std::optional(static_cast<node_topic>(found - NODE_TOPIC_INFOS.begin()));
}

std::optional<port_list> port_list_of_topic(std::string_view topic)
{
    const auto found = std::find_if(PORT_LIST_INFOS.begin(), PORT_LIST_INFOS.end(),
                                    [&](const port_list_info &info) { return topic == info.topic; });
    return found == PORT_LIST_INFOS.end()
               ? std::nullopt
               : std::optional(static_cast<port_list>(found - PORT_LIST_INFOS.begin()));
}

std::optional<port_list_value> decode_port_list(bytes payload)
{
    port_list_value list;
    if (payload.size() == 1 && payload[0] == 0) {
        return list;
    }
    if (payload.size() % PORT_LIST_RECORD_SIZE != 0 ||
        payload.size() > PORT_LIST_MAX * PORT_LIST_RECORD_SIZE) {
        return {};
    }
    for (; !payload.empty(); payload = payload.subspan(PORT_LIST_RECORD_SIZE)) {
        listed_ports record{};
        std::copy_n(payload.begin() + PORT_LIST_MAC, MAC_SIZE, record.mac.begin());
        record.number = payload[PORT_LIST_NODE_NUM];
        record.ports = payload[PORT_LIST_PORTS];
        list.push_back(record);
    }
    return list;
}

unsigned ports_in(const port_list_value &list, const mac_address &mac)
{
    const auto found =
        std::find_if(list.begin(), list.end(), [&](const listed_ports &record) { return record.mac == mac; });
    return found == list.end() ? 0U : found->ports;
}

std::optional<std::vector<miswired_link>> decode_miswired_links(bytes payload)
{
    if (payload.size() % MISWIRED_LINK_SIZE != 0 ||
        payload.size() > MISWIRED_LINKS_MAX * MISWIRED_LINK_SIZE) {
        return {};
    }
    std::vector<miswired_link> links;
    for (; !payload.empty(); payload = payload.subspan(MISWIRED_LINK_SIZE)) {
        links.push_back({payload[MISWIRED_LINK_NODE_NUM], payload[MISWIRED_LINK_PORT],
                         payload[MISWIRED_LINK_PEER_NODE_NUM], payload[MISWIRED_LINK_PEER_PORT]});
    }
    return links;
}

std::string miswired_link_text(const miswired_link &link)
{
    return fmt::format("{}/{} to {}/{}", link.number, port_text(link.port), link.peer_number,
                       port_text(link.peer_port));
}

std::optional<bool> decode_ring_degraded(bytes payload)
{
    return payload.size() == 1 && payload[0] <= 1 ? std::optional(payload[0] == 1) : std::nullopt;
}

std::optional<int32_t> decode_ring_state(bytes payload)
{
    return payload.size() == RING_STATUS_SIZE ? std::optional(load_host<int32_t>(payload.data()))
                                              : std::nullopt;
}

const char *ring_state_text(int32_t state)
{
    if (state < 0) {
        return "not configured";
    }
    return state == RING_STATUS_CLOSED ? "closed" : "open";
}

std::optional<stats_record> decode_stats(bytes payload)
{
    return decode_record<STATS_BLOCK_SIZE>(payload);
}

std::optional<pm_record> decode_pm(bytes payload)
{
    const std::optional<pm_record> record = decode_record<PM_RECORD_SIZE>(payload);
    constexpr int64_t YEAR_2262 = 9214646400; // the last one that the clocks of this library know
    const bool has_time = record && closing_time(*record) >= 0 && closing_time(*record) < YEAR_2262;
    return has_time ? record : std::nullopt;
}

int64_t closing_time(const pm_record &record)
{
    return static_cast<int64_t>(load_be<uint64_t>(record.data() + PM_TIME));
}

std::optional<std::string> decode_period_slot(bytes payload)
{
    return decode_slot(payload, PM_PERIOD, PM_PERIODS);
}

std::optional<std::string> decode_day_slot(bytes payload)
{
    return decode_slot(payload, PM_DAY, PM_DAYS);
}

bool is_slot(std::string_view text)
{
    return is_slot_of(text, PM_PERIOD, PM_PERIODS) || is_slot_of(text, PM_DAY, PM_DAYS);
}
