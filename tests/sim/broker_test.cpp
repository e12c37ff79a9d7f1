// The broker session: acknowledgements and retries, dispatch, a broker that stalls.
#include "broker.h"
#include "card.h"
#include "utils.h"

#include <algorithm>
#include <deque>

using namespace card;

namespace
{

class session : public started_node
{
public:
    // Hears everything that comes on the filter.
    void listen(
        const std::string &filter, const std::string &name, std::function<void()> action = [] {})
    {
        listeners_.push_back({this, name, std::move(action)});
        ASSERT_EQ(broker_subscribe(filter.c_str(), listener::hear, &listeners_.back()), 0);
    }
    // The same for a test that is not in a callback.
    void subscribe(
        const std::string &filter, const std::string &name, const std::function<void()> &action = [] {})
    {
        run_as_daemon([&] { listen(filter, name, action); });
    }

protected:
    lines take_heard() { return std::exchange(heard_, {}); }

private:
    struct listener {
        session *test;
        std::string name;
        std::function<void()> action;

        static void hear(const char *topic, const void *payload, int length, void *arg)
        {
            const auto *const me = static_cast<const listener *>(arg);
            std::string text = me->name + ": " + topic + "=";
            if (length > 0) {
                text.append(static_cast<const char *>(payload), static_cast<size_t>(length));
            }
            me->test->heard_.push_back(text);
            me->action();
        }
    };
    std::deque<listener> listeners_;
    lines heard_;
};

void ignore_message(const char *, const void *, int, void *) {}

const messages X = {{"t", "x"}};

void publish_x(unsigned times = 1)
{
    for (unsigned i = 0; i < times; i++) {
        EXPECT_EQ(broker_publish("t", "x", 1), 0);
    }
}

//
// Sending
//

TEST_F(session, publishes_each_way_once_when_it_is_acknowledged)
{
    run_as_daemon([] {
        EXPECT_EQ(broker_publish("a", "1", 1), 0);
        EXPECT_EQ(broker_publish("b", "2", 0), 0);
        EXPECT_EQ(broker_publish_unretained("c", "3", 1), 0);
        EXPECT_EQ(broker_unpublish("d"), 0);
        EXPECT_EQ(broker_subscribe("s", ignore_message, nullptr), 0);
        EXPECT_EQ(broker_unsubscribe("never subscribed"), 0);
    });
    advance(10s);
    EXPECT_EQ(take_published(), messages({{"a", "1"}, {"b", ""}, {"c", "3", false}, {"d", ""}}));
    const lines requests = take_requests();
    EXPECT_EQ(lines(requests.begin() + 4, requests.end()),
              lines({"SUBSCRIBE s", "UNSUBSCRIBE never subscribed"}));
}

TEST_F(session, gives_up_after_four_sendings_on_the_tick_grid)
{
    broker().conduct().ack_loss = 1;
    broker().conduct().answers_subscribe = false;
    advance(200ms);
    run_as_daemon([] {
        EXPECT_EQ(broker_publish_unretained("t", "x", 1), 0);
        EXPECT_EQ(broker_unpublish("u"), 0);
        EXPECT_EQ(broker_subscribe("s", ignore_message, nullptr), 0);
    });
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
    broker().conduct().ack_loss = 1;
    run_as_daemon([] { publish_x(); });
    advance(1s);
    EXPECT_EQ(take_published().size(), 2U); // the second after exactly 1 s
    const std::vector<int> ids = take_message_ids();
    broker().acknowledge(ids.at(0));
    advance(1s);
    EXPECT_EQ(take_published().size(), 1U);
    broker().acknowledge(take_message_ids().at(0));
    advance(10s);
    EXPECT_EQ(take_published().size(), 0U);
}

TEST_F(session, counts_sendings_that_the_library_holds_back)
{
    broker().conduct().ack_loss = 1;
    run_as_daemon([] { publish_x(21); });
    EXPECT_EQ(take_published().size(), 20U);
    advance(3999ms);
    EXPECT_EQ(take_published().size(), 0U);
    EXPECT_TRUE(is_running());
    advance(1ms);
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(take_log().size(), 1U);
}

TEST_F(session, what_a_callback_publishes_goes_out_at_once_and_once)
{
    subscribe("go", "a", [] { publish_x(950); });
    publish("go", "");
    EXPECT_EQ(take_published().size(), 950U);
    advance(10s);
    EXPECT_EQ(take_published().size(), 0U);
}

//
// Dispatch
//

TEST_F(session, newest_subscription_hears_first_and_none_is_merged)
{
    publish("a/b", "kept");
    subscribe("a/#", "old");
    subscribe("a/b", "new");
    subscribe("a/b", "newest");
    EXPECT_EQ(take_heard(), lines({"old: a/b=kept", "new: a/b=kept", "old: a/b=kept", "newest: a/b=kept",
                                   "new: a/b=kept", "old: a/b=kept"}));
    publish("a/b", "");
    publish("a/c", "1");
    publish("b", "1");
    publish("a", "1");
    EXPECT_EQ(take_heard(), lines({"newest: a/b=", "new: a/b=", "old: a/b=", "old: a/c=1", "old: a=1"}));
}

TEST_F(session, dispatch_survives_what_a_callback_changes)
{
    const lines all = {"new: a/b=", "middle: a/b=", "old: a/b="};
    const auto listen_later = [this] { listen("a/b", "later"); };
    const struct {
        std::function<void()> change; // made by the callback of the newest of new, middle and old
        lines heard;
        lines heard_next;
    } rows[] = {
        {[] { broker_unsubscribe("a/b"); }, {all[0], all[2]}, {all[2]}},
        {[] { broker_unsubscribe("a/#"); }, {all[0], all[1]}, {all[0], all[1]}},
        {[] {
             broker_unsubscribe("a/b");
             broker_unsubscribe("a/#");
         },
         {all[0]},
         {}},
        {listen_later, all, lines{"later: a/b="} + all},
        {[=] {
             broker_unsubscribe("a/b");
             listen_later();
         },
         {all[0], all[2]},
         {"later: a/b=", all[2]}},
        {terminate, {all[0]}, {}},
    };
    for (const auto &row : rows) {
        start_node();
        bool is_first = true;
        subscribe("a/#", "old");
        subscribe("a/b", "middle");
        subscribe("a/b", "new", [&] {
            if (std::exchange(is_first, false)) {
                row.change();
            }
        });
        publish("a/b", "");
        EXPECT_EQ(take_heard(), row.heard);
        publish("a/b", "");
        EXPECT_EQ(take_heard(), row.heard_next);
    }
}

TEST_F(session, message_after_a_request_to_end_reaches_nobody_but_the_newest)
{
    broker().conduct().ack_loss = 1;
    subscribe("a/#", "old");
    subscribe("a/b", "newest", terminate);
    run_as_daemon([] {
        publish_x(3); // which lets the library read several messages at once
        broker_publish("a/b", "1", 1);
        broker_publish("a/b", "2", 1);
    });
    EXPECT_EQ(take_heard(), lines({"newest: a/b=1", "newest: a/b=2"}));
    EXPECT_EQ(exit_status(), 1);
}

//
// A broker in trouble
//

TEST_F(session, other_granted_qos_than_1_is_fatal)
{
    broker().conduct().granted_qos = 0;
    subscribe("s", "");
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(take_log(), lines({"broker: granted QoS is wrong (0, should be 1)"}));
}

TEST_F(session, interrupted_input_and_output_go_on)
{
    subscribe("go", "a", [] { publish_x(); });
    for (const system_call interrupted : {system_call::LOOP_READ, system_call::LOOP_WRITE}) {
        fail(interrupted, EINTR);
        publish("go", "");
        advance(500ms);
        EXPECT_EQ(take_published(), X);
    }
}

TEST_F(session, goes_on_when_a_stalled_broker_reads_again)
{
    broker().conduct().reads = false;
    run_as_daemon([] { publish_x(); });
    advance(499ms);
    EXPECT_EQ(take_published(), messages());
    broker().conduct().reads = true;
    advance(1ms);
    EXPECT_EQ(take_published(), X);
    advance(10s);
    EXPECT_EQ(take_published(), messages());
}

TEST_F(session, failing_output_of_a_tick_is_fatal)
{
    broker().conduct().reads = false;
    run_as_daemon([] { publish_x(); });
    broker().conduct().reads = true;
    fail(system_call::LOOP_WRITE, ECONNRESET);
    advance(500ms);
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(take_log(), lines({"broker: unexpected disconnect from broker (code 14)",
                                 "broker: couldn't carry out write operations (Connection reset by peer)",
                                 "broker: couldn't request mosquitto disconnect (The client is not currently "
                                 "connected.)"}));
}

TEST_F(session, sigterm_ends_a_stalled_session_within_a_second)
{
    broker().conduct().reads = false;
    run_as_daemon([] { publish_x(); });
    advance(1700ms);
    daemon().send_sigterm();
    advance(1s);
    EXPECT_TRUE(is_running());
    advance(20ms);
    EXPECT_EQ(exit_status(), 0);
    EXPECT_EQ(take_log(), lines({"broker: mosquitto client status change timed out",
                                 "broker: couldn't disconnect mosquitto instance"}));
}

} // namespace
