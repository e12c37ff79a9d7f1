// Requests to other nodes, the addresses they go to, and the other operations on nodes.
#include "fire_network.h"
#include "remote.h"
#include "utils.h"

#include <mosquitto.h>
#include <sys/epoll.h>

using namespace sim;

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

int activate(uint8_t value = 1)
{
    return remote_activate(peer_mac(), value, keep_result, &results);
}

void acknowledge(unsigned request_id, const char *from = PEER_IP)
{
    receive_datagram(packet_bytes(PACKET_ACK, be(request_id, 4)), from);
}

class requests : public fire_network
{
};

//
// Times
//

struct timeline {
    const char *name;
    std::optional<duration> acknowledged_at; // after the first transmission
    int transmissions;
    int acknowledged;
    duration result_at;
};

void PrintTo(const timeline &row, std::ostream *stream)
{
    *stream << row.name;
}

class request_timeline : public requests, public testing::WithParamInterface<timeline>
{
};

// Notes the times of all that goes to the peer.
void note_transmissions(std::vector<duration> &times)
{
    before("sendto", PEER_IP, [&times] {
        times.push_back(now());
        note_transmissions(times);
    });
}

TEST_P(request_timeline, has_its_transmissions_and_one_result)
{
    const timeline &row = GetParam();
    std::vector<duration> times;
    note_transmissions(times);
    const duration first = now() + 1ns;
    ASSERT_EQ(activate(), 0);
    if (row.acknowledged_at) {
        advance(*row.acknowledged_at + 1ns);
        acknowledge(0, "10.99.0.1"); // whoever sends it
    }
    advance(20s);

    std::vector<duration> expected;
    for (int i = 0; i < row.transmissions; i++) {
        expected.push_back(first + std::chrono::seconds(i));
    }
    EXPECT_EQ(times, expected);
    EXPECT_EQ(take_packets(), std::vector<datagram>(expected.size(), to_peer(PACKET_ACTIVATE, be(1, 5))));
    EXPECT_EQ(results, std::vector<result>({{row.acknowledged, first + row.result_at}}));
    EXPECT_EQ(find_timer(1ns, 1s), -1) << "the request's timer is left";
}

const timeline TIMELINES[] = {
    {"answered_at_once", 0s, 1, 1, 1s},          {"answered_before_the_second", 999ms, 1, 1, 1s},
    {"answered_after_the_second", 1s, 2, 1, 2s}, {"answered_after_the_last", 9500ms, 10, 1, 10s},
    {"answered_too_late", 10001ms, 10, 0, 10s},  {"unanswered", {}, 10, 0, 10s},
};
INSTANTIATE_TEST_SUITE_P(table, request_timeline, testing::ValuesIn(TIMELINES),
                         [](const auto &row) { return std::string(row.param.name); });

TEST_F(requests, unsubscribe_all_is_repeated_until_its_id_is_acknowledged_or_ten_times)
{
    const datagram first = to_all(PACKET_UNSUBSCRIBE_ALL, be(0, 4) + be(7, 4));
    ASSERT_EQ(remote_unsubscribe_all(7), 0);
    advance(1ns);
    for (int transmission = 1; transmission <= 10; transmission++) {
        EXPECT_EQ(take_packets(), std::vector<datagram>({first})) << transmission;
        advance(1s);
    }
    EXPECT_EQ(find_timer(1ns, 1s), -1);
    EXPECT_EQ(take_packets(), std::vector<datagram>());

    ASSERT_EQ(remote_unsubscribe_all(7), 0);
    advance(1500ms + 1ns);
    EXPECT_EQ(take_packets().size(), 2U);
    acknowledge(1);
    advance(500ms);
    EXPECT_EQ(find_timer(1ns, 1s), -1);
    EXPECT_EQ(take_packets(), std::vector<datagram>());
}

TEST_F(requests, in_flight_together_are_told_apart_by_consecutive_ids)
{
    ASSERT_EQ(activate(1), 0);
    ASSERT_EQ(remote_unsubscribe_all(9), 0);
    ASSERT_EQ(remote_subscribe((PEER_TOPIC + "/#").c_str(), 5, 10, keep_result, &results), 0);
    ASSERT_EQ(remote_unsubscribe((PEER_TOPIC + "/#").c_str(), 5, keep_result, &results), 0);
    ASSERT_EQ(remote_set_remote_download(peer_mac(), 0xFF, keep_result, &results), 0);
    advance(1ns);
    std::vector<datagram> sent = take_packets();
    std::ranges::sort(sent, {}, [](const datagram &packet) { return packet.bytes.substr(10, 4); });
    EXPECT_EQ(sent,
              std::vector<datagram>(
                  {to_peer(PACKET_ACTIVATE, be(0, 4) + be(1, 1)),
                   to_all(PACKET_UNSUBSCRIBE_ALL, be(1, 4) + be(9, 4)),
                   to_peer(PACKET_SUBSCRIBE, be(2, 4) + be(5, 4) + be(10, 2) + terminated(PEER_TOPIC + "/#")),
                   to_peer(PACKET_UNSUBSCRIBE, be(3, 4) + be(5, 4) + terminated(PEER_TOPIC + "/#")),
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
    EXPECT_EQ(take_packets(), std::vector<datagram>(3, to_peer(PACKET_ACTIVATE, be(1, 5))));
}

TEST_F(requests, may_be_made_by_the_report_of_another)
{
    const auto again = [](int, void *arg) { EXPECT_EQ(remote_activate(peer_mac(), 2, keep_result, arg), 0); };
    ASSERT_EQ(remote_activate(peer_mac(), 1, again, &results), 0);
    advance(1ns);
    acknowledge(0);
    advance(1s + 1ns);
    acknowledge(1);
    advance(1s);
    EXPECT_EQ(results.size(), 1U);
    EXPECT_EQ(take_packets(), std::vector<datagram>({to_peer(PACKET_ACTIVATE, be(0, 4) + be(1, 1)),
                                                     to_peer(PACKET_ACTIVATE, be(1, 4) + be(2, 1))}));
}

//
// Refusals
//

TEST_F(requests, that_are_refused_send_nothing_and_use_up_no_id)
{
    const uint8_t unknown_mac[] = {2, 0, 0, 0, 0, 1};
    const std::string filter = PEER_TOPIC + "/#";
    const auto subscribe = [](const std::string &topic) {
        return remote_subscribe(topic.c_str(), 1, 10, keep_result, &results);
    };
    const auto unsubscribe = [](const std::string &topic) {
        return remote_unsubscribe(topic.c_str(), 1, keep_result, &results);
    };
    const lines null = {"remote: NULL pointer received as argument"};
    const lines unknown = {"remote: couldn't find fire IP address for node 02-00-00-00-00-01"};
    const auto long_filter = [](size_t length) {
        return PEER_TOPIC + '/' + std::string(length - PEER_TOPIC.size() - 1, 'x');
    };
    const auto too_long = [&](size_t most) {
        return lines{"remote: topic " + long_filter(most + 1) + " is too long (" + std::to_string(most + 1) +
                     ", must be at most " + std::to_string(most) + ")"};
    };
    const auto invalid = [](const std::string &topic) {
        return lines{"remote: " + topic + " is not a valid topic filter"};
    };
    const std::pair<int, lines> refused[] = {
        {remote_subscribe(nullptr, 1, 10, keep_result, nullptr), null},
        {remote_subscribe(filter.c_str(), 1, 10, nullptr, nullptr), null},
        {remote_unsubscribe(nullptr, 1, keep_result, nullptr), null},
        {remote_unsubscribe(filter.c_str(), 1, nullptr, nullptr), null},
        {remote_activate(nullptr, 1, keep_result, nullptr), null},
        {remote_activate(peer_mac(), 1, nullptr, nullptr), null},
        {remote_set_remote_download(nullptr, 1, keep_result, nullptr), null},
        {remote_set_remote_download(peer_mac(), 1, nullptr, nullptr), null},
        {remote_reset_stats(nullptr, 1), null},
        {subscribe("pub/diag/#"), {"remote: couldn't find MAC address in topic pub/diag/#"}},
        {unsubscribe("pub/diag/#"), {"remote: couldn't find MAC address in topic pub/diag/#"}},
        {subscribe(PEER_TOPIC + "/a#"), invalid(PEER_TOPIC + "/a#")},
        {unsubscribe(PEER_TOPIC + "/#/a"), invalid(PEER_TOPIC + "/#/a")},
        {subscribe(long_filter(1004)), too_long(1003)},
        {unsubscribe(long_filter(1006)), too_long(1005)},
        {subscribe("pub/diag/02-00-00-00-00-01/#"), unknown},
        {unsubscribe("pub/diag/02-00-00-00-00-01/#"), unknown},
        {remote_activate(unknown_mac, 1, keep_result, nullptr), unknown},
        {remote_set_remote_download(unknown_mac, 1, keep_result, nullptr), unknown},
        {remote_reset_stats(unknown_mac, 1), unknown},
    };
    lines log;
    for (const auto &[result, message] : refused) {
        EXPECT_EQ(result, -1);
        log = log + message;
    }
    EXPECT_EQ(take_log(), log);
    advance(20s);
    EXPECT_EQ(take_packets(), std::vector<datagram>());

    EXPECT_EQ(subscribe(long_filter(1003)), 0);
    EXPECT_EQ(unsubscribe(long_filter(1005)), 0);
    advance(1ns);
    std::vector<datagram> sent = take_packets();
    std::ranges::sort(sent, {}, [](const datagram &packet) { return packet.bytes; });
    EXPECT_EQ(sent,
              std::vector<datagram>(
                  {to_peer(PACKET_SUBSCRIBE, be(0, 4) + be(1, 4) + be(10, 2) + terminated(long_filter(1003))),
                   to_peer(PACKET_UNSUBSCRIBE, be(1, 4) + be(1, 4) + terminated(long_filter(1005)))}));
    EXPECT_EQ(sent[0].bytes.size(), MAX_PACKET_SIZE);
    EXPECT_EQ(sent[1].bytes.size(), MAX_PACKET_SIZE);
}

struct start_failure {
    failure what;
    lines log;
    bool is_built; // the failing step comes after the request has its id
};

void PrintTo(const start_failure &row, std::ostream *stream)
{
    *stream << row.what.call << row.what.first;
}

class request_start : public requests, public testing::WithParamInterface<start_failure>
{
};

TEST_P(request_start, that_fails_leaves_no_trace)
{
    const start_failure &row = GetParam();
    const lines open = open_descriptors();
    fail(row.what);
    EXPECT_EQ(activate(), -1);
    EXPECT_EQ(take_log(), row.log + lines{row.is_built ? "remote: couldn't start pending request"
                                                       : "remote: couldn't build request"});
    fail(row.what);
    EXPECT_EQ(remote_unsubscribe_all(1), -1);
    EXPECT_EQ(take_log(),
              row.log + lines{row.is_built ? "remote: couldn't start pending unsubscribe all request"
                                           : "remote: couldn't build unsubscribe all request"});
    EXPECT_EQ(open_descriptors(), open);
    advance(20s);
    EXPECT_EQ(take_packets(), std::vector<datagram>());
    EXPECT_EQ(results, std::vector<result>());

    EXPECT_EQ(activate(3), 0);
    advance(1ns);
    const unsigned next_id = row.is_built ? 2 : 0;
    EXPECT_EQ(take_packets(), std::vector<datagram>({to_peer(PACKET_ACTIVATE, be(next_id, 4) + be(3, 1))}));
}

const start_failure START_FAILURES[] = {
    {failure("new", 0), {"remote: couldn't allocate request structure"}, false},
    {failure("timerfd_create", EMFILE), {"remote: couldn't create request timer (errno 24)"}, true},
    {failure("timerfd_settime", EINVAL), {"remote: couldn't arm request timer (errno 22)"}, true},
    {failure("EPOLL_CTL_ADD", ENOSPC, "timer"),
     {"event: couldn't add new event (errno 28)", "remote: couldn't add request timer event"},
     true},
    {failure("new", 0).from(2),
     {"event: couldn't allocate new event", "remote: couldn't add request timer event"},
     true},
};
INSTANTIATE_TEST_SUITE_P(table, request_start, testing::ValuesIn(START_FAILURES), [](const auto &row) {
    return row.param.what.call + std::to_string(row.param.what.first);
});

//
// Faults on the way
//

struct request_fault {
    const char *name;
    std::function<void()> cause;
    lines log;
    size_t reports = 0;
};

void PrintTo(const request_fault &row, std::ostream *stream)
{
    *stream << row.name;
}

class request_in_flight : public requests, public testing::WithParamInterface<request_fault>
{
};

TEST_P(request_in_flight, ends_the_daemon_by_a_fault)
{
    ASSERT_EQ(activate(), 0);
    advance(1ns);
    acknowledge(0);
    ASSERT_EQ(activate(), 0);
    GetParam().cause();
    advance(2s);
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(take_log(), GetParam().log);
    EXPECT_EQ(results.size(), GetParam().reports);
    EXPECT_EQ(take_packets().back(), to_all(PACKET_GOODBYE));
}

const request_fault REQUEST_FAULTS[] = {
    {"unexpected_events",
     [] { inject_events(find_timer(1ns, 1s), EPOLLERR); },
     {"remote: unexpected event(s) on file descriptor"}},
    {"readable_and_failed",
     [] { inject_events(find_timer(1ns, 1s), EPOLLIN | EPOLLHUP); },
     {"remote: unexpected event(s) on file descriptor"}},
    {"failed_read", [] { fail(failure("read", EIO)); }, {"remote: couldn't clear request timer (errno 5)"}},
    {"short_read",
     [] { fail(failure("read", EAGAIN).returning(4)); },
     {"remote: couldn't clear request timer (errno 11)"}},
    {"failed_send",
     [] { fail(failure("sendto", ENETUNREACH, PEER_IP)); },
     {"remote: couldn't send packet (errno 101)", "remote: couldn't send subscribe/unsubscribe request"}},
    {"short_send",
     [] { fail(failure("sendto", 0, PEER_IP).returning(14)); },
     {"remote: couldn't send packet (errno 0)", "remote: couldn't send subscribe/unsubscribe request"}},
    {"interrupted_send_when_ending",
     [] {
         fail(failure("sendto", EINTR, PEER_IP));
         before("sendto", PEER_IP, terminate);
     },
     {"remote: couldn't send subscribe/unsubscribe request"}},
    {"event_that_stays",
     [] { fail(failure("EPOLL_CTL_DEL", EIO, "timer")); },
     {"event: couldn't remove event (errno 5)", "remote: couldn't remove request timer event"},
     1},
};
INSTANTIATE_TEST_SUITE_P(table, request_in_flight, testing::ValuesIn(REQUEST_FAULTS),
                         [](const auto &row) { return std::string(row.param.name); });

//
// Fire addresses
//

class fire_addresses : public requests
{
};

TEST_F(fire_addresses, follow_their_topics)
{
    const std::string other_topic = "local/diag/node/a-b-c-d-e-1/fire_ip";
    const uint8_t other_mac[] = {0xA, 0xB, 0xC, 0xD, 0xE, 1};
    const lines unknown = {"remote: couldn't find fire IP address for node 0A-0B-0C-0D-0E-01"};
    const struct {
        std::string topic;
        std::string payload;
        lines log;
        std::string other_address; // then, "" when it is unknown
    } steps[] = {
        {other_topic, "", {}, ""},
        {other_topic, "255.255.255.2550", {"remote: message is too long to be an IP address"}, ""},
        {"local/diag/node/x/fire_ip",
         "10.0.0.9",
         {"remote: couldn't find MAC address in topic local/diag/node/x/fire_ip"},
         ""},
        {other_topic, "255.255.255.255", {}, "255.255.255.255"},
        {other_topic, "10.0.0.5", {}, "10.0.0.5"},
        {other_topic, "10.0.0.6........", {"remote: message is too long to be an IP address"}, "10.0.0.5"},
        {other_topic, "", {}, ""},
        {other_topic, "10.0.0.6", {}, "10.0.0.6"},
    };
    for (const auto &step : steps) {
        publish(step.topic, step.payload);
        EXPECT_EQ(take_log(), step.log) << step.payload;
        const bool is_known = !step.other_address.empty();
        EXPECT_EQ(remote_reset_stats(other_mac, 8), is_known ? 0 : -1) << step.payload;
        EXPECT_EQ(take_log(), is_known ? lines() : unknown) << step.payload;
        EXPECT_EQ(
            take_packets(),
            is_known ? std::vector<datagram>({{step.other_address, own_packet(PACKET_RESET_STATS, be(8, 1))}})
                     : std::vector<datagram>());
        EXPECT_EQ(remote_reset_stats(peer_mac(), 0), 0) << "the other node's address";
        EXPECT_EQ(take_packets(), std::vector<datagram>({to_peer(PACKET_RESET_STATS, be(0, 1))}));
    }
}

TEST_F(fire_addresses, that_are_none_end_the_daemon_when_a_request_is_sent_there)
{
    publish(PEER_IP_TOPIC, "300.1.2.3");
    EXPECT_EQ(remote_reset_stats(peer_mac(), 0), -1);
    ASSERT_EQ(activate(), 0);
    advance(1ns);
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(take_log(),
              lines({"remote: invalid IP address 300.1.2.3", "remote: couldn't send reset-stats request",
                     "remote: invalid IP address 300.1.2.3",
                     "remote: couldn't send subscribe/unsubscribe request"}));
    EXPECT_EQ(take_packets(), std::vector<datagram>({to_all(PACKET_GOODBYE)}));
}

TEST_F(fire_addresses, without_memory_end_the_daemon)
{
    fail(failure("new", 0));
    publish("local/diag/node/0A-0B-0C-0D-0E-01/fire_ip", "10.0.0.5");
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(take_log(), lines({"remote: couldn't allocate fire IP structure"}));
}

//
// Operations that are sent once
//

struct operation {
    const char *name;
    std::function<int()> call;
    datagram sent;
    const char *failure;
};

void PrintTo(const operation &row, std::ostream *stream)
{
    *stream << row.name;
}

class single_packet : public requests, public testing::WithParamInterface<operation>
{
};

TEST_P(single_packet, is_sent_once_or_the_failure_returned)
{
    const operation &row = GetParam();
    EXPECT_EQ(row.call(), 0);
    advance(15s);
    EXPECT_EQ(std::ranges::count(take_datagrams(), row.sent), 1);
    fail(failure("sendto", ENOBUFS));
    EXPECT_EQ(row.call(), -1);
    EXPECT_EQ(take_log(), lines({"remote: couldn't send packet (errno 105)",
                                 std::string("remote: couldn't send ") + row.failure}));
    EXPECT_EQ(take_datagrams(), std::vector<datagram>());
}

const operation OPERATIONS[] = {
    {"keepalive", [] { return remote_send_client_keepalive(0x01020304); },
     to_all(PACKET_CLIENT_KEEPALIVE, be(0x01020304, 4)), "client keepalive"},
    {"reset_stats", [] { return remote_reset_stats(peer_mac(), -1); },
     to_peer(PACKET_RESET_STATS, be(0xFF, 1)), "reset-stats request"},
    {"reset_all_stats", [] { return remote_reset_all_stats(); }, to_all(PACKET_RESET_ALL_STATS),
     "reset-all-stats request"},
    {"goodbye", [] { return remote_send_goodbye(); }, to_all(PACKET_GOODBYE), "goodbye message"},
};
INSTANTIATE_TEST_SUITE_P(table, single_packet, testing::ValuesIn(OPERATIONS),
                         [](const auto &row) { return std::string(row.param.name); });

//
// Activate and remote download received
//

struct download {
    const char *name;
    packet_type type;
    const char *topic;
};

void PrintTo(const download &row, std::ostream *stream)
{
    *stream << row.name;
}

class download_request : public requests, public testing::WithParamInterface<download>
{
protected:
    const download &row = GetParam();
    const std::string request = packet_bytes(row.type, be(258, 4) + be(200, 1));
};

TEST_P(download_request, publishes_its_value_and_is_acknowledged_each_time)
{
    for (int i = 0; i < 2; i++) {
        receive_datagram(request, "10.0.0.99");
        EXPECT_EQ(take_published(), messages({{row.topic, "\xC8"}}));
        EXPECT_EQ(take_packets(), std::vector<datagram>({{"10.0.0.99", own_packet(PACKET_ACK, be(258, 4))}}));
    }
}

TEST_P(download_request, that_cannot_be_published_is_not_acknowledged)
{
    fail(failure("mosquitto_publish", MOSQ_ERR_NOMEM, row.topic));
    receive_datagram(request);
    const std::string topic = row.topic;
    EXPECT_EQ(take_log(), lines({"broker: couldn't publish message on topic " + topic + " (Out of memory.)",
                                 "remote: couldn't publish 200 to " + topic,
                                 std::string("remote: couldn't process ") + row.name + " request"}) +
                              FATAL_PACKET);
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(take_packets(), std::vector<datagram>());
}

TEST_P(download_request, that_cannot_be_acknowledged_ends_the_daemon)
{
    fail(failure("sendto", EPERM));
    receive_datagram(request);
    EXPECT_EQ(take_log(),
              lines({"remote: couldn't send packet (errno 1)", "remote: couldn't send acknowledgement",
                     std::string("remote: couldn't process ") + row.name + " request"}) +
                  FATAL_PACKET);
    EXPECT_EQ(exit_status(), 1);
}

const download DOWNLOADS[] = {
    {"activate", PACKET_ACTIVATE, "local/activate"},
    {"remote download", PACKET_REMOTE_DOWNLOAD, "local/remotedl"},
};
INSTANTIATE_TEST_SUITE_P(table, download_request, testing::ValuesIn(DOWNLOADS),
                         [](const auto &row) { return std::string(row.param.topic).substr(6); });

} // namespace
