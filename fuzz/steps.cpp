#include "steps.h"

#include "common/bytes.h"
#include "common/netif.h"
#include "packet.h"
#include "topics.h"

#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz
{

namespace
{

constexpr int MAX_RUN_SECONDS = 16; // more would cost more than it finds
constexpr const char *PORTS[] = {"A", "B", "C", "D", "E", "F", "G", "H", "CPU", "I"};

// Topics of facts; the port, the ring or the node stands between the two parts.
enum class part { PORT, RING, NODE, NONE };
constexpr struct {
    std::string_view start;
    part which;
    std::string_view end;
} FACTS[] = {
    {PORT_PREFIX, part::PORT, FACT_TYPE},
    {PORT_PREFIX, part::PORT, FACT_MEDIA},
    {PORT_PREFIX, part::PORT, FACT_LINK_DOWN},
    {PORT_PREFIX, part::PORT, FACT_GROUND},
    {PORT_PREFIX, part::PORT, FACT_STATS},
    {PORT_PREFIX, part::PORT, FACT_STATUS},
    {RING_PREFIX, part::RING, RING_SUFFIX},
    {FIRE_IP_PREFIX, part::NODE, FIRE_IP_SUFFIX},
    {OWN_TOPICS, part::NONE, NODE_JOB_REV},
    {OWN_TOPICS, part::NONE, NODE_JOB_NAME},
    {OWN_TOPICS, part::NONE, NODE_DOWNLOAD_STATUS},
    {OWN_TOPICS, part::NONE, NODE_CF_FREE_SPACE},
    {OWN_TOPICS, part::NONE, NODE_M301},
    {OWN_TOPICS, part::NONE, NODE_M702},
    {OWN_TOPICS, part::NONE, NODE_COMM_LOSS},
    {OWN_TOPICS, part::NONE, NODE_DOWNLOAD_PENDING},
    {OWN_TOPICS, part::NONE, NODE_REPEATER},
};

using mac_address = std::array<uint8_t, MAC_SIZE>;

mac_address mac_of(uint8_t node)
{
    mac_address mac = {0x06, 0, 0, 0, 0, node};
    if (node == 0) {
        std::copy(std::begin(LOCAL_MAC), std::end(LOCAL_MAC), mac.begin());
    }
    return mac;
}

std::string mac_text(uint8_t node)
{
    return mac_addr_to_str(mac_of(node).data());
}

std::string fact_topic(uint8_t topic, uint8_t which)
{
    const auto &fact = FACTS[topic % std::size(FACTS)];
    std::string name;
    switch (fact.which) {
    case part::PORT:
        name = std::string(PORTS[which % std::size(PORTS)]) + "/";
        break;
    case part::RING:
        name = std::to_string(which);
        break;
    case part::NODE:
        name = mac_text(which);
        break;
    case part::NONE:
        break;
    }
    return std::string(fact.start) + name + std::string(fact.end);
}

class input_reader
{
public:
    explicit input_reader(bytes input) : rest(input) {}
    bool is_at_end() const { return rest.empty(); }
    uint8_t take_byte()
    {
        const bytes taken = take(1);
        return taken.empty() ? uint8_t{0} : taken[0];
    }
    uint16_t take_u16()
    {
        const uint8_t high = take_byte();
        const uint8_t value[] = {high, take_byte()};
        return load_be<uint16_t>(value);
    }
    bytes take(size_t length)
    {
        const bytes taken = rest.first(std::min(length, rest.size()));
        rest = rest.subspan(taken.size());
        return taken;
    }
    std::string take_text(size_t length)
    {
        const bytes text = take(length);
        return {text.begin(), text.end()};
    }

private:
    bytes rest;
};

void receive_packet(input_reader &input)
{
    const uint8_t sender = input.take_byte();
    const uint8_t type = input.take_byte();
    const mac_address mac = mac_of(input.take_byte());
    const bytes payload = input.take(input.take_u16());
    std::vector<uint8_t> datagram(HEADER_SIZE);
    packet_write_header(datagram.data(), static_cast<packet_type>(type), mac.data(), payload.size());
    datagram.insert(datagram.end(), payload.begin(), payload.end());
    receive_datagram(sender, datagram);
}

void request(std::string text)
{
    if (text.ends_with('%')) {
        text.replace(text.size() - 1, 1, right_response());
    }
    publish(REQUEST_TOPIC, {reinterpret_cast<const uint8_t *>(text.data()), text.size()});
}

void take_step(input_reader &input, step kind)
{
    switch (kind) {
    case step::DATAGRAM: {
        const uint8_t sender = input.take_byte();
        const bytes taken = input.take(input.take_u16());
        const std::vector<uint8_t> exact(taken.begin(), taken.end());
        receive_datagram(sender, exact);
        break;
    }
    case step::PACKET:
        receive_packet(input);
        break;
    case step::RUN:
        run_for(seconds(input.take_byte() % MAX_RUN_SECONDS));
        break;
    case step::STALL:
        stall_for(seconds(input.take_u16()));
        break;
    case step::FACT: {
        const uint8_t topic = input.take_byte();
        const std::string text = fact_topic(topic, input.take_byte());
        publish(text, input.take(input.take_u16()));
        break;
    }
    case step::OWN_TOPIC: {
        const std::string topic = OWN_TOPICS + input.take_text(input.take_byte());
        publish(topic, input.take(input.take_u16()));
        break;
    }
    case step::TOPIC: {
        const std::string topic = input.take_text(input.take_byte());
        publish(topic, input.take(input.take_u16()));
        break;
    }
    case step::COMMAND:
        request(input.take_text(input.take_u16()));
        break;
    }
}

} // namespace

void run_input(bytes input, std::span<const step> kinds)
{
    start_node();
    for (input_reader reader(input); !reader.is_at_end();) {
        take_step(reader, kinds[reader.take_byte() % kinds.size()]);
    }
    end_node();
}

} // namespace fuzz
