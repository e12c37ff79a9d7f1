#include "facts.h"

#include "common/bytes.h"
#include "common/text.h"
#include "records.h"
#include "topics.h"

#include <cstdio>

namespace sim
{

const std::array<item_description, ITEMS> ITEM_DESCRIPTIONS = {{
    {NODE_PORT_SUMMARY, false, false, true},
    {NODE_PORT_MEDIA, false, true, true},
    {NODE_SOFTWARE_VERSIONS, false, true, false},
    {NODE_JOB_NAME, true, true, true},
    {NODE_JOB_REV, true, true, true},
    {NODE_DOWNLOAD_STATUS, true, false, true},
    {NODE_CF_FREE_SPACE, true, false, true},
    {NODE_M301, true, false, true},
    {NODE_M702, true, false, true},
    {NODE_COMM_LOSS, true, false, true},
    {NODE_DOWNLOAD_PENDING, true, false, true},
    {NODE_REPEATER, true, false, true},
    {nullptr, false, false, false},
    {nullptr, false, false, false},
    {nullptr, false, false, false},
    {nullptr, false, false, false},
}};

namespace
{

constexpr const char *MEDIA[] = {"eth", "dsl", "smf", "mmf"};
constexpr uint8_t NO_MEDIA = 4;
constexpr const char *JOB_TEXTS[] = {"A", "job", "tower 7", "12345678"};
constexpr const char *REVISIONS[] = {"1", "1.2", "007"};
constexpr const char *FREE_SPACES[] = {"0", "17", "0x20", "4294967295", "1000000000", "999999999"};

std::string port_topic(int port, const char *name)
{
    return topic_text(PORT_FACT_FORMAT, PORT_NAMES[port], name).text;
}

fact_message byte_message(int port, const char *name, uint8_t value, std::vector<item> changes,
                          bool is_stamped = true)
{
    return {port_topic(port, name), shared_bytes(&value, 1), std::move(changes), is_stamped};
}

fact_message type_message(const facts &told, int port)
{
    // Tracking a port brings its other facts with it, giving it up takes them away.
    return {port_topic(port, FACT_TYPE),
            shared_bytes(told.ports[static_cast<size_t>(port)].is_tracked ? "fire" : "other"),
            {item::PORT_SUMMARY, item::PORT_MEDIA, item::LINK_DOWN, item::GROUND, item::RINGS},
            false};
}

fact_message status_message(const facts &told, int port)
{
    const port_facts &fact = told.ports[static_cast<size_t>(port)];
    std::array<uint8_t, ERPS_STATUS_SIZE> status{};
    store_host(&status[ERPS_STATUS_STATE], fact.is_ring_port_down ? uint32_t{1} : ERPS_STATE_UP_MASK);
    store_host(&status[ERPS_STATUS_PEER_NODE], uint32_t{fact.peer_node});
    store_host(&status[ERPS_STATUS_PEER_PORT], uint32_t{fact.peer_port});
    status[ERPS_STATUS_PEER_FLAGS] = fact.peer_node != 0 ? 1 : 0;
    return {port_topic(port, FACT_STATUS), {status.data(), status.size()}, {item::MISWIRED}};
}

fact_message ring_message(const facts &told)
{
    return {RING_0_TOPIC, {&told.ring_state, sizeof told.ring_state}, {item::RINGS}};
}

fact_message own_message(const facts &told, const std::string &mac, item which)
{
    const item_description &row = ITEM_DESCRIPTIONS[static_cast<size_t>(which)];
    const shared_bytes &value = told.own[static_cast<size_t>(which)];
    const bool is_removal_of_number = value.empty() && (which == item::CF_FREE || which == item::REPEATER);
    return {topic_text(NODE_TOPIC_FORMAT, mac.c_str(), row.topic).text,
            value,
            {which},
            !row.is_static && !is_removal_of_number};
}

shared_bytes draw_own(item which, random_stream &random)
{
    if (random.chance(0.15)) {
        return {};
    }
    switch (which) {
    case item::JOB_NAME:
        return shared_bytes(JOB_TEXTS[random.below(std::size(JOB_TEXTS))]);
    case item::JOB_REVISION:
        return shared_bytes(REVISIONS[random.below(std::size(REVISIONS))]);
    case item::DOWNLOAD_STATUS: {
        const auto status = static_cast<uint16_t>(random.next());
        return {&status, sizeof status};
    }
    case item::CF_FREE:
        return shared_bytes(FREE_SPACES[random.below(std::size(FREE_SPACES))]);
    case item::REPEATER:
        return shared_bytes(std::to_string(random.below(256)));
    default:
        return shared_bytes(random.chance(0.5) ? "1" : "0");
    }
}

std::string text_of(const shared_bytes &value)
{
    return std::string(value.text());
}

} // namespace

uint8_t facts::mask(bool port_facts::*fact) const
{
    unsigned bits = 0;
    for (size_t port = 0; port < PORTS; port++) {
        bits |= ports[port].is_tracked && ports[port].*fact ? 1U << port : 0;
    }
    return static_cast<uint8_t>(bits);
}

uint8_t facts::miswired() const
{
    unsigned bits = 0;
    for (size_t port = 0; port < PORTS; port++) {
        bits |= ports[port].peer_node != 0 && !ports[port].is_ring_port_down ? 1U << port : 0;
    }
    return static_cast<uint8_t>(bits);
}

bool facts::is_degraded() const
{
    return mask(&port_facts::is_tracked) != 0 && ring_state != RING_STATUS_CLOSED;
}

std::string facts::on_others(item which) const
{
    const shared_bytes &value = own[static_cast<size_t>(which)];
    switch (which) {
    case item::PORT_MEDIA: {
        std::string text = "{";
        for (size_t port = 0; port < PORTS; port++) {
            if (ports[port].is_tracked && ports[port].media != NO_MEDIA) {
                text += (text.size() > 1 ? ",\"" : "\"") + std::string(1, static_cast<char>('A' + port)) +
                        "\":\"" + MEDIA[ports[port].media] + "\"";
            }
        }
        return text + "}";
    }
    case item::JOB_NAME:
    case item::JOB_REVISION:
        return text_of(value);
    case item::DOWNLOAD_STATUS:
        return value.empty() ? std::string(2, '\0') : text_of(value);
    case item::CF_FREE:
        return std::to_string(std::strtoul(text_of(value).c_str(), nullptr, 0)).substr(0, 9);
    case item::REPEATER:
        return value.empty() ? "0" : text_of(value);
    default:
        return value.text() == "1" ? "1" : "0";
    }
}

std::vector<fact_message> all_messages(const facts &told, const std::string &mac)
{
    std::vector<fact_message> messages = {ring_message(told)};
    for (int port = 0; port < PORTS; port++) {
        const port_facts &fact = told.ports[static_cast<size_t>(port)];
        messages.push_back(byte_message(port, FACT_MEDIA, fact.media, {item::PORT_MEDIA}, false));
        messages.push_back(link_message(told, port));
        messages.push_back(byte_message(port, FACT_GROUND, fact.is_grounded ? 1 : 0, {item::GROUND}));
        messages.push_back(status_message(told, port));
        messages.push_back(type_message(told, port));
    }
    for (size_t which = 0; which < TOPIC_ITEMS; which++) {
        if (ITEM_DESCRIPTIONS[which].is_from_card) {
            messages.push_back(own_message(told, mac, static_cast<item>(which)));
        }
    }
    return messages;
}

fact_message link_message(const facts &told, int port)
{
    return byte_message(port, FACT_LINK_DOWN, told.ports[static_cast<size_t>(port)].is_link_down ? 1 : 0,
                        {item::LINK_DOWN, item::PORT_SUMMARY});
}

fact_message stats_message(facts &told, int port, random_stream &random)
{
    port_facts &fact = told.ports[static_cast<size_t>(port)];
    fact.good_frames += 1000 + random.below(1000);
    fact.errored_frames += random.chance(0.02) ? random.below(5000) : 0;
    std::array<uint8_t, STATS_BLOCK_SIZE> block{};
    store_host(&block[STATS_GOOD_FRAMES], fact.good_frames);
    store_host(&block[STATS_ERRORED_FRAMES], fact.errored_frames);
    return {port_topic(port, FACT_STATS), {block.data(), block.size()}, {}};
}

fact_message change_by_chance(facts &told, const std::string &mac, random_stream &random)
{
    const int port = static_cast<int>(random.below(PORTS));
    port_facts &fact = told.ports[static_cast<size_t>(port)];
    switch (random.below(8)) {
    case 0:
        fact.is_link_down = !fact.is_link_down;
        return link_message(told, port);
    case 1:
        fact.is_grounded = !fact.is_grounded;
        return byte_message(port, FACT_GROUND, fact.is_grounded ? 1 : 0, {item::GROUND});
    case 2:
        fact.media = static_cast<uint8_t>(random.below(NO_MEDIA + 1));
        return byte_message(port, FACT_MEDIA, fact.media, {item::PORT_MEDIA}, false);
    case 3:
        fact.is_ring_port_down = random.chance(0.3);
        fact.peer_node = random.chance(0.5) ? static_cast<uint8_t>(1 + random.below(5)) : 0;
        fact.peer_port = static_cast<uint8_t>(random.below(PORTS));
        return status_message(told, port);
    case 4:
        told.ring_state = static_cast<int32_t>(random.below(4)) - 1;
        return ring_message(told);
    case 5:
        if (port >= RING_PORTS) {
            fact.is_tracked = !fact.is_tracked;
            return type_message(told, port);
        }
        [[fallthrough]];
    default: {
        const auto first = static_cast<uint32_t>(item::JOB_NAME);
        const auto which =
            static_cast<item>(first + random.below(static_cast<uint32_t>(TOPIC_ITEMS) - first));
        told.own[static_cast<size_t>(which)] = draw_own(which, random);
        return own_message(told, mac, which);
    }
    }
}

} // namespace sim
