// The broker session: acknowledgements and retries, dispatch, a broker that stalls or goes away.
#include "broker.h"
#include "event.h"
#include "platform.h"
#include "utils.h"

#include <mosquitto.h>
#include <sys/epoll.h>

#include <algorithm>
#include <deque>

using namespace sim;

namespace
{

class session : public node
{
protected:
    void SetUp() override
    {
        start(run_session);
        ASSERT_TRUE(is_running());
        take_requests();
    }

    // Calls back into the test with everything that comes on the filter.
    void listen(
        const std::string &filter, const std::string &name, std::function<void()> action = [] {})
    {
        listeners_.push_back({this, name, std::move(action)});
        ASSERT_EQ(broker_subscribe(filter.c_str(), listener::hear, &listeners_.back()), 0);
        run();
    }

    lines heard_;

private:
    // As much of the daemon's main as the session needs.
    static int run_session()
    {
        struct sigaction action = {};
        action.sa_handler = sigterm_handler;
        sigaction(SIGTERM, &action, nullptr);
        if (event_init() == 0 && broker_connect() == 0) {
            event_loop();
        }
        broker_disconnect();
        return is_sigterm_received() ? 0 : 1;
    }

    struct listener {
        session *test;
        std::string name;
        std::function<void()> action;

        static void hear(const char *topic, const void *payload, int length, void *arg)
        {
            const auto *const me = static_cast<const listener *>(arg);
            const std::string text =
                length == 0 ? ""
                            : std::string(static_cast<const char *>(payload), static_cast<size_t>(length));
            me->test->heard_.push_back(me->name + ": " + topic + "=" + text);
            me->action();
        }
    };
    std::deque<listener> listeners_;
};

void ignore_message(const char *, const void *, int, void *) {}

int publish_x()
{
    return broker_publish("t", "x", 1);
}

int subscribe_s()
{
    return broker_subscribe("s", ignore_message, nullptr);
}

const messages X = {{"t", "x"}};

TEST_F(session, publishes_each_way_once_when_it_is_acknowledged)
{
    EXPECT_EQ(broker_publish("a", "1", 1), 0);
    EXPECT_EQ(broker_publish("b", "2", 0), 0);
    EXPECT_EQ(broker_publish_unretained("c", "3", 1), 0);
    EXPECT_EQ(broker_unpublish("d"), 0);
    EXPECT_EQ(subscribe_s(), 0);
    EXPECT_EQ(broker_unsubscribe("never subscribed"), 0);
    advance(10s);
    EXPECT_EQ(take_published(), messages({{"a", "1"}, {"b", ""}, {"c", "3", false}, {"d", ""}}));
    const lines requests = take_requests();
    EXPECT_EQ(lines(requests.begin() + 4, requests.end()),
              lines({"SUBSCRIBE s", "UNSUBSCRIBE never subscribed", "PINGREQ"}));
}

TEST_F(session, gives_up_after_four_sendings_on_the_tick_grid)
{
    broker().answers_publish = false;
    broker().answers_subscribe = false;
    advance(200ms);
    EXPECT_EQ(broker_publish_unretained("t", "x", 1), 0);
    EXPECT_EQ(broker_unpublish("u"), 0);
    EXPECT_EQ(subscribe_s(), 0);
    EXPECT_EQ(take_requests(), lines({"PUBLISH t", "PUBLISH u", "SUBSCRIBE s"}));
    advance(1299ms); // to just before the first tick a second later
    for (int sending = 2; sending <= 4; sending++) {
        EXPECT_EQ(take_requests(), lines()) << sending;
        advance(1ms);
        EXPECT_EQ(take_requests(), lines({"PUBLISH u", "PUBLISH t", "SUBSCRIBE s"})) << sending;
        advance(999ms);
    }
    EXPECT_EQ(std::ranges::count(take_published(), message{"t", "x", false}), 4);
    advance(1ms);
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(
        take_log(),
        lines({"broker: publish on topic u still failed after maximum number of retries, exiting",
               "broker: subscription on topic s still failed after maximum number of retries, exiting"}));
}

TEST_F(session, acknowledgement_of_an_earlier_sending_does_not_count)
{
    broker().answers_publish = false;
    publish_x();
    advance(1s);
    EXPECT_EQ(take_published().size(), 2U); // the second after exactly 1 s
    answer_publication(0);
    advance(1s);
    EXPECT_EQ(take_published().size(), 1U);
    answer_publication(2);
    advance(10s);
    EXPECT_EQ(take_published().size(), 0U);
}

TEST_F(session, counts_sendings_that_the_library_holds_back)
{
    broker().answers_publish = false;
    for (int i = 0; i < 21; i++) {
        publish_x();
    }
    EXPECT_EQ(take_published().size(), 20U);
    advance(3999ms);
    EXPECT_EQ(take_published().size(), 0U);
    EXPECT_TRUE(is_running());
    advance(1ms);
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(take_log().size(), 1U);
}

TEST_F(session, burst_at_a_healthy_broker_is_sent_once)
{
    constexpr size_t BURST = 950;
    listen("go", "a", [] {
        for (size_t i = 0; i < BURST; i++) {
            publish_x();
        }
    });
    publish("go", "");
    EXPECT_EQ(take_published().size(), BURST);
    advance(10s);
    EXPECT_EQ(take_published().size(), 0U);
}

TEST_F(session, what_a_callback_publishes_goes_out_at_once)
{
    listen("go", "a", [] { publish_x(); });
    publish("go", "");
    EXPECT_EQ(take_published(), X);
}

//
// Dispatch
//

TEST_F(session, newest_subscription_hears_first_and_none_is_merged)
{
    retain("a/b", "kept");
    listen("a/#", "old");
    listen("a/b", "new");
    listen("a/b", "newest");
    EXPECT_EQ(heard_, lines({"old: a/b=kept", "new: a/b=kept", "old: a/b=kept", "newest: a/b=kept",
                             "new: a/b=kept", "old: a/b=kept"}));
    heard_.clear();
    publish("a/b", "");
    publish("a/c", "1");
    publish("b", "1");
    publish("a", "1");
    EXPECT_EQ(heard_, lines({"newest: a/b=", "new: a/b=", "old: a/b=", "old: a/c=1", "old: a=1"}));
}

struct change_case {
    const char *name;
    std::function<void(session &)> change; // made by the callback of the newest of new, middle and old
    lines heard;
    lines heard_next;
};

class dispatch : public session, public testing::WithParamInterface<change_case>
{
public:
    using session::listen;
};

TEST_P(dispatch, survives_what_a_callback_changes)
{
    bool is_first = true;
    listen("a/#", "old");
    listen("a/b", "middle");
    listen("a/b", "new", [&] {
        if (std::exchange(is_first, false)) {
            GetParam().change(*this);
        }
    });
    publish("a/b", "");
    EXPECT_EQ(heard_, GetParam().heard);
    heard_.clear();
    publish("a/b", "");
    EXPECT_EQ(heard_, GetParam().heard_next);
}

void listen_later(session &test)
{
    static_cast<dispatch &>(test).listen("a/b", "later");
}

const lines ALL = {"new: a/b=", "middle: a/b=", "old: a/b="};
const change_case CHANGES[] = {
    {"own_filter_removed", [](session &) { broker_unsubscribe("a/b"); }, {ALL[0], ALL[2]}, {ALL[2]}},
    {"next_filter_removed", [](session &) { broker_unsubscribe("a/#"); }, {ALL[0], ALL[1]}, {ALL[0], ALL[1]}},
    {"all_removed",
     [](session &) {
         broker_unsubscribe("a/b");
         broker_unsubscribe("a/#");
     },
     {ALL[0]},
     {}},
    {"added", listen_later, ALL, lines{"later: a/b="} + ALL},
    {"replaced",
     [](session &test) {
         broker_unsubscribe("a/b");
         listen_later(test);
     },
     {ALL[0], ALL[2]},
     {"later: a/b=", ALL[2]}},
    {"terminated", [](session &) { terminate(); }, {ALL[0]}, {}},
};
INSTANTIATE_TEST_SUITE_P(table, dispatch, testing::ValuesIn(CHANGES),
                         [](const auto &row) { return std::string(row.param.name); });

TEST_F(session, failing_topic_match_ends_the_dispatch)
{
    listen("a/+", "old");
    listen("b/+", "new");
    fail(failure("mosquitto_topic_matches_sub", MOSQ_ERR_INVAL, "a/+"));
    publish("a/b", "");
    EXPECT_EQ(heard_, lines());
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(take_log(), lines({"broker: couldn't check if topic a/b matches a/+"}));
}

TEST_F(session, message_after_a_request_to_end_reaches_nobody_behind_the_newest)
{
    listen("a/#", "old");
    listen("a/b", "newer");
    listen("c", "newest");
    before("mosquitto_loop_read", "", [] { terminate(); });
    publish("a/b", "");
    EXPECT_EQ(heard_, lines());
    EXPECT_EQ(exit_status(), 1);
}

TEST_F(session, other_granted_qos_than_1_is_fatal)
{
    for (const int granted : {0, 128}) {
        broker().granted_qos = granted;
        subscribe_s();
    }
    run();
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(take_log(), lines({"broker: granted QoS is wrong (0, should be 1)"}));
}

//
// Failing calls
//

TEST_F(session, failing_calls_keep_nothing)
{
    const auto refuse_null = [](int result) {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(take_log(), lines({"broker: NULL pointer received as argument"}));
    };
    refuse_null(broker_publish(nullptr, "x", 1));
    refuse_null(broker_publish("t", nullptr, 0));
    refuse_null(broker_publish_unretained(nullptr, "x", 1));
    refuse_null(broker_publish_unretained("t", nullptr, 0));
    refuse_null(broker_unpublish(nullptr));
    refuse_null(broker_subscribe(nullptr, ignore_message, nullptr));
    refuse_null(broker_subscribe("s", nullptr, nullptr));
    refuse_null(broker_unsubscribe(nullptr));

    const auto unsubscribe = [] { return broker_unsubscribe("s"); };
    const struct {
        int (*call)();
        failure what;
        const char *log;
    } rows[] = {
        {publish_x, failure("new", 0), "couldn't allocate publication structure"},
        {publish_x, failure("new", 0).from(2), "couldn't duplicate topic string"},
        {publish_x, failure("new", 0).from(3), "couldn't allocate message copy"},
        {publish_x, failure("clock_gettime", EINVAL), "couldn't get time (errno 22)"},
        {publish_x, failure("mosquitto_publish", MOSQ_ERR_NO_CONN),
         "couldn't publish message on topic t (The client is not currently connected.)"},
        {subscribe_s, failure("new", 0), "couldn't allocation subscription structure"},
        {subscribe_s, failure("new", 0).from(2), "couldn't duplicate topic string"},
        {subscribe_s, failure("clock_gettime", EINVAL), "couldn't get time (errno 22)"},
        {subscribe_s, failure("mosquitto_subscribe", MOSQ_ERR_NOMEM),
         "couldn't subscribe to topic s (Out of memory.)"},
        {unsubscribe, failure("mosquitto_unsubscribe", MOSQ_ERR_NOMEM),
         "couldn't unsubscribe from topic s (Out of memory.)"},
        {broker_connect, failure("", 0), "already connected to the broker"},
    };
    for (const auto &row : rows) {
        fail(row.what);
        EXPECT_EQ(row.call(), -1) << row.log;
        EXPECT_EQ(take_log(), lines({std::string("broker: ") + row.log}));
    }
    advance(9s);
    EXPECT_EQ(take_requests(), lines());
}

struct tick_case {
    const char *name;
    failure what;
    lines log;
};

class maintenance : public session, public testing::WithParamInterface<tick_case>
{
};

TEST_P(maintenance, failure_stops_the_timer_and_the_daemon)
{
    broker().answers_publish = false;
    broker().answers_subscribe = false;
    subscribe_s();
    broker().reads = false;
    publish_x(); // stays pending
    broker().reads = true;
    advance(999ms);
    fail(GetParam().what);
    advance(1ms);
    EXPECT_EQ(find_timer(500ms, 500ms), -1);
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(take_log(), GetParam().log);
}

const std::string PUBLISH_PASS = "broker: error while checking pending publish operations";
const std::string SUBSCRIBE_PASS = "broker: error while checking pending subscriptions";
const tick_case TICKS[] = {
    {"timer", failure("read", EIO), {"broker: couldn't clear maintenance timer (errno 5)"}},
    {"short_read", failure("read", EIO).returning(4), {"broker: couldn't clear maintenance timer (errno 5)"}},
    {"housekeeping",
     failure("mosquitto_loop_misc", MOSQ_ERR_PROTOCOL),
     {"broker: error while performing maintenance (A network protocol error occurred when communicating with "
      "the broker.)"}},
    {"publish_clock",
     failure("clock_gettime", EINVAL),
     {"broker: couldn't get time (errno 22)", PUBLISH_PASS}},
    {"publish_again",
     failure("mosquitto_publish", MOSQ_ERR_NOMEM),
     {"broker: couldn't retry publish on topic t (Out of memory.)", PUBLISH_PASS}},
    {"subscribe_clock",
     failure("clock_gettime", EINVAL).from(2),
     {"broker: couldn't get time (errno 22)", SUBSCRIBE_PASS}},
    {"subscribe_again",
     failure("mosquitto_subscribe", MOSQ_ERR_NOMEM),
     {"broker: couldn't subscribe to topic s (Out of memory.)", SUBSCRIBE_PASS}},
};
INSTANTIATE_TEST_SUITE_P(table, maintenance, testing::ValuesIn(TICKS),
                         [](const auto &row) { return std::string(row.param.name); });

TEST_F(session, failing_output_of_a_tick_is_fatal)
{
    broker().reads = false;
    publish_x();
    broker().reads = true;
    fail(failure("mosquitto_loop_write", MOSQ_ERR_CONN_LOST));
    advance(500ms);
    EXPECT_EQ(find_timer(500ms, 500ms), -1);
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(take_log(), lines({"broker: couldn't carry out write operations (The connection was lost.)"}));
}

TEST_F(session, failing_output_after_a_message_is_fatal)
{
    listen("go", "a", [] {
        fail(failure("mosquitto_loop_write", MOSQ_ERR_CONN_LOST));
        publish_x();
    });
    publish("go", "");
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(take_log(), lines({"broker: couldn't carry out write operations (The connection was lost.)"}));
}

TEST_F(session, wait_that_ends_without_an_event_goes_on_and_a_failing_one_is_fatal)
{
    fail(failure("epoll_wait", 0).returning(0));
    advance(500ms);
    EXPECT_TRUE(is_running());
    EXPECT_EQ(take_log(), lines({"event: epoll_wait unexpectedly timed out"}));
    fail(failure("epoll_wait", EBADF));
    advance(500ms);
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(take_log()[0], "event: error while polling events (errno 9)");
}

TEST_F(session, interrupted_input_and_output_go_on)
{
    fail(failure("mosquitto_loop_read", MOSQ_ERR_ERRNO).leaving(EINTR));
    fail(failure("mosquitto_loop_write", MOSQ_ERR_ERRNO).leaving(EINTR).times(3));
    listen("go", "a", [] { publish_x(); });
    publish("go", "");
    advance(500ms);
    EXPECT_EQ(take_published(), X);
}

TEST_F(session, failing_input_is_fatal)
{
    fail(failure("mosquitto_loop_read", MOSQ_ERR_ERRNO).leaving(ECONNRESET));
    publish_x();
    run();
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(take_log(), lines({"broker: couldn't carry out read operations (Connection reset by peer)"}));
}

class watched : public session, public testing::WithParamInterface<bool>
{
};

TEST_P(watched, descriptor_with_another_event_is_fatal)
{
    inject_events(GetParam() ? descriptor_of("mqtt") : find_timer(500ms, 500ms), EPOLLIN | EPOLLERR);
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(find_timer(500ms, 500ms) == -1, !GetParam());
    EXPECT_EQ(take_log(), lines({"broker: unexpected event(s) on file descriptor"}));
}

INSTANTIATE_TEST_SUITE_P(socket, watched, testing::Bool(), testing::PrintToStringParamName());

//
// A broker in trouble
//

TEST_F(session, pings_a_quiet_broker_and_stops_when_it_is_silent)
{
    advance(100s);
    EXPECT_EQ(take_requests(), lines(10, "PINGREQ"));
    broker().answers_ping = false;
    advance(20s);
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(
        take_log(),
        lines({"broker: unexpected disconnect from broker (code 19)",
               "broker: error while performing maintenance (The connection was lost.)",
               "broker: couldn't request mosquitto disconnect (The client is not currently connected.)"}));
}

TEST_F(session, goes_on_when_a_stalled_broker_reads_again)
{
    broker().reads = false;
    publish_x();
    advance(499ms);
    EXPECT_EQ(take_published(), messages());
    broker().reads = true;
    advance(1ms);
    EXPECT_EQ(take_published(), X);
    advance(10s);
    EXPECT_EQ(take_published(), messages());
}

TEST_F(session, sigterm_ends_a_stalled_session_within_a_second)
{
    broker().reads = false;
    publish_x();
    advance(1700ms);
    raise_signal(SIGTERM);
    advance(1s);
    EXPECT_TRUE(is_running());
    advance(20ms);
    EXPECT_EQ(exit_status(), 0);
    EXPECT_TRUE(is_library_in_use()) << "the client is kept";
    EXPECT_EQ(take_log(), lines({"broker: mosquitto client status change timed out",
                                 "broker: couldn't disconnect mosquitto instance"}));
}

} // namespace
