// What the daemon executes for each kind of input, on the simulated platform: bench/instructions runs it under callgrind,
// which writes a profile for each measurement() with its name and how often it was done.
#include "common/bytes.h"
#include "common/text.h"
#include "lone_card.h"
#include "packet.h"
#include "records.h"
#include "summary_record.h"
#include "topics.h"

#include <valgrind/callgrind.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace
{

using sim::seconds;
using bytes = std::vector<uint8_t>;
constexpr uint32_t NETWORK = 0x0A000000; // 10.0.0.0, where the others are
constexpr unsigned REPEATS = 200;
constexpr int PORTS = 9;

struct sent_datagram {
    sim::nanoseconds when;
    bytes content;
};

class card final : public sim::lone_card
{
public:
    card()
    {
        lone_card::start({"-n", "1"});
        run_for(seconds(1));
    }
    void send(uint32_t, uint16_t, const sim::shared_bytes &datagram) override
    {
        sent_.push_back({clock().now(), {datagram.bytes().begin(), datagram.bytes().end()}});
    }
    std::vector<sent_datagram> take_sent() { return std::exchange(sent_, {}); }

    void tell(const char *topic, const bytes &payload) { publish(topic, payload, true); }
    void tell(const char *topic, const std::string &text) { tell(topic, bytes(text.begin(), text.end())); }
    void ask(const std::string &request)
    {
        publish(REQUEST_TOPIC, {reinterpret_cast<const uint8_t *>(request.data()), request.size()});
    }
    void track(int ports)
    {
        for (int port = 0; port < ports; port++) {
            tell(port_topic(port, FACT_TYPE).c_str(), "fire");
            tell(port_topic(port, FACT_STATS).c_str(), bytes(STATS_BLOCK_SIZE));
        }
    }
    static std::string port_topic(int port, const char *fact)
    {
        const std::string name = port < 8 ? std::string(1, static_cast<char>('A' + port)) : "CPU";
        return topic_text(PORT_FACT_FORMAT, name.c_str(), fact).text;
    }

private:
    std::vector<sent_datagram> sent_;
};

// Counts what the action does, count times, the number of the repetition handed over.
template <typename Action>
void measure(const char *name, unsigned count, Action action)
{
    CALLGRIND_TOGGLE_COLLECT;
    for (unsigned i = 0; i < count; i++) {
        action(i);
    }
    CALLGRIND_TOGGLE_COLLECT;
    char label[128];
    snprintf(label, sizeof label, "%s|%u", name, count);
    CALLGRIND_DUMP_STATS_AT(label);
}

bytes packet(packet_type type, const bytes &payload, unsigned node = 2)
{
    const uint8_t mac[] = {2, 0, 0, 0, static_cast<uint8_t>(node >> 8), static_cast<uint8_t>(node)};
    bytes datagram(HEADER_SIZE);
    packet_write_header(datagram.data(), type, mac, payload.size());
    datagram.insert(datagram.end(), payload.begin(), payload.end());
    return datagram;
}

bytes be(uint64_t value, unsigned size)
{
    bytes result;
    while (size-- > 0) {
        result.push_back(static_cast<uint8_t>(value >> (8 * size)));
    }
    return result;
}

bytes operator+(bytes first, const bytes &second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

bytes terminated(std::string_view text)
{
    return bytes(text.begin(), text.end()) + bytes{0};
}

bytes full_summary(bool is_link_down)
{
    bytes payload;
    for (unsigned type = 0; type < SUMMARY_INFO_COUNT; type++) {
        bytes section(summary_info_lengths[type]);
        if (type == SUMMARY_INFO_PORTS_DYNAMIC && is_link_down) {
            section[0] = 1;
        }
        payload = payload + be(type, 1) + be(section.size(), 2) + section;
    }
    return payload;
}

void measure_facts()
{
    card measured;
    measured.track(PORTS);
    measure("fact: statistics of a port", REPEATS, [&](unsigned i) {
        measured.tell(card::port_topic(0, FACT_STATS).c_str(), be(i, 8) + bytes(STATS_BLOCK_SIZE - 8));
    });
    measure("fact: a link goes down or up", REPEATS, [&](unsigned i) {
        measured.tell(card::port_topic(0, FACT_LINK_DOWN).c_str(), bytes{static_cast<uint8_t>(i % 2)});
    });
    measure("fact: a ring opens or closes", REPEATS, [&](unsigned i) {
        measured.tell(RING_0_TOPIC, bytes{static_cast<uint8_t>(i % 2 == 0 ? 1 : 2), 0, 0, 0});
    });
    measure("command: noop", REPEATS, [&](unsigned i) { measured.ask("1;" + std::to_string(i) + ";noop"); });
    measure("command: reset of all ports", 20,
            [&](unsigned i) { measured.ask("1;" + std::to_string(i) + ";reset-all-stats"); });
}

void measure_packets()
{
    const bytes request = be(1, 4) + be(7, 4);
    const std::string own = "pub/diag/00-1A-2B-3C-4D-5E/";
    const struct {
        const char *name;
        bytes datagram;
    } kinds[] = {
        {"packet: summary, unchanged", packet(PACKET_SUMMARY, full_summary(false))},
        {"packet: subscribe, repeated",
         packet(PACKET_SUBSCRIBE, request + be(600, 2) + terminated(own + "A/stats"))},
        {"packet: unsubscribe, unknown", packet(PACKET_UNSUBSCRIBE, request + terminated(own + "B/stats"))},
        {"packet: unsubscribe all, unknown client", packet(PACKET_UNSUBSCRIBE_ALL, be(1, 4) + be(9, 4))},
        {"packet: acknowledgement of no request", packet(PACKET_ACK, be(99, 4))},
        {"packet: topic data",
         packet(PACKET_TOPIC_DATA, terminated("pub/diag/02-00-00-00-00-02/A/x") + bytes{1})},
        {"packet: client keepalive, unknown client", packet(PACKET_CLIENT_KEEPALIVE, be(9, 4))},
        {"packet: reset stats", packet(PACKET_RESET_STATS, bytes{0})},
        {"packet: reset all stats, nine ports", packet(PACKET_RESET_ALL_STATS, {})},
        {"packet: activate", packet(PACKET_ACTIVATE, be(1, 4) + bytes{1})},
        {"packet: remote download", packet(PACKET_REMOTE_DOWNLOAD, be(1, 4) + bytes{1})},
        {"packet: goodbye of an unknown node", packet(PACKET_GOODBYE, {}, 3)},
    };
    card measured;
    measured.track(PORTS);
    for (const auto &kind : kinds) {
        measured.receive(NETWORK + 2, kind.datagram);
        measure(kind.name, kind.name[8] == 'r' ? 20 : REPEATS,
                [&](unsigned) { measured.receive(NETWORK + 2, kind.datagram); });
    }
    const bytes changed[] = {packet(PACKET_SUMMARY, full_summary(true)),
                             packet(PACKET_SUMMARY, full_summary(false))};
    measure("packet: summary with a link that changes", REPEATS,
            [&](unsigned i) { measured.receive(NETWORK + 2, changed[i % 2]); });
}

// 100 clients of 20 nodes follow 1,000 topics; all are served within the 110 s that are measured.
void measure_send_passes()
{
    constexpr unsigned TOPICS = 1000;
    card measured;
    const auto say_all = [&](uint8_t value) {
        for (unsigned i = 0; i < TOPICS; i++) {
            measured.tell(("pub/diag/00-1A-2B-3C-4D-5E/t/" + std::to_string(i)).c_str(), bytes(24, value));
        }
    };
    say_all(1);
    for (unsigned client = 1; client <= 100; client++) {
        const bytes payload =
            be(client, 4) + be(client, 4) + be(300, 2) + terminated("pub/diag/00-1A-2B-3C-4D-5E/#");
        measured.receive(NETWORK + 2 + client % 20, packet(PACKET_SUBSCRIBE, payload, 2 + client % 20));
        measured.run_for(seconds(1));
    }
    const auto pass = [&](unsigned) { measured.run_for(seconds(110)); };
    measured.run_for(seconds(298 - 100));
    measure("send passes of 1,000 topics: nothing has changed", 1, pass);
    say_all(2);
    measured.run_for(seconds(300 - 110));
    measured.take_sent();
    measure("send passes of 1,000 topics: all have changed", 1, pass);
    if (measured.take_sent().size() < size_t{100} * TOPICS) {
        fprintf(stderr, "not all subscriptions were served\n");
        exit(EXIT_FAILURE);
    }
}

void measure_quarter_hours()
{
    for (const int ports : {1, PORTS}) {
        card measured;
        measured.track(ports);
        measured.run_for(seconds(3600));
        char name[64];
        snprintf(name, sizeof name, "a day of %d port%s, at rest", ports, ports == 1 ? "" : "s");
        measure(name, 1, [&](unsigned) { measured.run_for(seconds(86400)); });
    }
}

// What a card at rest sends in a minute.
std::vector<sent_datagram> record_minute()
{
    card speaker;
    speaker.track(2);
    speaker.run_for(seconds(180));
    speaker.take_sent();
    const sim::nanoseconds start = speaker.clock().now();
    speaker.run_for(seconds(60));
    std::vector<sent_datagram> minute = speaker.take_sent();
    for (sent_datagram &each : minute) {
        each.when -= start;
    }
    return minute;
}

// A network of so many nodes of which one is real: it hears what all others would send.
void measure_network(unsigned nodes, const std::vector<sent_datagram> &minute)
{
    card measured;
    measured.track(2);
    struct arrival {
        sim::nanoseconds when;
        uint32_t sender;
        bytes content;
    };
    std::vector<arrival> arrivals;
    for (unsigned node = 2; node <= nodes; node++) {
        measured.receive(NETWORK + node, packet(PACKET_SUMMARY, full_summary(false), node));
        for (const sent_datagram &each : minute) {
            bytes content = each.content;
            const bytes mac = {2, 0, 0, 0, static_cast<uint8_t>(node >> 8), static_cast<uint8_t>(node)};
            std::copy(mac.begin(), mac.end(), content.begin() + PACKET_OFFSET_SOURCE_MAC);
            arrivals.push_back(
                {(each.when + seconds(60) * node / nodes) % seconds(60), NETWORK + node, content});
        }
    }
    std::sort(arrivals.begin(), arrivals.end(),
              [](const arrival &a, const arrival &b) { return a.when < b.when; });
    const auto pass_minute = [&](unsigned) {
        const sim::nanoseconds start = measured.clock().now();
        for (const arrival &each : arrivals) {
            measured.run_for(start + each.when - measured.clock().now());
            measured.receive(each.sender, each.content);
        }
        measured.run_for(start + seconds(60) - measured.clock().now());
    };
    pass_minute(0);
    char name[64];
    snprintf(name, sizeof name, "network of %u: a minute at rest", nodes);
    measure(name, 1, pass_minute);
    snprintf(name, sizeof name, "network of %u: a node's link changes", nodes);
    const bytes changed[] = {packet(PACKET_SUMMARY, full_summary(true), nodes),
                             packet(PACKET_SUMMARY, full_summary(false), nodes)};
    measure(name, 20, [&](unsigned i) { measured.receive(NETWORK + nodes, changed[i % 2]); });
}

} // namespace

int main()
{
    measure_facts();
    measure_packets();
    measure_send_passes();
    measure_quarter_hours();
    const std::vector<sent_datagram> minute = record_minute();
    for (const unsigned nodes : {10U, 30U, 100U, 250U, 300U, 1000U}) {
        measure_network(nodes, minute);
    }
}
