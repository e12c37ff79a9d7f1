// Start-up and shutdown of the daemon.
#include "packets.h"

#include <limits>
#include <set>

using namespace card;

namespace
{

using main_program = node;

const lines UNSENT = {"remote: couldn't send packet (errno 9)", "remote: couldn't send goodbye message"};
const lines UNCONNECTED =
    UNSENT + lines{"broker: couldn't request mosquitto disconnect (Invalid function arguments provided.)"};
const lines NO_SESSION = {"broker: couldn't connect mosquitto instance",
                          "main: couldn't connect to the broker"};

TEST_F(main_program, takes_its_steps_in_order)
{
    publish("local/diag/port/A/status", "too short"); // a message that waits while modules are initialised
    start();
    EXPECT_EQ(take_log(),
              lines({"summary.c: published ERPS port status data has wrong length (9, should be 92)"}));
    EXPECT_EQ(broker().connection()->settings, "diag, clean, option 11 = 1, keepalive 10");
    lines steps = {"PUBLISH pub/diag/local_node",         "PUBLISH " + OWN_TOPIC + "/card_addr",
                   "SUBSCRIBE local/diag/port/+/type",    "SUBSCRIBE local/diag/node/+/fire_ip",
                   "SUBSCRIBE " + OWN_TOPIC + "/#",       "PUBLISH " + OWN_TOPIC + "/software_versions",
                   "PUBLISH pub/diag/net/fire/link_down", "PUBLISH pub/diag/net/fire/grnd_list",
                   "PUBLISH pub/diag/net/fire/miswired",  "SUBSCRIBE local/diag/port/+/status",
                   "SUBSCRIBE local/diag/ring/+/status"};
    for (const char *name : {"job_rev", "job_name", "download_status", "CF_free_space", "M301", "M702",
                             "comm_loss", "download_pending", "repeater"}) {
        steps.push_back("SUBSCRIBE " + OWN_TOPIC + "/" + name);
    }
    steps.push_back("PUBLISH pub/diag/command/aut/tbl_idx");
    steps.push_back("SUBSCRIBE pub/diag/command/request");
    EXPECT_EQ(take_requests(), steps);
    EXPECT_EQ(retained("pub/diag/local_node"), LOCAL_MAC_TEXT);
    EXPECT_EQ(retained(OWN_TOPIC + "/card_addr"), "5");
    daemon().send_sigterm();
    EXPECT_EQ(exit_status(), 0);
    EXPECT_EQ(take_datagrams(), datagrams({to_all(PACKET_GOODBYE)}));
}

TEST_F(main_program, waits_for_the_fire_network_and_the_broker_without_limit)
{
    interfaces().at("fire").is_up = false;
    broker().stop();
    start();
    advance(10min);
    fail(system_call::SOCKET, EMFILE);
    advance(1s);
    fail(system_call::CLOCK_GETTIME, EINVAL);
    advance(1s);
    interfaces().at("fire").is_up = true;
    advance(10min);
    EXPECT_EQ(take_requests(), lines());
    broker().start();
    advance(50ms);
    EXPECT_NE(take_requests(), lines());
}

TEST_F(main_program, sigterm_ends_each_wait_of_the_start)
{
    const auto stop_after = [](duration time) {
        start();
        advance(time);
        daemon().send_sigterm();
        advance(0s);
        EXPECT_EQ(exit_status(), 0);
        return take_log();
    };
    interfaces().erase("fire");
    EXPECT_EQ(stop_after(10s), UNCONNECTED);
    interfaces()["fire"] = {3, true, {}};
    broker().conduct().answers_connect = false;
    EXPECT_EQ(stop_after(2s), lines());
    broker().stop();
    EXPECT_EQ(
        stop_after(10s),
        lines({"broker: couldn't publish message on topic pub/diag/local_node (The client is not currently "
               "connected.)",
               "main: couldn't publish " + LOCAL_MAC_TEXT + " to pub/diag/local_node",
               "main: couldn't publish local node information"}) +
            UNSENT +
            lines{"broker: couldn't request mosquitto disconnect (The client is not currently connected.)"});
}

TEST_F(main_program, takes_no_fact_while_a_start_that_failed_ends)
{
    publish("local/diag/ring/0/status", be(0, 4));
    fail(system_call::TIMERFD_CREATE, EMFILE, 2, [] { broker().conduct().reads = false; });
    start();
    EXPECT_EQ(take_log(), lines({"summary.c: couldn't create send timer (errno 24)",
                                 "summary.c: couldn't add timer-based summary events",
                                 "main: couldn't initialize node summary module"}));
    broker().conduct().reads = true;
    advance(1s);
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(retained("local/diag/network_style7"), "");
}

TEST_F(main_program, gives_up_a_silent_broker_after_5_s_and_one_that_refuses_at_once)
{
    broker().conduct().answers_connect = false;
    start();
    advance(5s);
    EXPECT_TRUE(is_running());
    advance(50ms);
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(take_log(),
              lines({"broker: mosquitto client status change timed out"}) + NO_SESSION + UNCONNECTED);
    broker().conduct().answers_connect = true;
    broker().conduct().connack = 5;
    start();
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(take_log(),
              lines({"broker: broker connection refused (code 5)",
                     "broker: unexpected disconnect from broker (code 5)",
                     "broker: error while running the mosquitto loop (The connection was refused.)"}) +
                  NO_SESSION + UNCONNECTED);
}

TEST_F(main_program, ends_with_status_1_and_says_goodbye_when_it_loses_its_broker)
{
    start_node();
    broker().close_session();
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(take_datagrams(), datagrams({to_all(PACKET_GOODBYE)}));
    EXPECT_EQ(
        take_log(),
        lines({"broker: unexpected disconnect from broker (code 7)",
               "broker: couldn't carry out read operations (The connection was lost.)",
               "broker: couldn't request mosquitto disconnect (The client is not currently connected.)"}));
}

// The client library draws from the same generator and seeds it anew.
TEST_F(main_program, first_delay_and_first_challenge_follow_from_the_node_number)
{
    const auto delay_of = [](int number) {
        start_node(number);
        const duration start = now();
        advance(5s);
        return take_datagrams().at(0).at - start;
    };
    std::set<duration> delays;
    std::set<std::string> challenges;
    for (int number = 1; number <= 20; number++) {
        delays.insert(delay_of(number));
        challenges.insert(retained("pub/diag/command/aut/tbl_idx"));
    }
    EXPECT_EQ(delays, std::set<duration>({1s, 2s, 3s}));
    EXPECT_EQ(challenges.size(), 20U);
    delay_of(20);
    EXPECT_TRUE(challenges.contains(retained("pub/diag/command/aut/tbl_idx")));
}

TEST_F(main_program, options_give_the_node_number)
{
    const lines unknown = {"main: unknown option -?"};
    const std::string too_long = std::to_string(std::numeric_limits<long>::max());
    const auto invalid = [](const std::string &number) {
        return lines{"main: invalid node number (" + number + ")"};
    };
    const struct {
        lines options;
        int number; // -1: refused
        lines log;
    } rows[] = {
        {{}, 0, {}},
        {{"-n", "255"}, 255, {}},
        {{"-n", "0x10"}, 16, {}},
        {{"-n010"}, 8, {}},
        {{"-n", "3", "-n", "4"}, 4, {}},
        {{"-x", "-n", "3"}, 3, unknown},
        {{"-n"}, 0, unknown},
        {{"-n", "0"}, -1, invalid("0")},
        {{"-n", "256"}, -1, invalid("256")},
        {{"-n", "-1"}, -1, invalid("-1")},
        {{"-n", "5x"}, -1, invalid("5")},
        {{"-n", ""}, -1, invalid("0")},
        {{"-n", too_long + "0"}, -1, invalid(too_long)},
    };
    for (const auto &row : rows) {
        start(row.options);
        if (row.number == -1) {
            EXPECT_EQ(take_log(), row.log + UNCONNECTED);
            EXPECT_EQ(exit_status(), 1);
            continue;
        }
        EXPECT_EQ(take_log(), row.log);
        advance(3s);
        EXPECT_EQ(static_cast<uint8_t>(take_datagrams().at(0).bytes.at(13)), row.number);
        stop();
        take_datagrams();
    }
}

//
// The software versions
//

TEST_F(main_program, versions_are_what_is_before_and_behind_the_first_colon)
{
    const std::string boot = "bootrev=";
    const std::string long_text(300, 'x');
    const auto padded = [](std::string text, size_t size) {
        text.resize(size, ' ');
        return text;
    };
    const struct {
        std::string text;
        std::string name;
        std::string version;
        std::string version_end = {}; // against the right edge
    } rows[] = {
        {"abc:def ghi\n", "abc", "def ghi\n"},
        {"abc:def:ghi", "abc", "def:ghi"},
        {"no colon\n", "no colon\n", ""},
        {"name longer than ten:" + long_text, "name longe", std::string(40, 'x')},
        {long_text + ":behind the buffer", "xxxxxxxxxx", ""},
        {":\nsecond:line", "", "\n"},
        {boot + "abc:def\n", "abc", "def\n", "def"},
        {"a=\"b\" " + boot + "\"abc:def ghi-jkl\"\n", "abc", "def", "jkl"},
        {boot + "\"abc:def ghi-jkl-mno\" quiet\n", "abc", "def ghi-jkl-mno\"", "quiet"},
        {boot + "abc:1-2 last=\"x:y\"\n", "x", "y\"\n", "y"},
        {boot + "abc\n", "abc\n", ""},
        {boot + "abc:-\n", "abc", "-\n", "\n"},
        {boot + "abc:d " + std::string(50, 'y'), "abc", std::string(40, 'y')},
        {boot + "one:1 " + boot + "two:2", "one", "1", "bootrev=two:2"},
    };
    for (const auto &row : rows) {
        const std::string expected = padded(row.name, 10) + ":" +
                                     padded(row.version, 40 - row.version_end.size()) + row.version_end + ";";
        const bool is_boot = row.text.find(boot) != std::string::npos;
        for (const char *path : {"/proc/cmdline", "/REVISION", "/REVISION_PRIAPP"}) {
            if (is_boot == (path == std::string("/proc/cmdline"))) {
                files().at(path) = row.text;
            }
        }
        start();
        const std::string published = retained(OWN_TOPIC + "/software_versions");
        EXPECT_EQ(published.substr(is_boot ? 52 : 0, 52), expected) << row.text;
        EXPECT_TRUE(is_boot || published.substr(104) == expected) << row.text;
        stop();
    }
}

TEST_F(main_program, ends_without_a_source_of_a_version)
{
    const std::tuple<const char *, const char *, const char *> rows[] = {
        {"/REVISION", nullptr, "couldn't open file /REVISION"},
        {"/REVISION_PRIAPP", "", "couldn't read from file /REVISION_PRIAPP"},
        {"/proc/cmdline", nullptr, "couldn't open file /proc/cmdline"},
        {"/proc/cmdline", "", "couldn't read from file /proc/cmdline"},
        {"/proc/cmdline", "quiet boot=rev:1", "couldn't find bootrev string"},
    };
    const std::map<std::string, std::string> complete = files();
    for (const auto &[path, content, log] : rows) {
        files() = complete;
        files().erase(path);
        if (content != nullptr) {
            files()[path] = content;
        }
        start();
        EXPECT_EQ(exit_status(), 1);
        EXPECT_EQ(take_log(),
                  lines({std::string("utils: ") + log, "summary.c: couldn't get software versions",
                         "main: couldn't initialize node summary module"}));
    }
}

} // namespace
