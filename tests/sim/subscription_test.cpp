// Subscriptions that the node serves to others, and topic data that it receives.
#include "packets.h"

using namespace card;

namespace
{

constexpr unsigned CLIENT = 7;
const std::string FILTER = OWN_TOPIC + "/x/#";
const std::string TOPIC = OWN_TOPIC + "/x/a";
const std::string OTHER_MAC = bytes("02 00 00 00 00 0A");

std::string subscribe_packet(unsigned period, unsigned request_id = 258, unsigned client = CLIENT,
                             const std::string &filter = FILTER, const std::string &mac = PEER_MAC)
{
    return packet_bytes(PACKET_SUBSCRIBE,
                        be(request_id, 4) + be(client, 4) + be(period, 2) + terminated(filter), mac);
}

std::string unsubscribe_packet(const std::string &filter = FILTER)
{
    return packet_bytes(PACKET_UNSUBSCRIBE, be(259, 4) + be(CLIENT, 4) + terminated(filter));
}

std::string keepalive_packet(unsigned client = CLIENT, const std::string &mac = PEER_MAC)
{
    return packet_bytes(PACKET_CLIENT_KEEPALIVE, be(client, 4), mac);
}

datagram ack(unsigned request_id, const std::string &address = PEER_IP)
{
    return to(address, PACKET_ACK, be(request_id, 4));
}

datagram data(const std::string &topic, const std::string &message)
{
    return to_peer(PACKET_TOPIC_DATA, terminated(topic) + message);
}

class subscriptions : public node_with_peer
{
protected:
    void SetUp() override
    {
        node_with_peer::SetUp();
        other_timers_ = count_timers();
    }
    long count_subscriptions() const { return count_timers() - other_timers_; }

private:
    long other_timers_ = 0;
};

//
// Lifetime
//

TEST_F(subscriptions, live_for_the_sends_of_20_minutes_since_the_last_keepalive)
{
    const struct {
        unsigned period;
        std::optional<unsigned> keepalive_at; // seconds since the first send, as all here
        unsigned sends;
        std::optional<unsigned> ends_at;
    } rows[] = {
        {1, {}, 1200, 1200},   {10, {}, 120, 1200},   {700, {}, 1, 700},     {1200, {}, 1, 1200},
        {2000, {}, 1, 2000},   {0, {}, 1, {}},        {0, 5, 1, {}},         {10, 5, 121, 1210},
        {10, 1199, 240, 2400}, {10, 1201, 120, 1200}, {2000, 1999, 2, 4000},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << row.period << ' ' << row.keepalive_at.value_or(0));
        start_node_with_peer();
        publish(TOPIC, "first");
        receive_datagram(subscribe_packet(row.period));
        take_packets();
        const duration start = now() + 1ns;
        std::vector<unsigned> sends;
        std::optional<unsigned> ended_at;
        for (unsigned second = 0; second <= 4500; second++) {
            advance(start + std::chrono::seconds(second) - now());
            for (const datagram &sent : take_packets()) {
                EXPECT_EQ(sent.at, now());
                sends.push_back(second);
            }
            if (count_subscriptions() == 0 && !ended_at) {
                ended_at = second;
            }
            publish(TOPIC, std::to_string(second));
            if (second == 3) {
                receive_datagram(keepalive_packet(CLIENT + 1));
                receive_datagram(keepalive_packet(CLIENT, OTHER_MAC));
            }
            if (second == row.keepalive_at) {
                receive_datagram(keepalive_packet());
            }
        }
        std::vector<unsigned> expected;
        for (unsigned i = 0; i < row.sends; i++) {
            expected.push_back(i * row.period);
        }
        EXPECT_EQ(sends, expected);
        EXPECT_EQ(ended_at, row.ends_at);
    }
}

//
// What is sent
//

TEST_F(subscriptions, send_what_changed_since_the_last_send)
{
    const std::string other = OWN_TOPIC + "/x/b";
    const std::string room(MAX_PACKET_SIZE - HEADER_SIZE - TOPIC.size() - 1, 'm');
    const std::string long_topic = OWN_TOPIC + '/' + std::string(1014 - OWN_TOPIC.size() - 1, 't');
    const lines too_big = {"remote: message is too big for a remote subscription"};
    const struct {
        const char *name;
        messages published;
        datagrams sent;
        lines log;
    } steps[] = {
        {"new topics, in their order",
         {{other, "2"}, {TOPIC, "1"}},
         {data(other, "2"), data(TOPIC, "1")},
         {}},
        {"nothing new", {}, {}, {}},
        {"the same again", {{TOPIC, "1"}}, {}, {}},
        {"two changes", {{TOPIC, "3"}, {TOPIC, "4"}}, {data(TOPIC, "4")}, {}},
        {"a change back", {{TOPIC, "5"}, {TOPIC, "4"}}, {data(TOPIC, "4")}, {}},
        {"other bytes of the same length", {{TOPIC, bytes("00")}}, {data(TOPIC, bytes("00"))}, {}},
        {"a longer message that begins the same",
         {{TOPIC, bytes("00 00")}},
         {data(TOPIC, bytes("00 00"))},
         {}},
        {"a removal", {{TOPIC, ""}}, {data(TOPIC, "")}, {}},
        {"a removal of nothing", {{TOPIC, ""}, {OWN_TOPIC + "/x/unknown", ""}}, {}, {}},
        {"a topic outside the filter", {{OWN_TOPIC + "/y", "1"}}, {}, {}},
        {"the largest message", {{TOPIC, room}}, {data(TOPIC, room)}, {}},
        {"one that is too large, behind a change",
         {{TOPIC, "6"}, {TOPIC, room + 'm'}},
         {data(TOPIC, "6")},
         too_big},
        {"a new topic with a message that is too large", {{OWN_TOPIC + "/x/c", room + 'm'}}, {}, too_big},
        {"an empty message on a topic that is too long", {{long_topic, ""}}, {}, too_big},
        {"not retained, too", {{TOPIC, "7", false}}, {data(TOPIC, "7")}, {}},
    };
    receive_datagram(subscribe_packet(10));
    advance(1ns);
    EXPECT_EQ(take_packets(), datagrams({ack(258)}));
    for (const auto &step : steps) {
        advance(5s);
        for (const message &published : step.published) {
            publish(published.topic, published.payload, published.retain);
        }
        EXPECT_EQ(take_packets(), datagrams()) << step.name << " before the period's end";
        advance(5s);
        EXPECT_EQ(take_packets(), step.sent) << step.name;
        EXPECT_EQ(take_log(), step.log) << step.name;
    }
}

TEST_F(subscriptions, begin_with_all_that_is_known)
{
    publish(OWN_TOPIC + "/x/late", "1");
    receive_datagram(subscribe_packet(10, 258, CLIENT, OWN_TOPIC + "/+"));
    receive_datagram(subscribe_packet(10, 259));
    advance(1ns);
    const datagrams sent = take_packets();
    ASSERT_GT(sent.size(), 3U);
    EXPECT_EQ(sent[0], ack(258));
    EXPECT_EQ(sent[1], ack(259));
    EXPECT_EQ(std::ranges::count(sent, data(OWN_TOPIC + "/card_addr", "5")), 1) << "published at start-up";
    EXPECT_EQ(std::ranges::count(sent, data(OWN_TOPIC + "/x/late", "1")), 1);
}

TEST_F(subscriptions, send_a_change_of_the_very_moment_of_the_last_send)
{
    publish(TOPIC, "1");
    receive_datagram(subscribe_packet(10));
    advance(1ns);
    publish(TOPIC, "2");
    take_packets();
    advance(10s);
    EXPECT_EQ(take_packets(), datagrams({data(TOPIC, "2")}));
    advance(10s);
    EXPECT_EQ(take_packets(), datagrams());
}

//
// Who subscribes
//

TEST_F(subscriptions, that_exist_are_acknowledged_again_and_stay_as_they_are)
{
    receive_datagram(subscribe_packet(10, 1));
    advance(5s);
    receive_datagram(subscribe_packet(20, 2), "10.0.0.99");
    EXPECT_EQ(take_packets(), datagrams({ack(1), ack(2, "10.0.0.99")}));
    EXPECT_EQ(count_subscriptions(), 1);
    publish(TOPIC, "1");
    advance(5s + 1ns);
    EXPECT_EQ(take_packets(), datagrams({data(TOPIC, "1")}));
    advance(1190s);
    EXPECT_EQ(count_subscriptions(), 0) << "a repetition is no keepalive";
}

TEST_F(subscriptions, end_for_those_that_they_are_for)
{
    const std::string wider = OWN_TOPIC + "/#";
    for (const std::string &request :
         {subscribe_packet(10), subscribe_packet(10, 258, CLIENT, wider),
          subscribe_packet(10, 258, CLIENT, OWN_TOPIC + "/x/+"), subscribe_packet(10, 258, CLIENT + 1),
          subscribe_packet(10, 258, CLIENT, FILTER, OTHER_MAC)}) {
        receive_datagram(request);
    }
    advance(1ns);
    take_packets();
    const struct {
        const char *name;
        std::string packet;
        long left;
        datagrams sent;
    } steps[] = {
        {"a filter that would match", unsubscribe_packet(OWN_TOPIC + "/+/#"), 5, {ack(259)}},
        {"one filter", unsubscribe_packet(), 4, {ack(259)}},
        {"one filter again", unsubscribe_packet(), 4, {ack(259)}},
        {"all of one client", packet_bytes(PACKET_UNSUBSCRIBE_ALL, be(260, 4) + be(CLIENT, 4)), 2, {}},
        {"all of a node", packet_bytes(PACKET_GOODBYE, ""), 1, {}},
        {"all of another node", packet_bytes(PACKET_GOODBYE, "", OTHER_MAC), 0, {}},
        {"nothing", packet_bytes(PACKET_GOODBYE, ""), 0, {}},
    };
    for (const auto &step : steps) {
        receive_datagram(step.packet);
        EXPECT_EQ(count_subscriptions(), step.left) << step.name;
        EXPECT_EQ(take_packets(), step.sent) << step.name;
    }
}

TEST_F(subscriptions, have_filters_that_end_at_their_first_nul)
{
    receive_datagram(subscribe_packet(10, 258, CLIENT, terminated(FILTER) + "/behind"));
    receive_datagram(unsubscribe_packet());
    EXPECT_EQ(count_subscriptions(), 0);
}

TEST_F(subscriptions, to_filters_that_are_none_end_the_daemon)
{
    receive_datagram(subscribe_packet(10, 258, CLIENT, OWN_TOPIC + "/#/x"));
    advance(1ns);
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(take_log(),
              lines({"remote: couldn't check if " + OWN_TOPIC + "/card_addr matches " + OWN_TOPIC + "/#/x"}));
    EXPECT_EQ(take_packets().back(), to_all(PACKET_GOODBYE));
}

TEST_F(subscriptions, that_cannot_be_acknowledged_again_end_the_daemon)
{
    receive_datagram(subscribe_packet(10));
    fail(system_call::SENDTO, ENETUNREACH);
    receive_datagram(subscribe_packet(10));
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(take_log().front(), "remote: couldn't send packet (errno " + std::to_string(ENETUNREACH) + ")");
}

//
// Topic data received
//

TEST_F(subscriptions, of_this_node_bring_messages_that_are_not_retained)
{
    const std::string topic = PEER_TOPIC + "/x";
    receive_packet(PACKET_TOPIC_DATA, terminated(topic) + bytes("00 01 00"));
    EXPECT_EQ(take_published(), messages({{topic, bytes("00 01 00"), false}}));
    EXPECT_EQ(take_packets(), datagrams());
}

TEST_F(subscriptions, that_bring_data_on_no_topic_end_the_daemon)
{
    for (const std::string topic : {"", "a/#"}) {
        start_node_with_peer();
        receive_packet(PACKET_TOPIC_DATA, terminated(topic) + "1");
        EXPECT_EQ(exit_status(), 1);
        EXPECT_EQ(take_log(),
                  lines({"broker: couldn't publish message on topic " + topic +
                             " (Invalid function arguments provided.)",
                         "remote: couldn't publish data on topic " + topic,
                         "remote: couldn't process topic data", "remote: couldn't process new packet",
                         "remote: couldn't send packet (errno 9)", "remote: couldn't send goodbye message"}));
        EXPECT_EQ(take_packets(), datagrams());
    }
}

} // namespace
