// Start-up and shutdown of the daemon.
#include "platform.h"

#include <mosquitto.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <limits>

using namespace sim;

namespace
{

const datagram GOODBYE = {"224.22.33.44", bytes("01 0C 00 1A 2B 3C 4D 5E 00 00")};
const std::string OWN_TOPIC = "pub/diag/" + LOCAL_MAC_TEXT;
const std::string CARD_TOPIC = OWN_TOPIC + "/card_addr";

// What the shutdown logs when the start-up has come no further than that.
const lines CONNECTED = {"remote: couldn't send packet (errno 9)", "remote: couldn't send goodbye message"};
const lines UNCONNECTED =
    CONNECTED + lines{"broker: couldn't request mosquitto disconnect (Invalid function arguments provided.)"};
const lines WITHOUT_SESSION =
    CONNECTED +
    lines{"broker: couldn't request mosquitto disconnect (The client is not currently connected.)"};
const lines ON_THE_NETWORK = {};

const std::string VERSIONS_TEXT = "eos image :1.2.3\n" + std::string(34, ' ') + ";eboot     :7.8.9\"\n" +
                                  std::string(28, ' ') + "7.8.9;priapp    :4.5.6\n" + std::string(34, ' ') +
                                  ";";

class main_program : public node
{
};

TEST_F(main_program, takes_its_steps_in_order)
{
    retain("local/diag/port/A/status", "too short"); // a message that waits while modules are initialised
    start_daemon({"-n", "7"});
    ASSERT_TRUE(is_running());
    EXPECT_EQ(take_log(),
              lines({"summary.c: published ERPS port status data has wrong length (9, should be 92)"}));
    EXPECT_EQ(client_settings(), "id=diag clean=1 host=127.0.0.1 port=1885 keepalive=10 nodelay=1");
    lines steps = {"CONNECT",
                   "PUBLISH pub/diag/local_node",
                   "PUBLISH " + CARD_TOPIC,
                   "SUBSCRIBE local/diag/port/+/type",
                   "SUBSCRIBE local/diag/node/+/fire_ip",
                   "SUBSCRIBE " + OWN_TOPIC + "/#",
                   "PUBLISH " + OWN_TOPIC + "/software_versions",
                   "PUBLISH pub/diag/net/fire/link_down",
                   "PUBLISH pub/diag/net/fire/grnd_list",
                   "PUBLISH pub/diag/net/fire/miswired",
                   "SUBSCRIBE local/diag/port/+/status",
                   "SUBSCRIBE local/diag/ring/+/status"};
    for (const char *name : {"job_rev", "job_name", "download_status", "CF_free_space", "M301", "M702",
                             "comm_loss", "download_pending", "repeater"}) {
        steps.push_back("SUBSCRIBE " + OWN_TOPIC + "/" + name);
    }
    steps.push_back("PUBLISH pub/diag/command/aut/tbl_idx");
    steps.push_back("SUBSCRIBE pub/diag/command/request");
    EXPECT_EQ(take_requests(), steps);
    EXPECT_EQ(retained().at("pub/diag/local_node"), LOCAL_MAC_TEXT);
    EXPECT_EQ(retained().at(CARD_TOPIC), "5");
    EXPECT_EQ(socket_settings(), lines({"SO_PRIORITY 4", "IP_ADD_MEMBERSHIP 224.22.33.44 0.0.0.0 3",
                                        "IP_MULTICAST_IF 224.22.33.44 0.0.0.0 3", "IP_MULTICAST_LOOP 0",
                                        "bind 0.0.0.0:50004", "SO_RCVBUF 4194304"}));
    struct sigaction action = {};
    ASSERT_EQ(sigaction(SIGPIPE, nullptr, &action), 0);
    EXPECT_EQ(action.sa_handler, SIG_IGN) << "writing to a broker that has gone must not end the process";
    raise_signal(SIGTERM);
    EXPECT_EQ(exit_status(), 0);
    EXPECT_EQ(take_datagrams(), std::vector<datagram>({GOODBYE}));
    EXPECT_EQ(take_requests(), lines({"DISCONNECT"}));
    EXPECT_FALSE(is_library_in_use());
}

TEST_F(main_program, waits_for_the_fire_network_and_the_broker_without_limit)
{
    interfaces().at("fire") = false;
    broker().refused_connections = 60;
    start_daemon({"-n", "7"});
    advance(10min);
    EXPECT_EQ(take_requests(), lines());
    fail(failure("socket", EMFILE).times(3));
    fail(failure("clock_gettime", EINVAL));
    advance(10min);
    interfaces().at("fire") = true;
    advance(2990ms);
    EXPECT_EQ(take_requests(), lines());
    advance(60ms); // up to one poll of the interface before 60 tries of 50 ms
    EXPECT_EQ(take_requests().at(0), "CONNECT");
}

TEST_F(main_program, sigterm_ends_the_wait_for_the_fire_network)
{
    interfaces().erase("fire");
    start_daemon({});
    advance(10s);
    raise_signal(SIGTERM);
    EXPECT_EQ(exit_status(), 0);
    EXPECT_EQ(take_log(), UNCONNECTED);
}

TEST_F(main_program, sigterm_while_the_broker_refuses_ends_at_once)
{
    broker().refused_connections = 1'000'000;
    start_daemon({});
    advance(10s);
    raise_signal(SIGTERM);
    EXPECT_EQ(exit_status(), 0);
    EXPECT_EQ(take_log(),
              lines({"broker: couldn't publish message on topic pub/diag/local_node (The client is "
                     "not currently connected.)",
                     "main: couldn't publish " + LOCAL_MAC_TEXT + " to pub/diag/local_node",
                     "main: couldn't publish local node information"}) +
                  WITHOUT_SESSION);
}

TEST_F(main_program, sigterm_while_the_broker_is_silent_ends_at_once)
{
    broker().answers_connect = false;
    start_daemon({});
    advance(2s);
    raise_signal(SIGTERM);
    EXPECT_EQ(exit_status(), 0);
    EXPECT_EQ(take_requests().back(), "DISCONNECT");
}

TEST_F(main_program, gives_up_a_silent_broker_after_5_s)
{
    broker().answers_connect = false;
    start_daemon({});
    advance(5s);
    EXPECT_TRUE(is_running());
    advance(50ms);
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(take_log(),
              lines({"broker: mosquitto client status change timed out",
                     "broker: couldn't connect mosquitto instance", "main: couldn't connect to the broker"}) +
                  UNCONNECTED);
}

TEST_F(main_program, ends_when_the_broker_refuses_the_session)
{
    broker().connack_code = 5;
    start_daemon({});
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(take_log(),
              lines({"broker: broker connection refused (code 5)",
                     "broker: unexpected disconnect from broker (code 5)",
                     "broker: error while running the mosquitto loop (The connection was refused.)",
                     "broker: couldn't connect mosquitto instance", "main: couldn't connect to the broker"}) +
                  UNCONNECTED);
}

TEST_F(main_program, loses_its_broker_with_exit_status_1)
{
    start_node(7);
    close_connection();
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(take_datagrams(), std::vector<datagram>({GOODBYE}));
    EXPECT_EQ(
        take_log(),
        lines({"broker: unexpected disconnect from broker (code 7)",
               "broker: couldn't carry out read operations (The connection was lost.)",
               "broker: couldn't request mosquitto disconnect (The client is not currently connected.)"}));
}

class first_send_delay : public main_program, public testing::WithParamInterface<int>
{
};

// The client library draws from the same generator and seeds it anew: two of the three would differ.
TEST_P(first_send_delay, follows_from_the_node_number)
{
    unsigned number = 1;
    for (;; number++) {
        srand(number);
        if (rand() % 3 + 1 == GetParam()) {
            break;
        }
    }
    start_node(static_cast<int>(number));
    advance(std::chrono::seconds(GetParam()) - 1ms);
    EXPECT_EQ(take_datagrams().size(), 0U);
    advance(1ms);
    EXPECT_EQ(take_datagrams().size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(of, first_send_delay, testing::Values(1, 2, 3), testing::PrintToStringParamName());

//
// Options
//

struct options_case {
    const char *name;
    std::vector<std::string> options;
    int number; // -1: refused
    lines log;
};

class main_options : public main_program, public testing::WithParamInterface<options_case>
{
};

TEST_P(main_options, give_the_node_number)
{
    const options_case &row = GetParam();
    start_daemon(row.options);
    EXPECT_EQ(take_log(), row.log + (row.number == -1 ? UNCONNECTED : ON_THE_NETWORK));
    if (row.number == -1) {
        EXPECT_EQ(exit_status(), 1);
        return;
    }
    advance(3s);
    EXPECT_EQ(static_cast<uint8_t>(take_datagrams().at(0).bytes.at(13)), row.number);
}

const lines UNKNOWN = {"main: unknown option -?"};
const std::string TOO_LONG = std::to_string(std::numeric_limits<long>::max());
const std::vector<options_case> OPTIONS = {
    {"none", {}, 0, {}},
    {"decimal", {"-n", "255"}, 255, {}},
    {"hexadecimal", {"-n", "0x10"}, 16, {}},
    {"octal", {"-n010"}, 8, {}},
    {"last_one_counts", {"-n", "3", "-n", "4"}, 4, {}},
    {"unknown", {"-x", "-n", "3"}, 3, UNKNOWN},
    {"argument_missing", {"-n"}, 0, UNKNOWN},
    {"zero", {"-n", "0"}, -1, {"main: invalid node number (0)"}},
    {"too_large", {"-n", "256"}, -1, {"main: invalid node number (256)"}},
    {"negative", {"-n", "-1"}, -1, {"main: invalid node number (-1)"}},
    {"trailing_text", {"-n", "5x"}, -1, {"main: invalid node number (5)"}},
    {"empty", {"-n", ""}, -1, {"main: invalid node number (0)"}},
    {"out_of_range", {"-n", TOO_LONG + "0"}, -1, {"main: invalid node number (" + TOO_LONG + ")"}},
};
INSTANTIATE_TEST_SUITE_P(table, main_options, testing::ValuesIn(OPTIONS),
                         [](const auto &row) { return std::string(row.param.name); });

//
// A failure of each step
//

// A part of the start-up whose failing steps end alike.
struct stage {
    const char *name;
    // The call, about this topic, with which it begins; null where it has the first call that can fail so.
    const char *begins_with;
    std::string topic;
    lines log; // behind the step's own messages
    lines shutdown;
};

const lines NO_BROKER = {"main: couldn't connect to the broker"};
const lines NO_REMOTE = {"main: couldn't initialize fire communications module"};
const lines NO_SUMMARY = {"main: couldn't initialize node summary module"};
const std::string TYPE_FILTER = "local/diag/port/+/type";

const stage ALONE = {"alone", nullptr, "", {}, UNCONNECTED};
const stage BROKER = {"broker", nullptr, "", NO_BROKER, UNCONNECTED};
const stage SESSION = {"session", "mosquitto_connect", "",
                       lines{"broker: couldn't connect mosquitto instance"} + NO_BROKER, UNCONNECTED};
// The session stands: start-up goes on and finds the request to terminate in its event loop.
const stage EVENTS = {
    "events", "mosquitto_loop", "", {"broker: couldn't add mosquitto events to event loop"}, ON_THE_NETWORK};
const stage LOCAL_NODE = {
    "local_node", nullptr, "", {"main: couldn't publish local node information"}, CONNECTED};
const stage CARD_ADDRESS = {"card_address",
                            "mosquitto_publish",
                            "pub/diag/local_node",
                            {"main: couldn't publish card address"},
                            CONNECTED};
const stage STATS = {"stats",
                     "mosquitto_publish",
                     CARD_TOPIC,
                     {"main: couldn't initialize port statistics module"},
                     CONNECTED};
const stage REMOTE = {"remote", "mosquitto_subscribe", TYPE_FILTER, NO_REMOTE, CONNECTED};
const stage SOCKET = {"socket", nullptr, "", lines{"remote: couldn't open socket"} + NO_REMOTE, CONNECTED};
const stage SUMMARY = {"summary", "mosquitto_subscribe", OWN_TOPIC + "/#", NO_SUMMARY, ON_THE_NETWORK};
const stage VERSIONS = {"versions", nullptr, "",
                        lines{"summary.c: couldn't get software versions"} + NO_SUMMARY, ON_THE_NETWORK};
const stage LISTS = {"lists", nullptr, "",
                     lines{"summary.c: couldn't publish empty lists to port topics"} + NO_SUMMARY,
                     ON_THE_NETWORK};
const stage TOPICS = {"topics", nullptr, "",
                      lines{"summary.c: couldn't add MQTT-based summary events"} + NO_SUMMARY,
                      ON_THE_NETWORK};
const stage TIMERS = {"timers", "mosquitto_subscribe", OWN_TOPIC + "/repeater",
                      lines{"summary.c: couldn't add timer-based summary events"} + NO_SUMMARY,
                      ON_THE_NETWORK};

const std::string CHALLENGE_TOPIC = "pub/diag/command/aut/tbl_idx";
const std::string REQUEST_TOPIC = "pub/diag/command/request";
// The first challenge of node 7: its draws follow that of the first summary's delay.
const std::string CHALLENGE = [] {
    srand(7);
    rand();
    std::string text = "1;";
    for (int count = rand() % 9 + 2; count > 0; count--) {
        text += std::to_string(rand() % 127) + (count > 1 ? " " : "");
    }
    return text;
}();
const stage AUTH = {
    "auth",
    nullptr,
    "",
    {"auth: couldn't set initial secret indices", "main: couldn't initialize authentication module"},
    ON_THE_NETWORK};
const stage COMMAND = {"command",
                       "mosquitto_publish",
                       CHALLENGE_TOPIC,
                       {"main: couldn't initialize command module"},
                       ON_THE_NETWORK};

struct failure_case {
    const stage &at;
    failure what;
    lines log;
};

failure_case in(const stage &at, const failure &what, const lines &log)
{
    return {at, what, log};
}

failure_case refused(const stage &at, const char *call, const std::string &topic, const lines &log)
{
    const std::string verb = call == std::string("mosquitto_publish") ? "publish message on" : "subscribe to";
    return {at, failure(call, MOSQ_ERR_NOMEM, topic),
            lines{"broker: couldn't " + verb + " topic " + topic + " (Out of memory.)"} + log};
}

failure_case refused_topic(const char *message, const std::string &filter)
{
    return refused(TOPICS, "mosquitto_subscribe", filter, {message + filter});
}

failure_case refused_list(const std::string &topic)
{
    return refused(LISTS, "mosquitto_publish", topic,
                   {"summary.c: couldn't publish empty port list to " + topic});
}

failure_case refused_event(const stage &at, const char *kind, unsigned nth, const lines &log)
{
    return {at, failure("EPOLL_CTL_ADD", ENOSPC, kind).from(nth),
            lines{"event: couldn't add new event (errno 28)"} + log};
}

const lines NOT_WATCHED = {"event: no event registered for file descriptor "};

class main_step : public main_program, public testing::WithParamInterface<failure_case>
{
};

TEST_P(main_step, that_fails_is_logged_and_ends_the_start_up)
{
    const failure_case &row = GetParam();
    lines open_before; // the failing step
    const auto arm = [&] {
        fail(row.what);
        open_before = open_descriptors();
    };
    if (row.at.begins_with == nullptr) {
        arm();
    } else {
        before(row.at.begins_with, row.at.topic, arm);
    }
    bool is_socket_forgotten = false;
    before("EPOLL_CTL_DEL", "mqtt", [&] { is_socket_forgotten = true; });
    start_daemon({"-n", "7"});

    lines log = take_log();
    for (std::string &line : log) {
        if (line.starts_with(NOT_WATCHED[0])) {
            line = NOT_WATCHED[0]; // whatever the descriptor's number
        }
    }
    EXPECT_EQ(log, row.log + row.at.log + row.at.shutdown);
    EXPECT_EQ(exit_status(), 1);
    const bool is_on_the_network = row.at.shutdown == ON_THE_NETWORK;
    EXPECT_EQ(take_datagrams(),
              is_on_the_network ? std::vector<datagram>({GOODBYE}) : std::vector<datagram>());
    EXPECT_FALSE(is_library_in_use());
    EXPECT_EQ(std::ranges::count(take_requests(), "DISCONNECT"), row.at.shutdown == UNCONNECTED ? 0 : 1);
    if (&row.at == &STATS || &row.at == &TIMERS || &row.at == &COMMAND) {
        std::erase(open_before, "mqtt");
        EXPECT_EQ(open_descriptors(), open_before) << "what the failing module opens it closes";
    }
    EXPECT_EQ(std::ranges::count(open_descriptors(), "socket"), is_on_the_network ? 1 : 0);
    EXPECT_EQ(is_socket_forgotten, &row.at == &EVENTS && row.what.call != "mosquitto_socket" &&
                                       row.what.call != "new" && row.what.detail != "mqtt");
}

const failure NO_MAC("ioctl", ENODEV, "eth0");
const lines NO_MAC_LOG = {"hwinfo/hwinfo.c: couldn't get MAC address (errno 19)"};
const std::string CARD_FILE = CARD_ADDRESS_FILE;

const std::vector<failure_case> FAILURES = {
    in(ALONE, failure("sigaction", EINVAL), {"main: couldn't set SIGTERM handler (errno 22)"}),
    in(ALONE, failure("epoll_create1", EMFILE),
       {"event: couldn't create epoll instance (errno 24)", "main: couldn't initialize event loop"}),
    in(BROKER, failure("mosquitto_new", ENOMEM), {"broker: couldn't create mosquitto instance (errno 12)"}),
    in(BROKER, failure("mosquitto_connect", MOSQ_ERR_EAI),
       {"broker: couldn't request mosquitto connection (Lookup error.)"}),
    in(BROKER, failure("mosquitto_connect", MOSQ_ERR_ERRNO).leaving(ENETUNREACH),
       {"broker: couldn't request mosquitto connection (Network is unreachable)"}),
    in(SESSION, failure("clock_gettime", EINVAL), {"broker: couldn't get time (errno 22)"}),
    in(SESSION, failure("clock_gettime", EINVAL).from(2), {"broker: couldn't get time (errno 22)"}),
    in(SESSION, failure("mosquitto_loop", MOSQ_ERR_CONN_LOST),
       {"broker: error while running the mosquitto loop (The connection was lost.)"}),
    in(EVENTS, failure("mosquitto_socket", 0), {"broker: couldn't get mosquitto socket file descriptor"}),
    in(EVENTS, failure("new", 0),
       {"event: couldn't allocate new event", "broker: couldn't add mosquitto socket handling events"}),
    refused_event(EVENTS, "mqtt", 1, {"broker: couldn't add mosquitto socket handling events"}),
    in(EVENTS, failure("timerfd_create", ENFILE), {"broker: couldn't create maintenance timer (errno 23)"}),
    in(EVENTS, failure("timerfd_settime", EINVAL), {"broker: couldn't arm maintenance timer (errno 22)"}),
    refused_event(EVENTS, "timer", 1, {"broker: couldn't add mosquitto maintenance event"}),
    in(LOCAL_NODE, NO_MAC, NO_MAC_LOG + lines{"main: couldn't get local MAC address"}),
    refused(LOCAL_NODE, "mosquitto_publish", "pub/diag/local_node",
            {"main: couldn't publish " + LOCAL_MAC_TEXT + " to pub/diag/local_node"}),
    in(CARD_ADDRESS, NO_MAC, NO_MAC_LOG + lines{"main: couldn't get local MAC address"}),
    in(CARD_ADDRESS, failure("open", ENOENT, CARD_FILE),
       {"common/fileutils.c: couldn't open file " + CARD_FILE + " for reading",
        "hwinfo/hwinfo.c: error reading card address (path " + CARD_FILE + ")",
        "main: couldn't get local card address"}),
    refused(CARD_ADDRESS, "mosquitto_publish", CARD_TOPIC, {"main: couldn't publish 5 to " + CARD_TOPIC}),
    in(STATS, NO_MAC, NO_MAC_LOG + lines{"stats: couldn't get local MAC address"}),
    in(STATS, failure("new", 0), {"stats: couldn't duplicate local MAC address string"}),
    refused(STATS, "mosquitto_subscribe", TYPE_FILTER, {"stats: couldn't subscribe to topic " + TYPE_FILTER}),
    in(STATS, failure("timerfd_create", ENFILE), {"stats: couldn't create PM timer (errno 23)"}),
    in(STATS, failure("timerfd_settime", EINVAL),
       lines{"stats: couldn't arm PM timer (errno 22)"} + NOT_WATCHED),
    refused_event(STATS, "timer", 1, lines{"stats: couldn't add PM timer event"} + NOT_WATCHED),
    in(REMOTE, NO_MAC, NO_MAC_LOG + lines{"remote: couldn't get local MAC address"}),
    in(SOCKET, failure("socket", EMFILE, "udp"), {"remote: couldn't create new socket (errno 24)"}),
    in(SOCKET, failure("if_nametoindex", ENODEV),
       {"remote: couldn't get index of interface fire (errno 19)"}),
    in(SOCKET, failure("setsockopt", ENOMEM, "SO_PRIORITY"),
       {"remote: couldn't set socket priority (errno 12)"}),
    in(SOCKET, failure("setsockopt", ENOMEM, "IP_ADD_MEMBERSHIP"),
       {"remote: couldn't join multicast group (errno 12)"}),
    in(SOCKET, failure("setsockopt", ENOMEM, "IP_MULTICAST_IF"),
       {"remote: couldn't set multicast interface (errno 12)"}),
    in(SOCKET, failure("setsockopt", ENOMEM, "IP_MULTICAST_LOOP"),
       {"remote: couldn't disable multicast looping (errno 12)"}),
    in(SOCKET, failure("bind", EADDRINUSE), {"remote: couldn't bind socket (errno 98)"}),
    refused_event(REMOTE, "socket", 1, lines{"remote: couldn't add socket receive event"} + NOT_WATCHED),
    refused(REMOTE, "mosquitto_subscribe", "local/diag/node/+/fire_ip",
            {"remote: couldn't subscribe to local/diag/node/+/fire_ip"}),
    refused(REMOTE, "mosquitto_subscribe", OWN_TOPIC + "/#",
            {"remote: couldn't subscribe to " + OWN_TOPIC + "/#"}),
    in(SUMMARY, failure("new", 0), {"summary.c: couldn't allocate local summary structure"}),
    in(SUMMARY, NO_MAC, NO_MAC_LOG + lines{"summary.c: couldn't get local MAC address"}),
    refused(SUMMARY, "mosquitto_publish", OWN_TOPIC + "/software_versions",
            {"summary.c: couldn't publish " + VERSIONS_TEXT + " to " + OWN_TOPIC + "/software_versions",
             "summary.c: couldn't publish software versions"}),
    in(VERSIONS, failure("open", ENOENT, "/proc/cmdline"), {"utils: couldn't open file /proc/cmdline"}),
    in(VERSIONS, failure("open", ENOENT, "/REVISION"), {"utils: couldn't open file /REVISION"}),
    in(VERSIONS, failure("read", EIO, "/REVISION_PRIAPP"),
       {"utils: couldn't read from file /REVISION_PRIAPP"}),
    refused_list("pub/diag/net/fire/link_down"),
    refused_list("pub/diag/net/fire/grnd_list"),
    refused_list("pub/diag/net/fire/miswired"),
    refused_topic("summary.c: couldn't subscribe to topic ", "local/diag/port/+/status"),
    refused_topic("summary.c: couldn't subsribe to topic ", "local/diag/ring/+/status"),
    refused_topic("summary.c: couldn't subsribe to topic ", OWN_TOPIC + "/job_rev"),
    refused_topic("summary.c: couldn't subsribe to topic ", OWN_TOPIC + "/repeater"),
    in(TIMERS, failure("timerfd_create", ENFILE), {"summary.c: couldn't create send timer (errno 23)"}),
    in(TIMERS, failure("timerfd_settime", EINVAL),
       lines{"summary.c: couldn't arm send timer (errno 22)"} + NOT_WATCHED),
    refused_event(TIMERS, "timer", 1, lines{"summary.c: couldn't add send event"} + NOT_WATCHED),
    in(TIMERS, failure("timerfd_create", ENFILE).from(2),
       {"summary.c: couldn't create purge timer (errno 23)"}),
    in(TIMERS, failure("timerfd_settime", EINVAL).from(2),
       lines{"summary.c: couldn't arm purge timer (errno 22)"} + NOT_WATCHED),
    refused_event(TIMERS, "timer", 2, lines{"summary.c: couldn't add purge event"} + NOT_WATCHED),
    refused(AUTH, "mosquitto_publish", CHALLENGE_TOPIC,
            {"auth: couldn't publish " + CHALLENGE + " to " + CHALLENGE_TOPIC}),
    in(COMMAND, failure("timerfd_create", ENFILE), {"command: couldn't create keepalive timer (errno 23)"}),
    in(COMMAND, failure("timerfd_settime", EINVAL),
       lines{"command: couldn't arm keepalive timer (errno 22)"} + NOT_WATCHED),
    refused_event(COMMAND, "timer", 1, lines{"command: couldn't add keepalive event"} + NOT_WATCHED),
    refused(COMMAND, "mosquitto_subscribe", REQUEST_TOPIC,
            {"command: couldn't subscribe to " + REQUEST_TOPIC}),
};

std::string step_name(const testing::TestParamInfo<failure_case> &row)
{
    const failure &what = row.param.what;
    std::string name = std::string(row.param.at.name) + "_" + what.call + "_" + what.detail;
    std::erase_if(name, [](char character) { return !isalnum(character) && character != '_'; });
    return name + (what.first > 1 ? std::to_string(what.first) : what.library_errno != 0 ? "_errno" : "");
}

INSTANTIATE_TEST_SUITE_P(table, main_step, testing::ValuesIn(FAILURES), step_name);

} // namespace
