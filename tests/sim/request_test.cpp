// Requests to other nodes, the addresses they go to, and what is requested of this node.
#include "packets.h"
#include "remote.h"

using namespace card;

namespace
{

struct result {
    int acknowledged;
    duration at;
    bool operator==(const result &) const = default;
};

void PrintTo(const result &result, std::ostream *stream)
{
    *stream << result.acknowledged << " after " << result.at.count() << " ns";
}

std::vector<result> results;

void keep_result(int acknowledged, void *arg)
{
    EXPECT_EQ(arg, &results);
    results.push_back({acknowledged, now()});
}

int activate(uint8_t value = 1, const uint8_t *mac = peer_mac())
{
    return as_daemon([=] { return remote_activate(mac, value, keep_result, &results); });
}

int subscribe(const std::string &filter)
{
    return as_daemon([&] { return remote_subscribe(filter.c_str(), 5, 10, keep_result, &results); });
}

int unsubscribe(const std::string &filter)
{
    return as_daemon([&] { return remote_unsubscribe(filter.c_str(), 5, keep_result, &results); });
}

int unsubscribe_all(uint32_t client)
{
    return as_daemon([=] { return remote_unsubscribe_all(client); });
}

int remote_download(uint8_t value, const uint8_t *mac = peer_mac())
{
    return as_daemon([=] { return remote_set_remote_download(mac, value, keep_result, &results); });
}

int reset_stats(const uint8_t *mac, int port)
{
    return as_daemon([=] { return remote_reset_stats(mac, port); });
}

void acknowledge(unsigned request_id, const char *from = PEER_IP)
{
    receive_packet(PACKET_ACK, be(request_id, 4), from);
}

using requests = node_with_peer;

TEST_F(requests, have_their_transmissions_and_one_result)
{
    const struct {
        std::optional<duration> acknowledged_at; // after the first transmission
        size_t transmissions;
        int acknowledged;
        duration result_at;
    } rows[] = {
        {0s, 1, 1, 1s},       {999ms, 1, 1, 1s},     {1s, 2, 1, 2s},
        {9500ms, 10, 1, 10s}, {10001ms, 10, 0, 10s}, {{}, 10, 0, 10s},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.acknowledged_at.value_or(-1s).count());
        start_node_with_peer();
        results.clear();
        const duration first = now() + 1ns;
        const long timers = count_timers();
        const size_t allocations = daemon().count_allocations();
        ASSERT_EQ(activate(), 0);
        if (row.acknowledged_at) {
            advance(*row.acknowledged_at + 1ns);
            acknowledge(0, "10.99.0.1"); // whoever sends it
        }
        advance(20s);
        const datagrams sent = take_packets();
        EXPECT_EQ(sent, datagrams(row.transmissions, to_peer(PACKET_ACTIVATE, be(1, 5))));
        for (size_t i = 0; i < sent.size(); i++) {
            EXPECT_EQ(sent[i].at, first + std::chrono::seconds(i));
        }
        EXPECT_EQ(results, std::vector<result>({{row.acknowledged, first + row.result_at}}));
        EXPECT_EQ(count_timers(), timers);
        EXPECT_EQ(daemon().count_allocations(), allocations);
    }
}

TEST_F(requests, to_unsubscribe_all_are_repeated_until_their_id_is_acknowledged_or_ten_times)
{
    const long timers = count_timers();
    ASSERT_EQ(unsubscribe_all(7), 0);
    advance(1ns);
    for (int transmission = 1; transmission <= 10; transmission++) {
        EXPECT_EQ(take_packets(), datagrams({to_all(PACKET_UNSUBSCRIBE_ALL, be(0, 4) + be(7, 4))}))
            << transmission;
        advance(1s);
    }
    EXPECT_EQ(count_timers(), timers);
    EXPECT_EQ(take_packets(), datagrams());

    ASSERT_EQ(unsubscribe_all(7), 0);
    advance(1500ms + 1ns);
    EXPECT_EQ(take_packets().size(), 2U);
    acknowledge(1);
    advance(500ms);
    EXPECT_EQ(count_timers(), timers);
    EXPECT_EQ(take_packets(), datagrams());
}

TEST_F(requests, in_flight_together_are_told_apart_by_consecutive_ids)
{
    results.clear();
    const std::string filter = PEER_TOPIC + "/#";
    for (const int started :
         {activate(1), unsubscribe_all(9), subscribe(filter), unsubscribe(filter), remote_download(0xFF)}) {
        ASSERT_EQ(started, 0);
    }
    advance(1ns);
    datagrams sent = take_packets();
    std::ranges::sort(sent, {}, [](const datagram &packet) { return packet.bytes.substr(10, 4); });
    EXPECT_EQ(sent,
              datagrams({to_peer(PACKET_ACTIVATE, be(0, 4) + be(1, 1)),
                         to_all(PACKET_UNSUBSCRIBE_ALL, be(1, 4) + be(9, 4)),
                         to_peer(PACKET_SUBSCRIBE, be(2, 4) + be(5, 4) + be(10, 2) + terminated(filter)),
                         to_peer(PACKET_UNSUBSCRIBE, be(3, 4) + be(5, 4) + terminated(filter)),
                         to_peer(PACKET_REMOTE_DOWNLOAD, be(4, 4) + be(0xFF, 1))}));
    acknowledge(2);
    acknowledge(5); // of no request
    advance(1s);
    EXPECT_EQ(results.size(), 1U);
    EXPECT_EQ(take_packets().size(), 4U);
    advance(10s);
    EXPECT_EQ(results.size(), 4U);
}

TEST_F(requests, keep_their_address_when_the_table_changes)
{
    ASSERT_EQ(activate(), 0);
    publish(PEER_IP_TOPIC, "10.0.0.77");
    advance(1500ms);
    publish(PEER_IP_TOPIC, "");
    advance(1s);
    EXPECT_EQ(take_packets(), datagrams(3, to_peer(PACKET_ACTIVATE, be(1, 5))));
}

TEST_F(requests, may_be_made_by_the_report_of_another)
{
    results.clear();
    const auto again = [](int, void *arg) { EXPECT_EQ(remote_activate(peer_mac(), 2, keep_result, arg), 0); };
    ASSERT_EQ(as_daemon([&] { return remote_activate(peer_mac(), 1, again, &results); }), 0);
    advance(1ns);
    acknowledge(0);
    advance(1s + 1ns);
    acknowledge(1);
    advance(1s);
    EXPECT_EQ(results.size(), 1U);
    EXPECT_EQ(take_packets(), datagrams({to_peer(PACKET_ACTIVATE, be(0, 4) + be(1, 1)),
                                         to_peer(PACKET_ACTIVATE, be(1, 4) + be(2, 1))}));
}

TEST_F(requests, that_are_refused_send_nothing_and_use_up_no_id)
{
    const uint8_t unknown_mac[] = {2, 0, 0, 0, 0, 1};
    const std::string unknown = "couldn't find fire IP address for node 02-00-00-00-00-01";
    const std::string no_mac = "couldn't find MAC address in topic pub/diag/#";
    const auto long_filter = [](size_t length) {
        return PEER_TOPIC + '/' + std::string(length - PEER_TOPIC.size() - 1, 'x');
    };
    const auto too_long = [&](size_t most) {
        return "topic " + long_filter(most + 1) + " is too long (" + std::to_string(most + 1) +
               ", must be at most " + std::to_string(most) + ")";
    };
    const std::pair<std::function<int()>, std::string> rows[] = {
        {[] { return subscribe("pub/diag/#"); }, no_mac},
        {[] { return unsubscribe("pub/diag/#"); }, no_mac},
        {[] { return subscribe(PEER_TOPIC + "/a#"); }, PEER_TOPIC + "/a# is not a valid topic filter"},
        {[] { return unsubscribe(PEER_TOPIC + "/#/a"); }, PEER_TOPIC + "/#/a is not a valid topic filter"},
        {[&] { return subscribe(long_filter(1004)); }, too_long(1003)},
        {[&] { return unsubscribe(long_filter(1006)); }, too_long(1005)},
        {[] { return subscribe("pub/diag/02-00-00-00-00-01/#"); }, unknown},
        {[] { return unsubscribe("pub/diag/02-00-00-00-00-01/#"); }, unknown},
        {[&] { return activate(1, unknown_mac); }, unknown},
        {[&] { return remote_download(1, unknown_mac); }, unknown},
        {[&] { return reset_stats(unknown_mac, 1); }, unknown},
    };
    for (const auto &[call, log] : rows) {
        EXPECT_EQ(call(), -1) << log;
        EXPECT_EQ(take_log(), lines({"remote: " + log}));
    }
    advance(20s);
    EXPECT_EQ(take_packets(), datagrams());

    EXPECT_EQ(subscribe(long_filter(1003)), 0);
    EXPECT_EQ(unsubscribe(long_filter(1005)), 0);
    advance(1ns);
    datagrams sent = take_packets();
    std::ranges::sort(sent, {}, [](const datagram &packet) { return packet.bytes; });
    EXPECT_EQ(
        sent,
        datagrams({to_peer(PACKET_SUBSCRIBE, be(0, 4) + be(5, 4) + be(10, 2) + terminated(long_filter(1003))),
                   to_peer(PACKET_UNSUBSCRIBE, be(1, 4) + be(5, 4) + terminated(long_filter(1005)))}));
    EXPECT_EQ(sent[0].bytes.size(), MAX_PACKET_SIZE);
    EXPECT_EQ(sent[1].bytes.size(), MAX_PACKET_SIZE);
}

//
// Fire addresses
//

TEST_F(requests, go_where_the_topics_of_the_addresses_say)
{
    const std::string other_topic = "local/diag/node/a-b-c-d-e-1/fire_ip";
    const uint8_t other_mac[] = {0xA, 0xB, 0xC, 0xD, 0xE, 1};
    const char *const too_long = "message is too long to be an IP address";
    const struct {
        std::string topic;
        std::string payload;
        std::string log;
        std::string address; // then, "" when it is unknown
    } steps[] = {
        {other_topic, "", "", ""},
        {other_topic, "255.255.255.2550", too_long, ""},
        {"local/diag/node/x/fire_ip", "10.0.0.9",
         "couldn't find MAC address in topic local/diag/node/x/fire_ip", ""},
        {other_topic, "255.255.255.255", "", "255.255.255.255"},
        {other_topic, "10.0.0.5", "", "10.0.0.5"},
        {other_topic, "10.0.0.6........", too_long, "10.0.0.5"},
        {other_topic, "", "", ""},
        {other_topic, "10.0.0.6", "", "10.0.0.6"},
    };
    for (const auto &step : steps) {
        publish(step.topic, step.payload);
        EXPECT_EQ(take_log(), step.log.empty() ? lines() : lines({"remote: " + step.log}));
        EXPECT_EQ(reset_stats(other_mac, 8), step.address.empty() ? -1 : 0) << step.payload;
        EXPECT_EQ(take_log().empty(), !step.address.empty());
        EXPECT_EQ(take_packets(), step.address.empty()
                                      ? datagrams()
                                      : datagrams({to(step.address, PACKET_RESET_STATS, be(8, 1))}));
        EXPECT_EQ(reset_stats(peer_mac(), -1), 0) << "the other node's address";
        EXPECT_EQ(take_packets(), datagrams({to_peer(PACKET_RESET_STATS, be(255, 1))}));
    }
}

TEST_F(requests, to_an_address_that_is_none_end_the_daemon)
{
    publish(PEER_IP_TOPIC, "300.1.2.3");
    ASSERT_EQ(activate(), 0);
    advance(1ns);
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(take_log(), lines({"remote: invalid IP address 300.1.2.3",
                                 "remote: couldn't send subscribe/unsubscribe request"}));
    EXPECT_EQ(take_packets(), datagrams({to_all(PACKET_GOODBYE)}));
}

//
// Activate and remote download received
//

TEST_F(requests, of_others_are_carried_out_and_acknowledged_each_time)
{
    for (const auto &[type, topic] :
         {std::pair(PACKET_ACTIVATE, "local/activate"), {PACKET_REMOTE_DOWNLOAD, "local/remotedl"}}) {
        for (int i = 0; i < 2; i++) {
            receive_packet(type, be(258, 4) + be(200, 1), "10.0.0.99");
            EXPECT_EQ(take_published(), messages({{topic, "\xC8"}}));
            EXPECT_EQ(take_packets(), datagrams({to("10.0.0.99", PACKET_ACK, be(258, 4))}));
        }
    }
}

} // namespace
