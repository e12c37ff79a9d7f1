#include "steps.h"

#include "common/bytes.h"
#include "common/text.h"
#include "packet.h"
#include "topics.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz
{

namespace
{

constexpr uint32_t NETWORK = 0x0A000000; // 10.0.0.0
constexpr int MAX_RUN_SECONDS = 16;      // more would cost more than it finds
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
    {subject::OWN_TOPICS, part::NONE, NODE_JOB_REV},
    {subject::OWN_TOPICS, part::NONE, NODE_JOB_NAME},
    {subject::OWN_TOPICS, part::NONE, NODE_DOWNLOAD_STATUS},
    {subject::OWN_TOPICS, part::NONE, NODE_CF_FREE_SPACE},
    {subject::OWN_TOPICS, part::NONE, NODE_M301},
    {subject::OWN_TOPICS, part::NONE, NODE_M702},
    {subject::OWN_TOPICS, part::NONE, NODE_COMM_LOSS},
    {subject::OWN_TOPICS, part::NONE, NODE_DOWNLOAD_PENDING},
    {subject::OWN_TOPICS, part::NONE, NODE_REPEATER},
};

sim::mac_address mac_of(uint8_t node)
{
    return node == 0 ? subject::MAC : sim::mac_address{0x06, 0, 0, 0, 0, node};
}

std::string mac_text(uint8_t node)
{
    const sim::mac_address mac = mac_of(node);
    return topic_text("%02X-%02X-%02X-%02X-%02X-%02X", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]).text;
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

class player
{
public:
    player(subject &daemon, bytes input) : daemon_(daemon), input_(input) {}
    void play(const step_table &kinds)
    {
        while (!input_.is_at_end() && daemon_.daemon().is_alive()) {
            take_step(kinds[input_.take_byte() % kinds.size()]);
        }
    }

private:
    void take_step(step kind)
    {
        switch (kind) {
        case step::DATAGRAM: {
            const uint8_t sender = input_.take_byte();
            receive(sender, input_.take(input_.take_u16()));
            break;
        }
        case step::PACKET:
            receive_packet();
            break;
        case step::RUN:
            daemon_.run_for(sim::seconds(input_.take_byte() % MAX_RUN_SECONDS));
            break;
        case step::STALL:
            daemon_.stall_for(sim::seconds(input_.take_u16()));
            break;
        case step::FACT: {
            const uint8_t topic = input_.take_byte();
            publish(fact_topic(topic, input_.take_byte()));
            break;
        }
        case step::OWN_TOPIC:
            publish(subject::OWN_TOPICS + input_.take_text(input_.take_byte()));
            break;
        case step::TOPIC:
            publish(input_.take_text(input_.take_byte()));
            break;
        case step::COMMAND:
            request(input_.take_text(input_.take_u16()));
            break;
        }
    }

    void receive(uint8_t sender, bytes datagram) { daemon_.receive(NETWORK + sender, datagram); }

    void receive_packet()
    {
        const uint8_t sender = input_.take_byte();
        const uint8_t type = input_.take_byte();
        const sim::mac_address mac = mac_of(input_.take_byte());
        const bytes payload = input_.take(input_.take_u16());
        std::vector<uint8_t> datagram(HEADER_SIZE);
        packet_write_header(datagram.data(), static_cast<packet_type>(type), mac.data(), payload.size());
        datagram.insert(datagram.end(), payload.begin(), payload.end());
        receive(sender, datagram);
    }

    void publish(const std::string &topic) { daemon_.publish(topic, input_.take(input_.take_u16()), true); }

    void request(std::string text)
    {
        if (text.ends_with('%')) {
            text.replace(text.size() - 1, 1, daemon_.right_response());
        }
        daemon_.publish(REQUEST_TOPIC, {reinterpret_cast<const uint8_t *>(text.data()), text.size()}, false);
    }

    subject &daemon_;
    input_reader input_;
};

} // namespace

const step_table &steps_of(std::string_view fuzzer)
{
    using enum step;
    static constexpr step_table RECEIVE = {DATAGRAM, PACKET, RUN, STALL, FACT, PACKET, OWN_TOPIC, COMMAND};
    static constexpr step_table LOCAL = {FACT, OWN_TOPIC, TOPIC, RUN, STALL, PACKET, COMMAND, FACT};
    static constexpr step_table REQUEST = {COMMAND, COMMAND, PACKET, RUN, STALL, FACT, COMMAND, PACKET};
    return fuzzer == "receive" ? RECEIVE : fuzzer == "local" ? LOCAL : REQUEST;
}

std::vector<uint8_t> read_input(const std::filesystem::path &path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file.is_open()) {
        perror(path.c_str());
        exit(EXIT_FAILURE);
    }
    return {std::istreambuf_iterator<char>(file), {}};
}

void play(subject &daemon, bytes input, const step_table &kinds)
{
    player(daemon, input).play(kinds);
}

} // namespace fuzz
