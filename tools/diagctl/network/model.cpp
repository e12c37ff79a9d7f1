#include "network/model.h"

#include "common/bytes.h"
#include "common/text.h"
#include "summary_record.h"
#include "topics.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <set>
#include <utility>

namespace
{

using bytes = std::span<const uint8_t>;
using changes = std::vector<std::string>;

constexpr const char *PORT_LIST_NAMES[PORT_LISTS] = {"link-down list", "ground list", "miswired list"};
constexpr const char *PORT_LIST_TOPICS[PORT_LISTS] = {LINK_DOWN_TOPIC, GROUND_TOPIC, MISWIRED_TOPIC};
constexpr const char *COLOUR_NAMES[] = {"green", "yellow", "red"}; // by port_status

std::string quoted(const std::string &text)
{
    return "'" + text + "'";
}

std::string counted(size_t size)
{
    return std::to_string(size) + (size == 1 ? " byte" : " bytes");
}

// Outside text as it can be shown in any terminal.
std::string printable(std::string_view text)
{
    std::string shown;
    for (const char c : text) {
        if (c >= ' ' && c <= '~' && c != '\\') {
            shown += c;
        } else {
            char escape[8];
            snprintf(escape, sizeof escape, "\\x%02X", static_cast<unsigned>(static_cast<uint8_t>(c)));
            shown += escape;
        }
    }
    return shown;
}

std::string_view as_text(bytes payload)
{
    return {reinterpret_cast<const char *>(payload.data()), payload.size()};
}

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
std::optional<mac_address> parse_mac(std::string_view text, char separator)
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

// The one form that topics use.
std::optional<mac_address> parse_topic_mac(std::string_view text)
{
    const std::optional<mac_address> mac = parse_mac(text, '-');
    if (mac && mac_text(*mac) != text) {
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

std::optional<port_codes> parse_colours(bytes payload)
{
    return parse_port_codes(payload, colour_name, PORT_STATUS_NONE, PORT_STATUS_NONE);
}

std::optional<port_codes> parse_media(bytes payload)
{
    return parse_port_codes(payload, hwinfo_lumtype_enum_to_str, LUM_TYPE_NONE, LUM_TYPE_NONE);
}

std::optional<std::vector<software_version>> parse_versions(bytes payload)
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

// The decoders of the topics that hold one value: empty for a malformed payload.

std::optional<std::string> valid_if(bool is_valid, bytes payload)
{
    return is_valid ? std::optional(std::string(as_text(payload))) : std::nullopt;
}

std::optional<std::string> decode_port_summary(bytes payload)
{
    return valid_if(parse_colours(payload).has_value(), payload);
}

std::optional<std::string> decode_port_media(bytes payload)
{
    return valid_if(parse_media(payload).has_value(), payload);
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
    char text[8];
    snprintf(text, sizeof text, "%02X %02X", unsigned{payload[0]}, unsigned{payload[1]});
    return text;
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

std::optional<std::string> decode_versions(bytes payload)
{
    const auto versions = parse_versions(payload);
    if (!versions) {
        return {};
    }
    std::string text;
    for (const software_version &item : *versions) {
        text += (text.empty() ? "" : ", ") + item.name + " " + item.version;
    }
    return text;
}

struct node_topic_row {
    const char *name;
    const char *label;
    value_kind kind;
    std::optional<std::string> (*decode)(bytes);
};

constexpr uint32_t ANY_U32 = UINT32_MAX;
constexpr uint32_t REPEATER_MAX = 255;
constexpr uint32_t CARD_ADDR_MAX = 127;

// By node_topic.
constexpr std::array<node_topic_row, NODE_TOPICS> node_topics = {{
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
    {NODE_SOFTWARE_VERSIONS, "versions", value_kind::STRUCTURE, decode_versions},
    {NODE_CARD_ADDR, "card address", value_kind::NUMBER, decode_number<CARD_ADDR_MAX>},
}};

node &node_of(network &net, const mac_address &mac)
{
    node &found = net.nodes[mac];
    found.mac = mac;
    return found;
}

std::string node_label(const network &net, const mac_address &mac)
{
    std::string label = "node " + mac_text(mac);
    const auto found = net.nodes.find(mac);
    if (found != net.nodes.end() && found->second.number) {
        label += " (" + std::to_string(*found->second.number) + ")";
    }
    return label;
}

template <typename T>
void set_fact(fact<T> &target, bytes payload, std::optional<T> value)
{
    target.is_published = !payload.empty();
    target.size = payload.size();
    target.value = payload.empty() ? std::nullopt : std::move(value);
}

template <typename T>
bool is_malformed(const fact<T> &value)
{
    return value.is_published && !value.value;
}

// One line for each port that has changed. what goes before the port's word.
void describe_port_codes(const std::string &who, const char *what, const port_codes &before,
                         const port_codes &after, const char *(*name_of)(int), int none, changes &out)
{
    for (size_t port = 0; port < after.size(); port++) {
        if (after[port] == before[port]) {
            continue;
        }
        std::string line = who;
        line.append(" port ").append(port_text(static_cast<int>(port))).append(" ").append(what);
        line += after[port] == none ? "none" : name_of(after[port]);
        if (before[port] != none) {
            line.append(" (was ").append(name_of(before[port])).append(")");
        }
        out.push_back(line);
    }
}

// The colours with which a node appears, in one line.
void describe_first_colours(const std::string &who, const port_codes &colours, changes &out)
{
    std::string all;
    for (size_t port = 0; port < colours.size(); port++) {
        if (colours[port] != PORT_STATUS_NONE) {
            all.append(all.empty() ? "" : ", ").append(port_text(static_cast<int>(port)));
            all.append(" ").append(colour_name(colours[port]));
        }
    }
    if (!all.empty()) {
        out.push_back(who + " ports " + all);
    }
}

// What a topic said before a message.
struct topic_before {
    fact<std::string> value;
    std::optional<port_codes> colours;
    std::optional<port_codes> media;
};

void describe_node_topic(const network &net, const topic_before &before, const node &after, int topic,
                         bool is_first, changes &out)
{
    const std::string who = node_label(net, after.mac);
    const fact<std::string> &is = after.facts[static_cast<size_t>(topic)];
    const node_topic_row &row = node_topics[static_cast<size_t>(topic)];
    port_codes none{};
    if (is_malformed(is)) {
        out.push_back(who + " malformed " + row.name + " (" + counted(is.size) + ")");
    } else if (is_first) {
        if (topic == TOPIC_PORT_SUMMARY && after.colours) {
            describe_first_colours(who, *after.colours, out);
        }
    } else if (topic == TOPIC_PORT_SUMMARY) {
        none.fill(PORT_STATUS_NONE);
        describe_port_codes(who, "", before.colours.value_or(none), after.colours.value_or(none), colour_name,
                            PORT_STATUS_NONE, out);
    } else if (topic == TOPIC_PORT_MEDIA) {
        none.fill(LUM_TYPE_NONE);
        describe_port_codes(who, "media ", before.media.value_or(none), after.media.value_or(none),
                            hwinfo_lumtype_enum_to_str, LUM_TYPE_NONE, out);
    } else if (is.value != before.value.value) {
        out.push_back(who + " " + row.label + " " + (is.value ? quoted(*is.value) : "none") +
                      (before.value.value ? " (was " + quoted(*before.value.value) + ")" : ""));
    }
}

// What a node said of itself before it left is void; versions and card address are still published.
void forget_departed(node &departed)
{
    departed.number.reset();
    departed.ports.clear();
}

void decode_node_topic(node &target, int topic, bytes payload)
{
    set_fact(target.facts[static_cast<size_t>(topic)], payload,
             node_topics[static_cast<size_t>(topic)].decode(payload));
    if (topic == TOPIC_PORT_SUMMARY) {
        target.colours = parse_colours(payload);
    } else if (topic == TOPIC_PORT_MEDIA) {
        target.media = parse_media(payload);
    } else if (topic == TOPIC_SOFTWARE_VERSIONS) {
        target.versions = parse_versions(payload).value_or(std::vector<software_version>{});
    }
    target.is_present = std::any_of(target.facts.begin(), target.facts.begin() + NODE_TOPICS_WITHDRAWN,
                                    [](const auto &value) { return value.is_published; });
}

void apply_node_topic(network &net, const mac_address &mac, int topic, bytes payload, bool is_retained,
                      const moment &now, changes &out)
{
    node &current = node_of(net, mac);
    const fact<std::string> &value = current.facts[static_cast<size_t>(topic)];
    const topic_before before = {value, current.colours, current.media};
    const bool was_present = current.is_present;
    decode_node_topic(current, topic, payload);

    const bool is_local = net.is_local(mac);
    const bool has_appeared = !is_local && !was_present && current.is_present;
    if (is_retained || is_local || has_appeared) {
        current.is_heard.fill(!has_appeared || is_retained);
    }
    const bool is_first = !current.is_heard[static_cast<size_t>(topic)];
    current.is_heard[static_cast<size_t>(topic)] = true;
    if (!is_retained && (value.is_published != before.value.is_published || value.size != before.value.size ||
                         value.value != before.value.value)) {
        current.last_change = now;
    }

    if (has_appeared) {
        out.push_back(node_label(net, mac) + " appeared");
    }
    if (!is_local && was_present && !current.is_present) {
        out.push_back(node_label(net, mac) + " left");
        forget_departed(current);
    }
    // A leaving node's topics go one by one, port_summary first: that is one event, told at the end.
    const bool is_leaving = payload.empty() && !current.facts[TOPIC_PORT_SUMMARY].is_published;
    if (is_local || (current.is_present && !is_leaving)) {
        describe_node_topic(net, before, current, topic, is_first, out);
    }
}

// "period0" to "period95", "day0" to "day6".
std::optional<std::string> parse_slot(std::string_view text, std::string_view prefix, unsigned count)
{
    for (unsigned slot = 0; slot < count; slot++) {
        const std::string name = std::string(prefix) + std::to_string(slot);
        if (text == name) {
            return name;
        }
    }
    return {};
}

template <size_t SIZE>
std::optional<std::array<uint8_t, SIZE>> parse_record(bytes payload)
{
    std::array<uint8_t, SIZE> record;
    if (payload.size() != SIZE) {
        return {};
    }
    std::copy(payload.begin(), payload.end(), record.begin());
    return record;
}

// Counters wrap.
uint64_t difference(uint64_t value, uint64_t before, size_t width)
{
    return width == sizeof(uint32_t) ? static_cast<uint32_t>(value - before) : value - before;
}

// What has come since; the values themselves where there is nothing to compare with, or a counter began again.
void describe_stats(const std::string &who, const std::optional<stats_record> &before,
                    const stats_record &after, changes &out)
{
    std::string text;
    for (const stats_field &field : STATS_FIELDS) {
        const uint64_t is = field_value(after, field.offset, field.width);
        const uint64_t was = before ? field_value(*before, field.offset, field.width) : 0;
        if (is != was) {
            const bool is_growth = before && is > was && field.treatment != stats_treatment::PASSED;
            text += (text.empty() ? " " : ", ") + std::string(field.name) +
                    (is_growth ? " +" + std::to_string(is - was) : " " + std::to_string(is));
        }
    }
    if (!text.empty()) {
        out.push_back(who + " statistics" + text);
    }
}

// What isn't 0.
void describe_pm(const std::string &who, std::string_view slot, const pm_record &record, changes &out)
{
    std::string text;
    for (const pm_field &field : PM_FIELDS) {
        const uint64_t value = field_value(record, field.offset, field.width);
        if (field.treatment != pm_treatment::CLOSING_TIME && value != 0) {
            text += (text.empty() ? " " : ", ") + std::string(field.name) + " " + std::to_string(value);
        }
    }
    out.push_back(who + " " + std::string(slot) + (text.empty() ? " all 0" : text));
}

// name: what follows pub/diag/<MAC>/<PORT>/.
void apply_port_topic(network &net, const mac_address &mac, int port, std::string_view name, bytes payload,
                      bool is_retained, const moment &now, change_detail detail, changes &out)
{
    const std::string who = node_label(net, mac) + " port " + port_text(port);
    port_records &records = node_of(net, mac).ports[port];
    const auto report_malformed = [&](const auto &value) {
        if (is_malformed(value)) {
            out.push_back(who + " malformed " + std::string(name) + " (" + counted(value.size) + ")");
        }
    };
    if (name == PORT_STATS) {
        if (!records.stats.is_published) {
            records.is_reset_seen = false;
        }
        const std::optional<stats_record> before = records.stats.value;
        set_fact(records.stats, payload, parse_record<STATS_BLOCK_SIZE>(payload));
        if (records.stats.value && detail == change_detail::RECORDS) {
            describe_stats(who, before, *records.stats.value, out);
        }
        records.sample_before = std::exchange(records.sample, std::nullopt);
        if (records.stats.value && !is_retained) {
            records.sample = {*records.stats.value, now};
        }
        report_malformed(records.stats);
        return;
    }
    if (!name.starts_with(PM_PREFIX)) {
        return;
    }
    const std::string_view slot = name.substr(PM_PREFIX.size());
    if (name == PM_LAST_PERIOD) {
        const bool had_period = records.last_period.is_published;
        set_fact(records.last_period, payload, parse_slot(as_text(payload), PM_PERIOD, PM_PERIODS));
        report_malformed(records.last_period);
        records.period_start.reset();
        records.period_start_time.reset();
        records.is_reset_seen = payload.empty() && !is_retained;
        if (records.last_period.value && !is_retained) {
            records.period_start = records.stats.value;
            records.period_start_time = now;
            out.push_back(who + " closed " + *records.last_period.value);
        }
        if (had_period && payload.empty()) {
            out.push_back(who + " performance records cleared");
        }
    } else if (name == PM_LAST_DAY) {
        set_fact(records.last_day, payload, parse_slot(as_text(payload), PM_DAY, PM_DAYS));
        report_malformed(records.last_day);
    } else if (parse_slot(slot, PM_PERIOD, PM_PERIODS) || parse_slot(slot, PM_DAY, PM_DAYS)) {
        fact<pm_record> &record = records.pm[std::string(slot)];
        set_fact(record, payload, parse_record<PM_RECORD_SIZE>(payload));
        if (record.value && detail == change_detail::RECORDS) {
            describe_pm(who, slot, *record.value, out);
        }
        report_malformed(record);
    }
}

void apply_local_node(network &net, bytes payload, bool is_retained, changes &out)
{
    set_fact(net.local, payload, parse_topic_mac(as_text(payload)));
    if (net.local.value) {
        node &local = node_of(net, *net.local.value);
        if (!is_retained) {
            // The daemon has started again and counts from nothing, while what it published before is still there.
            for (auto &[port, records] : local.ports) {
                records.period_start.reset();
                records.period_start_time.reset();
                records.is_reset_seen = false;
            }
        }
        out.push_back("local node is " + mac_text(*net.local.value));
    } else if (net.local.is_published) {
        out.push_back("malformed local_node (" + counted(payload.size()) + ")");
    } else {
        out.push_back("local node withdrawn");
    }
}

void apply_ring(network &net, std::string_view ring_text, bytes payload, changes &out)
{
    uint32_t ring = 0;
    if (ring_text.empty() || !parse_u32(ring_text, ring)) {
        return;
    }
    fact<int32_t> &state = net.rings[ring];
    const std::optional<int32_t> before = state.value;
    const bool is_valid = payload.size() == RING_STATUS_SIZE;
    set_fact(state, payload, is_valid ? std::optional(load_host<int32_t>(payload.data())) : std::nullopt);
    const std::string who = "local ring " + std::to_string(ring);
    if (is_malformed(state)) {
        out.push_back(who + " malformed status (" + counted(payload.size()) + ")");
    } else if (state.value != before) {
        out.push_back(who + " " + (state.value ? ring_state_text(*state.value) : "withdrawn"));
    }
}

void apply_ring_status(network &net, bytes payload, changes &out)
{
    const std::optional<bool> before = net.ring_degraded.value;
    const bool is_valid = payload.size() == 1 && payload[0] <= 1;
    set_fact(net.ring_degraded, payload, is_valid ? std::optional(payload[0] == 1) : std::nullopt);
    if (is_malformed(net.ring_degraded)) {
        out.push_back("malformed network_style7 (" + counted(payload.size()) + ")");
    } else if (net.ring_degraded.value != before) {
        out.push_back(std::string("network ring status ") + (!is_valid                  ? "withdrawn"
                                                             : *net.ring_degraded.value ? "degraded"
                                                                                        : "normal"));
    }
}

std::optional<std::vector<listed_ports>> parse_port_list(bytes payload)
{
    std::vector<listed_ports> list;
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

uint8_t ports_in(const std::vector<listed_ports> &list, const mac_address &mac)
{
    const auto found =
        std::find_if(list.begin(), list.end(), [&](const listed_ports &l) { return l.mac == mac; });
    return found == list.end() ? uint8_t{0} : found->ports;
}

// One line for each port that is in list and not in other.
void describe_list_difference(const network &net, int which, const std::vector<listed_ports> &list,
                              const std::vector<listed_ports> &other, const char *verb, changes &out)
{
    for (const listed_ports &record : list) {
        const unsigned ports = record.ports & ~unsigned{ports_in(other, record.mac)};
        for (int port = 0; port < LUM_FRONT_PORTS; port++) {
            if ((ports & (1U << port)) != 0) {
                out.push_back(std::string(PORT_LIST_NAMES[which]) + " " + verb + " " +
                              node_label(net, record.mac) + " port " + port_text(port));
            }
        }
    }
}

// Whatever a list has named stays known only as long as something else is known of it, or a list still names it.
void forget_unlisted(network &net)
{
    std::set<mac_address> listed;
    for (const auto &list : net.lists) {
        for (const listed_ports &record : list.value.value_or(std::vector<listed_ports>{})) {
            listed.insert(record.mac);
        }
    }
    std::erase_if(net.nodes, [&](const auto &entry) {
        const auto &[mac, candidate] = entry;
        return !net.is_local(mac) && !listed.contains(mac) && candidate.ports.empty() &&
               std::none_of(candidate.facts.begin(), candidate.facts.end(),
                            [](const auto &value) { return value.is_published; });
    });
}

void apply_port_list(network &net, int which, bytes payload, changes &out)
{
    fact<std::vector<listed_ports>> &list = net.lists[static_cast<size_t>(which)];
    const std::vector<listed_ports> before = list.value.value_or(std::vector<listed_ports>{});
    set_fact(list, payload, parse_port_list(payload));
    if (is_malformed(list)) {
        out.push_back(std::string("malformed ") + PORT_LIST_NAMES[which] + " (" + counted(payload.size()) +
                      ")");
        return;
    }
    const std::vector<listed_ports> after = list.value.value_or(std::vector<listed_ports>{});
    for (const listed_ports &record : after) {
        node_of(net, record.mac).number = record.number;
    }
    describe_list_difference(net, which, after, before, "gained", out);
    describe_list_difference(net, which, before, after, "lost", out);
    forget_unlisted(net);
}

std::optional<std::vector<miswired_link>> parse_miswired_links(bytes payload)
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

void describe_link_difference(const std::vector<miswired_link> &links,
                              const std::vector<miswired_link> &other, const char *verb, changes &out)
{
    for (const miswired_link &link : links) {
        if (std::find(other.begin(), other.end(), link) == other.end()) {
            out.push_back(std::string("miswired links ") + verb + " " + miswired_link_text(link));
        }
    }
}

void apply_miswired_links(network &net, bytes payload, changes &out)
{
    const auto before = net.miswired_links.value.value_or(std::vector<miswired_link>{});
    set_fact(net.miswired_links, payload, parse_miswired_links(payload));
    if (is_malformed(net.miswired_links)) {
        out.push_back("malformed miswired links (" + counted(payload.size()) + ")");
        return;
    }
    const auto after = net.miswired_links.value.value_or(std::vector<miswired_link>{});
    describe_link_difference(after, before, "gained", out);
    describe_link_difference(before, after, "lost", out);
}

} // namespace

moment current_moment()
{
    return {std::chrono::steady_clock::now(), std::chrono::system_clock::now()};
}

std::string mac_text(const mac_address &mac)
{
    return mac_addr_to_str(mac.data());
}

const char *colour_name(int status)
{
    return COLOUR_NAMES[status];
}

const char *ring_state_text(int32_t state)
{
    if (state < 0) {
        return "not configured";
    }
    return state == RING_STATUS_CLOSED ? "closed" : "open";
}

node_topic_info node_topic_of(int topic)
{
    const node_topic_row &row = node_topics[static_cast<size_t>(topic)];
    return {row.name, row.label, row.kind};
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

std::string miswired_link_text(const miswired_link &link)
{
    return std::to_string(link.number) + "/" + port_text(link.port) + " to " +
           std::to_string(link.peer_number) + "/" + port_text(link.peer_port);
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

int node_topic_named(std::string_view name)
{
    for (int topic = 0; topic < NODE_TOPICS; topic++) {
        if (name == node_topics[static_cast<size_t>(topic)].name) {
            return topic;
        }
    }
    return -1;
}

std::optional<int> port_list_of_topic(std::string_view topic)
{
    for (int list = 0; list < PORT_LISTS; list++) {
        if (topic == PORT_LIST_TOPICS[list]) {
            return list;
        }
    }
    return {};
}

std::vector<std::string> network_apply(network &net, std::string_view topic, std::span<const uint8_t> payload,
                                       bool is_retained, const moment &now, change_detail detail)
{
    changes out;
    if (const std::optional<int> list = port_list_of_topic(topic)) {
        apply_port_list(net, *list, payload, out);
    } else if (topic == MISWIRED_LINKS_TOPIC) {
        apply_miswired_links(net, payload, out);
    } else if (topic == NETWORK_STYLE7_TOPIC) {
        apply_ring_status(net, payload, out);
    } else if (topic.starts_with(RING_PREFIX) && topic.ends_with(RING_SUFFIX) &&
               topic.size() > RING_PREFIX.size() + RING_SUFFIX.size()) {
        apply_ring(net,
                   topic.substr(RING_PREFIX.size(), topic.size() - RING_PREFIX.size() - RING_SUFFIX.size()),
                   payload, out);
    } else if (topic == LOCAL_NODE_TOPIC) {
        apply_local_node(net, payload, is_retained, out);
    } else if (topic == REQUEST_TOPIC || topic == RESPONSE_TOPIC) {
        out.push_back(std::string("command ") + std::string(topic.substr(topic.rfind('/') + 1)) + " " +
                      printable(as_text(payload)));
    } else if (const std::optional<topic_place> place = parse_topic_place(topic)) {
        if (place->port) {
            apply_port_topic(net, place->mac, *place->port, place->name, payload, is_retained, now, detail,
                             out);
        } else if (const int node_topic = node_topic_named(place->name); node_topic != -1) {
            apply_node_topic(net, place->mac, node_topic, payload, is_retained, now, out);
        }
    }
    if (is_retained) {
        out.clear();
    }
    return out;
}

uint64_t field_value(std::span<const uint8_t> record, size_t offset, size_t width)
{
    uint64_t value = 0;
    for (const uint8_t byte : record.subspan(offset, width)) {
        value = value << 8 | byte;
    }
    return value;
}

std::optional<double> field_rate(const port_records &records, const stats_field &field)
{
    const bool is_traffic =
        field.treatment == stats_treatment::DIFFERENCED && field.origin != stats_origin::KEPT;
    if (!records.sample || !records.sample_before || !is_traffic) {
        return {};
    }
    const std::chrono::duration<double> time =
        records.sample->when.steady - records.sample_before->when.steady;
    const uint64_t grown =
        difference(field_value(records.sample->record, field.offset, field.width),
                   field_value(records.sample_before->record, field.offset, field.width), field.width);
    return time.count() > 0 ? std::optional(static_cast<double>(grown) / time.count()) : std::nullopt;
}

std::optional<uint64_t> running_period_value(const port_records &records, const pm_field &field)
{
    if (!records.stats.value || field.source == nullptr) {
        return {};
    }
    const stats_field &source = *field.source;
    const uint64_t value = field_value(*records.stats.value, source.offset, source.width);
    if (field.treatment == pm_treatment::PASSED) {
        return value;
    }
    if (!records.last_period.is_published) {
        const bool counts_from_first_stats = source.origin == stats_origin::COPIED;
        return counts_from_first_stats || records.is_reset_seen ? std::optional(value) : std::nullopt;
    }
    if (!records.period_start) {
        return {};
    }
    const uint64_t start = field_value(*records.period_start, source.offset, source.width);
    return difference(value, start, source.width);
}

std::optional<node_reference> parse_node_reference(std::string_view text)
{
    node_reference reference;
    uint32_t number = 0;
    if (text == "local") {
        reference.is_local = true;
        return reference;
    }
    for (const char separator : {'-', ':', '.', '\0'}) {
        reference.mac = parse_mac(text, separator);
        if (reference.mac) {
            return reference;
        }
    }
    if (!text.empty() && parse_u32(text, number) && number >= 1 && number <= UINT8_MAX) {
        reference.number = static_cast<uint8_t>(number);
        return reference;
    }
    return {};
}

std::vector<const node *> find_nodes(const network &net, const node_reference &reference)
{
    std::vector<const node *> found;
    for (const auto &[mac, candidate] : net.nodes) {
        if ((reference.is_local && net.is_local(mac)) || reference.mac == mac ||
            (reference.number && candidate.number == reference.number)) {
            found.push_back(&candidate);
        }
    }
    return found;
}
