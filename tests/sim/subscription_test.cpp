// Subscriptions that the node serves to others, and topic data that it receives.
#include "fire_network.h"

#include <mosquitto.h>
#include <sys/epoll.h>

using namespace sim;

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

std::string unsubscribe_all_packet()
{
    return packet_bytes(PACKET_UNSUBSCRIBE_ALL, be(260, 4) + be(CLIENT, 4));
}

void receive_keepalive(unsigned client = CLIENT, const std::string &mac = PEER_MAC)
{
    receive_datagram(packet_bytes(PACKET_CLIENT_KEEPALIVE, be(client, 4), mac));
}

datagram ack(unsigned request_id, const std::string &address = PEER_IP)
{
    return {address, own_packet(PACKET_ACK, be(request_id, 4))};
}

datagram data(const std::string &topic, const std::string &message)
{
    return to_peer(PACKET_TOPIC_DATA, terminated(topic) + message);
}

class subscriptions : public fire_network
{
protected:
    void SetUp() override
    {
        fire_network::SetUp();
        other_timers_ = count_timers();
    }
    long count_subscriptions() const { return count_timers() - other_timers_; }

private:
    static long count_timers() { return std::ranges::count(open_descriptors(), "timer"); }
    long other_timers_ = 0;
};

//
// Lifetime
//

struct lifetime {
    const char *name;
    unsigned period;
    std::optional<duration> keepalive_at; // since the subscribe
    unsigned sends;
    std::optional<duration> ends_at;
};

void PrintTo(const lifetime &row, std::ostream *stream)
{
    *stream << row.name;
}

class subscription_lifetime : public subscriptions, public testing::WithParamInterface<lifetime>
{
};

// Notes the times since start at which the topics are searched for what is to be sent.
void note_sends(std::vector<duration> &times, duration start)
{
    before("mosquitto_topic_matches_sub", FILTER, [&times, start] {
        if (times.empty() || times.back() != now() - start) {
            times.push_back(now() - start);
        }
        note_sends(times, start);
    });
}

TEST_P(subscription_lifetime, counts_sends_since_the_last_keepalive)
{
    const lifetime &row = GetParam();
    const duration start = now() + 1ns;
    std::vector<duration> times;
    note_sends(times, start);
    std::optional<duration> ended_at;
    receive_datagram(subscribe_packet(row.period));
    before("close", "", [&] { ended_at = now() - start; });
    advance(3s);
    receive_keepalive(CLIENT + 1);
    receive_keepalive(CLIENT, OTHER_MAC);
    if (row.keepalive_at) {
        advance(start + *row.keepalive_at - now());
        receive_keepalive();
    }
    advance(start + 4500s - now());
    std::vector<duration> expected;
    for (unsigned i = 0; i < row.sends; i++) {
        expected.push_back(std::chrono::seconds(i * row.period));
    }
    EXPECT_EQ(times, expected);
    EXPECT_EQ(ended_at, row.ends_at);
    EXPECT_EQ(count_subscriptions(), row.ends_at ? 0 : 1);
}

const lifetime LIFETIMES[] = {
    {"each_second", 1, {}, 1200, 1200s},
    {"each_10_s", 10, {}, 120, 1200s},
    {"each_700_s", 700, {}, 1, 700s},
    {"each_1200_s", 1200, {}, 1, 1200s},
    {"each_2000_s", 2000, {}, 1, 2000s},
    {"once", 0, {}, 1, {}},
    {"once_kept_alive", 0, 5s, 1, {}},
    {"kept_alive_early", 10, 5s, 121, 1210s},
    {"kept_alive_at_the_end", 10, 1199s, 240, 2400s},
    {"kept_alive_too_late", 10, 1201s, 120, 1200s},
    {"each_2000_s_kept_alive", 2000, 1999s, 2, 4000s},
};
INSTANTIATE_TEST_SUITE_P(table, subscription_lifetime, testing::ValuesIn(LIFETIMES),
                         [](const auto &row) { return std::string(row.param.name); });

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
        std::vector<datagram> sent;
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
    EXPECT_EQ(take_packets(), std::vector<datagram>({ack(258)}));
    for (const auto &step : steps) {
        advance(5s);
        for (const message &published : step.published) {
            publish(published.topic, published.payload, published.retain);
        }
        EXPECT_EQ(take_packets(), std::vector<datagram>()) << step.name << " before the period's end";
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
    const std::vector<datagram> sent = take_packets();
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
    EXPECT_EQ(take_packets(), std::vector<datagram>({data(TOPIC, "2")}));
    advance(10s);
    EXPECT_EQ(take_packets(), std::vector<datagram>());
}

//
// Who subscribes
//

TEST_F(subscriptions, that_exist_are_acknowledged_again_and_stay_as_they_are)
{
    receive_datagram(subscribe_packet(10, 1));
    advance(5s);
    receive_datagram(subscribe_packet(20, 2), "10.0.0.99");
    EXPECT_EQ(take_packets(), std::vector<datagram>({ack(1), ack(2, "10.0.0.99")}));
    EXPECT_EQ(count_subscriptions(), 1);
    publish(TOPIC, "1");
    advance(5s + 1ns);
    EXPECT_EQ(take_packets(), std::vector<datagram>({data(TOPIC, "1")}));
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
        std::vector<datagram> sent;
    } steps[] = {
        {"a filter that would match", unsubscribe_packet(OWN_TOPIC + "/+/#"), 5, {ack(259)}},
        {"one filter", unsubscribe_packet(), 4, {ack(259)}},
        {"one filter again", unsubscribe_packet(), 4, {ack(259)}},
        {"all of one client", unsubscribe_all_packet(), 2, {}},
        {"all of a node", packet_bytes(PACKET_GOODBYE, ""), 1, {}},
        {"all of another node", packet_bytes(PACKET_GOODBYE, "", OTHER_MAC), 0, {}},
        {"nothing", packet_bytes(PACKET_GOODBYE, ""), 0, {}},
    };
    for (const auto &step : steps) {
        receive_datagram(step.packet, "10.0.0.2");
        EXPECT_EQ(count_subscriptions(), step.left) << step.name;
        EXPECT_EQ(take_packets(), step.sent) << step.name;
    }
}

TEST_F(subscriptions, have_filters_that_end_at_their_first_nul)
{
    receive_datagram(packet_bytes(PACKET_SUBSCRIBE, be(258, 4) + be(CLIENT, 4) + be(10, 2) +
                                                        terminated(FILTER) + terminated("/behind")));
    receive_datagram(unsubscribe_packet());
    EXPECT_EQ(count_subscriptions(), 0);
}

//
// Faults
//

struct packet_fault {
    const char *name;
    std::function<void()> cause;
    std::string packet;
    lines log;
    const char *what;
    long left = 0; // subscriptions
};

void PrintTo(const packet_fault &row, std::ostream *stream)
{
    *stream << row.name;
}

std::function<void()> failing(const failure &what)
{
    return [what] { fail(what); };
}

std::function<void()> subscribed_and_failing(const failure &what)
{
    return [what] {
        receive_datagram(subscribe_packet(10));
        take_packets();
        fail(what);
    };
}

class subscription_packet : public subscriptions, public testing::WithParamInterface<packet_fault>
{
};

TEST_P(subscription_packet, whose_handling_fails_ends_the_daemon)
{
    const packet_fault &row = GetParam();
    row.cause();
    receive_datagram(row.packet);
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(take_log(),
              row.log + lines{std::string("remote: couldn't process ") + row.what} + FATAL_PACKET);
    EXPECT_EQ(take_packets(), std::vector<datagram>());
    EXPECT_EQ(count_subscriptions(), row.left);
}

const failure STAYING_EVENT("EPOLL_CTL_DEL", EIO, "timer");
const failure UNSENT("sendto", EPERM);
const lines NOT_BUILT = {"remote: couldn't build subscription structure"};
const lines NOT_STARTED = {"remote: couldn't start sending subscription data"};
const lines NOT_ADDED = lines{"remote: couldn't add subscription timer event"} + NOT_STARTED;
const lines NOT_ACKNOWLEDGED = {"remote: couldn't send packet (errno 1)",
                                "remote: couldn't send acknowledgement"};
const lines NOT_REMOVED = {"event: couldn't remove event (errno 5)",
                           "remote: couldn't remove subscription timer event"};
const lines NOT_DELETED = NOT_REMOVED + lines{"remote: couldn't delete subscription"};

const packet_fault PACKET_FAULTS[] = {
    {"no_structure", failing(failure("new", 0)), subscribe_packet(10),
     lines{"remote: couldn't allocate subscription structure"} + NOT_BUILT, "subscribe request"},
    {"no_filter", failing(failure("new", 0).from(2)), subscribe_packet(10),
     lines{"remote: couldn't duplicate topic string"} + NOT_BUILT, "subscribe request"},
    {"no_timer", failing(failure("timerfd_create", EMFILE)), subscribe_packet(10),
     lines{"remote: couldn't create subscription timer (errno 24)"} + NOT_STARTED, "subscribe request"},
    {"unarmed_timer", failing(failure("timerfd_settime", EINVAL)), subscribe_packet(10),
     lines{"remote: couldn't arm subscription timer (errno 22)"} + NOT_STARTED, "subscribe request"},
    {"no_event", failing(failure("new", 0).from(3)), subscribe_packet(10),
     lines{"event: couldn't allocate new event"} + NOT_ADDED, "subscribe request"},
    {"refused_event", failing(failure("EPOLL_CTL_ADD", ENOSPC, "timer")), subscribe_packet(10),
     lines{"event: couldn't add new event (errno 28)"} + NOT_ADDED, "subscribe request"},
    {"unacknowledged", failing(UNSENT), subscribe_packet(10), NOT_ACKNOWLEDGED, "subscribe request"},
    {"unacknowledged_and_staying",
     [] {
         fail(UNSENT);
         fail(STAYING_EVENT);
     },
     subscribe_packet(10), NOT_ACKNOWLEDGED + NOT_REMOVED, "subscribe request", 1},
    {"unacknowledged_repetition", subscribed_and_failing(UNSENT), subscribe_packet(10), NOT_ACKNOWLEDGED,
     "subscribe request", 1},
    {"unacknowledged_end", subscribed_and_failing(UNSENT), unsubscribe_packet(), NOT_ACKNOWLEDGED,
     "unsubscribe request"},
    {"end_that_fails", subscribed_and_failing(STAYING_EVENT), unsubscribe_packet(), NOT_DELETED,
     "unsubscribe request", 1},
    {"end_of_all_that_fails", subscribed_and_failing(STAYING_EVENT), unsubscribe_all_packet(), NOT_DELETED,
     "unsubscribe all request", 1},
    {"goodbye_that_fails", subscribed_and_failing(STAYING_EVENT), packet_bytes(PACKET_GOODBYE, ""),
     NOT_DELETED, "goodbye message", 1},
    {"goodbye_of_a_node_that_stays",
     [] {
         expect_leak(); // the summary, out of its list
         receive_summary("");
         subscribed_and_failing(failure("mosquitto_publish", MOSQ_ERR_NOMEM, PEER_TOPIC + "/port_summary"))();
     },
     packet_bytes(PACKET_GOODBYE, ""),
     {"broker: couldn't publish message on topic " + PEER_TOPIC + "/port_summary (Out of memory.)",
      "summary.c: couldn't unpublish topic " + PEER_TOPIC + "/port_summary",
      "summary.c: couldn't unpublish data from summary", "remote: couldn't clear summary"},
     "goodbye message",
     1},
    {"topic_data_on_no_topic",
     [] {},
     packet_bytes(PACKET_TOPIC_DATA, terminated("") + "1"),
     {"broker: couldn't publish message on topic  (Invalid function arguments provided.)",
      "remote: couldn't publish data on topic "},
     "topic data"},
    {"topic_data_on_a_filter",
     [] {},
     packet_bytes(PACKET_TOPIC_DATA, terminated("a/#") + "1"),
     {"broker: couldn't publish message on topic a/# (Invalid function arguments provided.)",
      "remote: couldn't publish data on topic a/#"},
     "topic data"},
};
INSTANTIATE_TEST_SUITE_P(table, subscription_packet, testing::ValuesIn(PACKET_FAULTS),
                         [](const auto &row) { return std::string(row.param.name); });

struct send_fault {
    const char *name;
    std::function<void()> cause;
    lines log;
    std::string filter = FILTER;
};

void PrintTo(const send_fault &row, std::ostream *stream)
{
    *stream << row.name;
}

class subscription_send : public subscriptions, public testing::WithParamInterface<send_fault>
{
};

TEST_P(subscription_send, that_fails_closes_its_timer_and_ends_the_daemon)
{
    publish(TOPIC, "1");
    receive_datagram(subscribe_packet(10, 258, CLIENT, GetParam().filter));
    GetParam().cause();
    advance(1201s);
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(take_log(), GetParam().log);
    EXPECT_EQ(count_subscriptions(), 0);
    EXPECT_EQ(take_packets().back(), to_all(PACKET_GOODBYE));
}

const std::string INVALID = OWN_TOPIC + "/#/x";
const send_fault SEND_FAULTS[] = {
    {"unexpected_events",
     [] { inject_events(find_timer(1ns, 10s), EPOLLIN | EPOLLERR); },
     {"remote: unexpected event(s) on file descriptor"}},
    {"failed_read", failing(failure("read", EIO)), {"remote: couldn't clear subscription timer (errno 5)"}},
    {"short_read",
     failing(failure("read", EAGAIN).returning(7)),
     {"remote: couldn't clear subscription timer (errno 11)"}},
    {"expiry", failing(STAYING_EVENT), NOT_DELETED},
    {"invalid_filter",
     [] {},
     {"remote: couldn't check if " + OWN_TOPIC + "/card_addr matches " + INVALID},
     INVALID},
    {"send",
     failing(failure("sendto", ENOBUFS, PEER_IP)),
     {"remote: couldn't send packet (errno 105)", "remote: couldn't send topic data for " + TOPIC}},
    {"clock",
     [] { before("mosquitto_topic_matches_sub", FILTER, failing(failure("clock_gettime", EINVAL))); },
     {"remote: couldn't get time (errno 22)"}},
};
INSTANTIATE_TEST_SUITE_P(table, subscription_send, testing::ValuesIn(SEND_FAULTS),
                         [](const auto &row) { return std::string(row.param.name); });

class kept_message : public subscriptions,
                     public testing::WithParamInterface<std::pair<failure, const char *>>
{
};

TEST_P(kept_message, that_cannot_be_kept_ends_the_daemon)
{
    const auto &[what, message] = GetParam();
    fail(what);
    publish(TOPIC, "1");
    EXPECT_EQ(take_log(), lines({message}));
    EXPECT_EQ(exit_status(), 1);
}

const std::pair<failure, const char *> MESSAGE_FAULTS[] = {
    {failure("new", 0), "remote: couldn't allocate topic data structure"},
    {failure("new", 0).from(2), "remote: couldn't duplicate topic string"},
    {failure("clock_gettime", EINVAL), "remote: couldn't get time (errno 22)"},
};
INSTANTIATE_TEST_SUITE_P(table, kept_message, testing::ValuesIn(MESSAGE_FAULTS), [](const auto &row) {
    return row.param.first.call + std::to_string(row.param.first.first);
});

//
// Topic data received
//

TEST_F(subscriptions, of_this_node_bring_messages_that_are_not_retained)
{
    const std::string topic = PEER_TOPIC + "/x";
    receive_datagram(packet_bytes(PACKET_TOPIC_DATA, terminated(topic) + bytes("00 01 00")));
    EXPECT_EQ(take_published(), messages({{topic, bytes("00 01 00"), false}}));
    EXPECT_EQ(take_packets(), std::vector<datagram>());
}

} // namespace
