// Invariant 7, messages: what a daemon publishes is what docs/topics.md says, or tools misread it.
#include "records.h"
#include "wire.h"
#include "world.h"

#include "common/bytes.h"
#include "topics.h"

#include <algorithm>
#include <cstring>
#include <unordered_map>

namespace sim
{

namespace
{

using bytes = std::span<const uint8_t>;

std::string_view text_of(bytes payload)
{
    return {reinterpret_cast<const char *>(payload.data()), payload.size()};
}

bool is_number(bytes payload, size_t digits)
{
    return !payload.empty() && payload.size() <= digits && std::ranges::all_of(text_of(payload), isdigit);
}

bool is_flag(bytes payload)
{
    return text_of(payload) == "0" || text_of(payload) == "1";
}

// {"A":"word","C":"word"} with ports in order.
bool is_port_text(bytes payload, std::initializer_list<std::string_view> words)
{
    std::string_view rest = text_of(payload);
    if (!rest.starts_with('{') || !rest.ends_with('}')) {
        return false;
    }
    rest = rest.substr(1, rest.size() - 2);
    char last = 0;
    while (!rest.empty()) {
        if (rest.size() < 6 || rest[0] != '"' || rest[1] <= last || rest[1] > 'H' ||
            rest.substr(2, 3) != "\":\"") {
            return false;
        }
        last = rest[1];
        const size_t end = rest.find('"', 5);
        if (end == std::string_view::npos ||
            std::ranges::find(words, rest.substr(5, end - 5)) == words.end()) {
            return false;
        }
        rest = rest.substr(end + 1);
        if (!rest.empty() && (rest[0] != ',' || rest.size() == 1)) {
            return false;
        }
        rest = rest.substr(rest.empty() ? 0 : 1);
    }
    return true;
}

bool is_colours(bytes payload)
{
    return is_port_text(payload, {"red", "yellow", "green"});
}

bool is_media(bytes payload)
{
    return is_port_text(payload, {"eth", "dsl", "smf", "mmf"});
}

bool is_versions(bytes payload)
{
    return payload.size() == VERSIONS_TEXT_SIZE && payload[10] == ':' && payload[51] == ';' &&
           payload[62] == ':' && payload[103] == ';' && payload[114] == ':' && payload[155] == ';';
}

bool is_port_list(bytes payload)
{
    if (payload.size() == 1) {
        return payload[0] == 0;
    }
    if (payload.empty() || payload.size() % PORT_LIST_RECORD_SIZE != 0 ||
        payload.size() > PORT_LIST_MAX * PORT_LIST_RECORD_SIZE) {
        return false;
    }
    for (size_t i = PORT_LIST_PORTS; i < payload.size(); i += PORT_LIST_RECORD_SIZE) {
        if (payload[i] == 0) {
            return false;
        }
    }
    return true;
}

bool is_links(bytes payload)
{
    return payload.size() % MISWIRED_LINK_SIZE == 0 &&
           payload.size() <= MISWIRED_LINKS_MAX * MISWIRED_LINK_SIZE;
}

bool is_challenge(bytes payload)
{
    return payload.size() >= 5 && payload.size() <= 41 && text_of(payload).starts_with("1;") &&
           std::ranges::all_of(text_of(payload).substr(2),
                               [](char each) { return isdigit(each) || each == ' '; });
}

template <size_t Least, size_t Most>
bool has_length(bytes payload)
{
    return payload.size() >= Least && payload.size() <= Most;
}

struct rule {
    const char *name; // of the topic, or how it ends behind pub/diag/<MAC>/
    bool (*is_valid)(bytes payload);
    bool may_be_removed;
};

constexpr rule NETWORK_RULES[] = {
    {LOCAL_NODE_TOPIC, has_length<17, 17>, false},
    {LINK_DOWN_TOPIC, is_port_list, false},
    {GROUND_TOPIC, is_port_list, false},
    {MISWIRED_TOPIC, is_port_list, false},
    {MISWIRED_LINKS_TOPIC, is_links, true},
    {NETWORK_STYLE7_TOPIC, [](bytes payload) { return payload.size() == 1 && payload[0] <= 1; }, false},
    {ACTIVATE_TOPIC, [](bytes payload) { return payload.size() == 1 && payload[0] == 5; }, false},
    {REMOTE_DOWNLOAD_TOPIC, [](bytes payload) { return payload.size() == 1 && payload[0] <= 1; }, false},
    {CHALLENGE_TOPIC, is_challenge, false},
};

constexpr rule NODE_RULES[] = {
    {NODE_CARD_ADDR, [](bytes payload) { return is_number(payload, 3); }, false},
    {NODE_PORT_SUMMARY, is_colours, true},
    {NODE_PORT_MEDIA, is_media, true},
    {NODE_SOFTWARE_VERSIONS, is_versions, false},
    {NODE_JOB_NAME, has_length<1, 8>, true},
    {NODE_JOB_REV, has_length<1, 3>, true},
    {NODE_DOWNLOAD_STATUS, has_length<2, 2>, true},
    {NODE_CF_FREE_SPACE, [](bytes payload) { return is_number(payload, 9); }, true},
    {NODE_M301, is_flag, true},
    {NODE_M702, is_flag, true},
    {NODE_COMM_LOSS, is_flag, true},
    {NODE_DOWNLOAD_PENDING, is_flag, true},
    {NODE_REPEATER, [](bytes payload) { return is_number(payload, 3); }, true},
};

class payloads_checker final : public checker
{
public:
    using checker::checker;

    void published(node &which, const mqtt_message &message) override
    {
        if (!message.is_from_daemon) {
            return;
        }
        if (!message.is_retained) {
            return; // responses and relayed messages have checkers of their own
        }
        const std::string &topic = world_.topics().name(message.topic);
        for (const rule &each : NETWORK_RULES) {
            if (topic == each.name) {
                check(which, topic, each, message.payload.bytes());
                return;
            }
        }
        check_node_topic(which, topic, message.payload.bytes());
    }

private:
    void complain(const node &which, const std::string &topic, bytes payload, const char *what)
    {
        world_.fail("messages-are-valid", which.index(), "%s with %zu bytes: %s", topic.c_str(),
                    payload.size(), what);
    }

    void check(const node &which, const std::string &topic, const rule &applied, bytes payload)
    {
        if (payload.empty() ? !applied.may_be_removed : !applied.is_valid(payload)) {
            complain(which, topic, payload, "no valid payload");
        }
    }

    void check_node_topic(const node &which, const std::string &topic, bytes payload)
    {
        constexpr size_t NAME = DIAG_PREFIX.size() + 18;
        if (!topic.starts_with(DIAG_PREFIX) || topic.size() <= NAME) {
            complain(which, topic, payload, "no topic of the daemon");
        }
        const std::string_view name = std::string_view(topic).substr(NAME);
        const bool is_own = topic.compare(DIAG_PREFIX.size(), 17, which.mac_text()) == 0;
        for (const rule &each : NODE_RULES) {
            if (name == each.name) {
                check(which, topic, each, payload);
                return;
            }
        }
        if (!is_own || name.size() < 3 || name[1] != '/' || name[0] < 'A' || name[0] > 'H') {
            complain(which, topic, payload, "no topic of the daemon");
        }
        check_port_topic(which, topic, name.substr(2), payload);
    }

    // Statistics and performance records: who reads them compares them with the clock of the node.
    void check_port_topic(node const &which, const std::string &topic, std::string_view name, bytes payload)
    {
        if (payload.empty()) {
            return;
        }
        if (name == PORT_STATS) {
            if (payload.size() != STATS_BLOCK_SIZE) {
                complain(which, topic, payload, "no statistics block");
            }
            return;
        }
        std::string &last = last_slots_[topic.substr(0, topic.rfind('/'))];
        if (name == PM_LAST_PERIOD || name == PM_LAST_DAY) {
            if (text_of(payload) != last) {
                complain(which, topic, payload, "not the slot that was published last");
            }
            return;
        }
        if (!name.starts_with(PM_PREFIX) || payload.size() != PM_RECORD_SIZE) {
            complain(which, topic, payload, "no performance record");
        }
        last = name.substr(PM_PREFIX.size());
        const auto closed = static_cast<int64_t>(load_be<uint64_t>(payload.data() + PM_TIME));
        const int64_t late = which.wall_clock() - closed;
        if ((late < 0 || late > 2) && world_.clock().now() > which.disturbed_until()) {
            complain(which, topic, payload, "not closed now");
        }
    }

    std::unordered_map<std::string, std::string> last_slots_; // by the topics' start
};

} // namespace

std::unique_ptr<checker> make_payloads_checker(world &where)
{
    return std::make_unique<payloads_checker>(where);
}

} // namespace sim
