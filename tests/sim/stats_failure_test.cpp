// Every step of the port statistics that can fail once the daemon runs: what is logged, and that the daemon
// stops.
#include "packet.h"
#include "packets.h"
#include "stats_node.h"

#include <mosquitto.h>
#include <sys/epoll.h>

#include <cerrno>

using namespace sim;

namespace
{

struct failing_step {
    std::string name;
    std::function<void()> arrange; // port B is up since ten o'clock
    failure what;
    std::function<void(stats_node &)> act;
    lines log;                  // behind the line of the broker module
    const char *from = nullptr; // the function at whose next call failures begin, null: at once
};

void PrintTo(const failing_step &step, std::ostream *stream)
{
    *stream << step.name;
}

failure refused(const std::string &topic, unsigned nth = 1)
{
    return failure("mosquitto_publish", MOSQ_ERR_NOMEM, topic).from(nth);
}

const failure NONE("nothing", 0);
const failure NO_CLOCK("clock_gettime", EIO);
const failure NO_SECOND_CLOCK = failure("clock_gettime", EIO).from(2);

const auto NOTHING = [] {};
const auto LINK_DOWN = [] { link_down(1); };
const auto RING_PORT_DOWN = [] { erps(1); };
const auto BOTH_DOWN = [] {
    link_down(1);
    erps(1);
};
const auto TRACK = [](stats_node &) { track("fire", "C"); };
const auto UNTRACK = [](stats_node &) { untrack(); };
const auto RESET_ALL = [](stats_node &) { receive_datagram(packet_bytes(PACKET_RESET_ALL_STATS, "")); };
const auto STATS = [](stats_node &) { stats(); };
const auto TICK = [](stats_node &node) { node.tick(); };
const auto DAY = [](stats_node &node) { node.ticks(96); };

const lines STATUS = {"stats: couldn't update port B's status"};
const lines RED = lines{"summary.c: couldn't publish {\"B\":\"red\"} to " + PORT_SUMMARY,
                        "summary.c: couldn't publish local port summary"} +
                  STATUS + STATUS;
const lines NO_COLOUR = {"summary.c: couldn't publish {} to " + PORT_SUMMARY,
                         "summary.c: couldn't publish local port summary"};
const lines LINK_LIST = {"summary.c: couldn't publish port list to pub/diag/net/fire/link_down"};
const lines GROUND_LIST = {"summary.c: couldn't publish port list to pub/diag/net/fire/grnd_list"};
const lines RINGS = {"summary.c: couldn't publish global style 7 status"};
const lines MEDIA = {"stats: couldn't udpate port media in summary"};
const lines UNPUBLISHING = {"stats: couldn't unpublish data for port B"};
const lines CLEARING = {"stats: couldn't clear port status for port B"};
const lines CLOCK = {"stats: couldn't get current time (errno 5)"};
const lines LINK_TIME = CLOCK + lines{"stats: couldn't update port B's link down time"};
const lines ERPS_TIME = CLOCK + lines{"stats: couldn't update port B's ERPS down time"};
const lines PM = {"stats: couldn't update PM data"};
const lines PERIOD = lines{"stats: couldn't publish port B's current PM period"} + PM;
const lines LAST_OF_DAY =
    lines{"stats: couldn't publish port B's daily PM", "stats: couldn't update port B's daily PM"} + PM;

std::vector<failing_step> registry_steps()
{
    std::vector<failing_step> steps = {
        {"memory", NOTHING, {"new", 0}, TRACK, {"stats: couldn't allocate port structure"}},
        {"new_type", [] { untrack(); }, refused("local/diag/network_style7"), TRACK,
         lines{"summary.c: couldn't publish 0x01 to local/diag/network_style7"} + RINGS +
             lines{"stats: couldn't update port C's type"}},
        {"stats_topic", NOTHING, refused(published_topic("stats")), UNTRACK,
         lines{"stats: couldn't unpublish topic " + published_topic("stats")} + UNPUBLISHING},
        {"old_status", NOTHING, refused(PORT_SUMMARY), UNTRACK, NO_COLOUR + STATUS + UNPUBLISHING},
        {"old_link", LINK_DOWN, refused("pub/diag/net/fire/link_down"), UNTRACK, LINK_LIST + CLEARING},
        {"old_ground", [] { ground(1); }, refused("pub/diag/net/fire/grnd_list"), UNTRACK,
         GROUND_LIST + CLEARING},
        {"old_status_again", NOTHING, refused(PORT_SUMMARY, 2), UNTRACK, NO_COLOUR + CLEARING},
        {"old_media", NOTHING, refused(PORT_MEDIA), UNTRACK,
         lines{"summary.c: couldn't publish {} to " + PORT_MEDIA,
               "summary.c: couldn't publish local port media"} +
             CLEARING},
        {"old_type", NOTHING, refused("local/diag/network_style7"), UNTRACK,
         lines{"summary.c: couldn't publish 0x00 to local/diag/network_style7"} + RINGS + CLEARING},
    };
    for (const std::string name : {"media", "link_down", "grnd", "stats", "status"}) {
        const std::string new_topic = local_topic(name, "C");
        steps.push_back({"subscribe_" + name,
                         NOTHING,
                         {"mosquitto_subscribe", MOSQ_ERR_NOMEM, new_topic},
                         TRACK,
                         {"stats: couldn't subscribe to topic " + new_topic,
                          "stats: couldn't subscribe to port C's topics"}});
        const std::string old_topic = local_topic(name);
        steps.push_back({"unsubscribe_" + name,
                         NOTHING,
                         {"mosquitto_unsubscribe", MOSQ_ERR_NOMEM, old_topic},
                         UNTRACK,
                         {std::string("stats: couldn't unsubscribe ") + (name == "status" ? "to" : "from") +
                              " topic " + old_topic,
                          "stats: couldn't unsubscribe from port B's topics"}});
    }
    for (const std::string name : {"last_period", "period0", "period95", "last_day", "day6"}) {
        const std::string topic = published_topic("pm/" + name);
        steps.push_back(
            {"clear_" + name, NOTHING, refused(topic), UNTRACK,
             lines{"stats: couldn't unpublish topic " + topic, "stats: couldn't unpublish port B's PM data"} +
                 UNPUBLISHING});
    }
    return steps;
}

const std::vector<failing_step> FACT_STEPS = {
    {"link_clock", NOTHING, NO_CLOCK, [](stats_node &) { link_down(1); }, CLOCK},
    {"link_down_time", LINK_DOWN, NO_SECOND_CLOCK, [](stats_node &) { link_down(0); }, LINK_TIME},
    {"reset_of_all", NOTHING, refused(published_topic("stats")), RESET_ALL,
     lines{"stats: couldn't publish port statistics to " + published_topic("stats"),
           "stats: couldn't publish statistics of port B", "stats: couldn't reset statistics of port B",
           "remote: couldn't process reset-all-stats request", "remote: couldn't process new packet",
           "remote: couldn't send packet (errno 9)", "remote: couldn't send goodbye message"}},
    {"link_list", NOTHING, refused("pub/diag/net/fire/link_down"), [](stats_node &) { link_down(1); },
     LINK_LIST + lines{"stats: couldn't update link status in summary"}},
    {"link_status", NOTHING, refused(PORT_SUMMARY), [](stats_node &) { link_down(1); }, RED},
    {"erps_clock", NOTHING, NO_CLOCK, [](stats_node &) { erps(1); }, CLOCK},
    {"erps_down_time", RING_PORT_DOWN, NO_SECOND_CLOCK, [](stats_node &) { erps(0); }, ERPS_TIME},
    {"ground_list", NOTHING, refused("pub/diag/net/fire/grnd_list"), [](stats_node &) { ground(1); },
     GROUND_LIST + lines{"stats: couldn't update ground fault status in summary"}},
    {"media_text", NOTHING, refused(PORT_MEDIA), [](stats_node &) { media(0); },
     lines{"summary.c: couldn't publish {\"B\":\"eth\"} to " + PORT_MEDIA,
           "summary.c: couldn't publish local port media"} +
         MEDIA},
    {"media_code_5", NOTHING, NONE, [](stats_node &) { media(5); },
     lines{"summary.c: invalid media type 5"} + MEDIA},
    {"media_code_255", NOTHING, NONE, [](stats_node &) { media(255); },
     lines{"summary.c: invalid media type 255"} + MEDIA},
    {"stats_link_time", BOTH_DOWN, NO_CLOCK, STATS, LINK_TIME},
    {"stats_erps_time", BOTH_DOWN, NO_SECOND_CLOCK, STATS, ERPS_TIME},
    {"stats_status", RING_PORT_DOWN, refused(PORT_SUMMARY), STATS, RED},
    {"stats_record",
     NOTHING,
     refused(published_topic("stats")),
     STATS,
     {"stats: couldn't publish port statistics to " + published_topic("stats"),
      "stats: couldn't publish statistics of port B"}},
};

const std::vector<failing_step> TICK_STEPS = {
    {"event",
     NOTHING,
     NONE,
     [](stats_node &node) { inject_events(node.pm_timer, EPOLLERR); },
     {"stats: unexpected event(s) on file descriptor"}},
    {"count",
     NOTHING,
     {"read", EIO},
     [](stats_node &node) { inject_events(node.pm_timer, EPOLLIN); },
     {"stats: couldn't clear PM timer (errno 5)"}},
    {"time", NOTHING, {"time", EIO}, TICK, {"stats: couldn't get current broken-down time"}},
    {"broken_down_time", NOTHING, {"gmtime", EIO}, TICK, {"stats: couldn't get current broken-down time"}},
    {"link_time", BOTH_DOWN, NO_CLOCK, TICK, LINK_TIME + PM, "gmtime"},
    {"erps_time", BOTH_DOWN, NO_SECOND_CLOCK, TICK, ERPS_TIME + PM, "gmtime"},
    {"period", NOTHING, refused(published_topic("pm/period0")), TICK,
     lines{"stats: couldn't publish PM period to topic " + published_topic("pm/period0")} + PERIOD},
    {"last_period", NOTHING, refused(published_topic("pm/last_period")), TICK,
     lines{"stats: couldn't publish period0 to " + published_topic("pm/last_period")} + PERIOD},
    {"day", NOTHING, refused(published_topic("pm/day0")), DAY,
     lines{"stats: couldn't publish daily PM to topic " + published_topic("pm/day0")} + LAST_OF_DAY},
    {"last_day", NOTHING, refused(published_topic("pm/last_day")), DAY,
     lines{"stats: couldn't publish day0 to " + published_topic("pm/last_day")} + LAST_OF_DAY},
    {"status", RING_PORT_DOWN, refused(PORT_SUMMARY), TICK, RED},
    {"timer",
     NOTHING,
     {"timerfd_settime", EINVAL},
     TICK,
     {"stats: couldn't arm PM timer (errno 22)"},
     "gmtime"},
};

class port_step : public stats_node, public testing::WithParamInterface<failing_step>
{
};

TEST_P(port_step, failure_is_logged_and_ends_the_daemon)
{
    const failing_step &step = GetParam();
    tick_at(TEN_O_CLOCK);
    bring_up();
    step.arrange();
    if (step.from == nullptr) {
        fail(step.what);
    } else {
        before(step.from, "", [&] { fail(step.what); });
    }
    step.act(*this);

    lines log = step.log;
    const std::pair<const char *, const char *> refusals[] = {{"mosquitto_publish", "publish message on"},
                                                              {"mosquitto_subscribe", "subscribe to"},
                                                              {"mosquitto_unsubscribe", "unsubscribe from"}};
    for (const auto &[call, text] : refusals) {
        if (step.what.call == call) {
            log.insert(log.begin(), std::string("broker: couldn't ") + text + " topic " + step.what.detail +
                                        " (Out of memory.)");
        }
    }
    EXPECT_EQ(take_log(), log);
    EXPECT_EQ(exit_status(), 1);
}

const auto STEP_NAME = [](const auto &row) { return row.param.name; };
INSTANTIATE_TEST_SUITE_P(of_type, port_step, testing::ValuesIn(registry_steps()), STEP_NAME);
INSTANTIATE_TEST_SUITE_P(of_fact, port_step, testing::ValuesIn(FACT_STEPS), STEP_NAME);
INSTANTIATE_TEST_SUITE_P(of_tick, port_step, testing::ValuesIn(TICK_STEPS), STEP_NAME);

} // namespace
