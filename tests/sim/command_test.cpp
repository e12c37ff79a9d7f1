// Clients' commands, their sessions, and the challenge.
#include "auth.h"
#include "common/md5.h"
#include "fire_network.h"

#include <mosquitto.h>
#include <sys/epoll.h>

#include <fstream>

using namespace sim;

namespace
{

const std::string REQUEST = "pub/diag/command/request";
const std::string RESPONSE = "pub/diag/command/response";
const std::string CHALLENGE = "pub/diag/command/aut/tbl_idx";
const std::string PEER_FILTER = PEER_TOPIC + "/#";
constexpr int OWN_NUMBER = 7;
constexpr int PEER_NUMBER = 9;
const std::string WRONG_DIGEST(32, '0');

void request(const std::string &text)
{
    publish(REQUEST, text, false);
}

// What clients have been answered since the last call.
lines take_responses()
{
    lines responses;
    for (const message &sent : take_published()) {
        if (sent.topic == RESPONSE) {
            EXPECT_FALSE(sent.retain);
            responses.push_back(sent.payload);
        }
    }
    return responses;
}

lines answer(const std::string &text)
{
    take_responses();
    request(text);
    return take_responses();
}

std::string number_section(int number)
{
    return section(0, {static_cast<char>(number)});
}

std::string challenge()
{
    return retained().at(CHALLENGE);
}

// The right response to the challenge that is published.
std::string digest()
{
    std::ifstream file(SECRETS_FILE);
    std::vector<std::string> words;
    for (std::string word; getline(file, word);) {
        words.push_back(word);
    }
    std::istringstream indices(challenge().substr(2));
    md5_context md5;
    MD5_Init(&md5);
    for (size_t index = 0; indices >> index;) {
        MD5_Update(&md5, words.at(index).data(), words.at(index).size());
    }
    uint8_t sum[MD5_DIGEST_SIZE];
    MD5_Final(sum, &md5);
    std::string text = hex({reinterpret_cast<const char *>(sum), sizeof sum});
    std::erase(text, ' ');
    return text;
}

// A text that may end in "%", which stands for the right response.
std::string with_digest(const std::string &text)
{
    return text.ends_with('%') ? text.substr(0, text.size() - 1) + digest() : text;
}

// The node's own summary has the number 7, the peer's 9.
class commands : public fire_network
{
protected:
    void SetUp() override
    {
        started = now();
        fire_network::SetUp();
        receive_summary(number_section(PEER_NUMBER));
        take_packets();
        take_responses();
    }
    void acknowledge(unsigned request_id)
    {
        receive_datagram(packet_bytes(PACKET_ACK, be(request_id, 4)), PEER_IP);
        advance(1s);
    }
    // Subscribes or unsubscribes client 5 to the peer with the next request id.
    void subscribe(const std::string &keyword = "subscribe")
    {
        request("5;1;" + keyword + ";" + PEER_FILTER);
        advance(1ns);
        acknowledge(next_id++);
    }

    unsigned next_id = 0;
    duration started{};
};

//
// Requests that are answered at once
//

struct request_case {
    const char *name;
    std::string text;
    const char *response; // null: none
    lines log;
};

void PrintTo(const request_case &row, std::ostream *stream)
{
    *stream << row.name;
}

class request_text : public commands, public testing::WithParamInterface<request_case>
{
};

TEST_P(request_text, has_its_response_and_log)
{
    const request_case &row = GetParam();
    const std::string before = challenge();
    EXPECT_EQ(answer(row.text), row.response == nullptr ? lines() : lines({row.response}));
    EXPECT_EQ(take_log(), row.log);
    EXPECT_EQ(challenge(), before);
    EXPECT_EQ(take_packets(), std::vector<datagram>());
}

request_case dropped(const char *name, const std::string &text)
{
    return {
        name,
        text,
        nullptr,
        {"command: couldn't parse CID and TID in " + text, "command: couldn't parse common command fields"}};
}

request_case unknown(const char *name, const std::string &text)
{
    return {name, text, "12;7;NACK;unknown command", {"command: unknown command type in " + text}};
}

request_case refused(const char *name, const std::string &text, const char *reason, const lines &log)
{
    static std::vector<std::string> responses = std::vector<std::string>();
    responses.reserve(64); // the rows point into it
    return {name, "1;2;" + text, responses.emplace_back(std::string("1;2;NACK;") + reason).c_str(), log};
}

request_case bad_period(const char *name, const std::string &period)
{
    return refused(name, "subscribe;" + PEER_FILTER + ";" + period, "invalid period value",
                   {"command: invalid subscribe period " + period});
}

request_case bad_reset(const char *name, const std::string &arguments)
{
    return refused(name, "reset-stats;" + arguments, "invalid input",
                   {"command: couldn't parse rest of command " + arguments});
}

request_case bad_download(const char *name, const std::string &arguments)
{
    return refused(name, "remote-download;" + arguments, "invalid input",
                   {"command: couldn't parse remote download command " + arguments});
}

const std::string OTHER_MAC = "00-11-22-33-44-55";
const lines NO_MAC_IN_NOTHING = {"remote: couldn't find MAC address in topic "};
const request_case REQUESTS[] = {
    {"plain", "12;7;noop", "12;7;ACK", {}},
    {"arguments_ignored", "12;7;noop;;x", "12;7;ACK", {}},
    {"part_of_a_keyword", "12;7;n", "12;7;ACK", {}},
    {"largest_numbers", "4294967295;4294967295;noop", "4294967295;4294967295;ACK", {}},
    {"leading_zeros", "0012;07;noop", "12;7;ACK", {}},
    {"text_behind_nul", std::string("12;7;noop\0x", 11), "12;7;ACK", {}},
    {"empty", "", nullptr, {}},
    dropped("no_second_semicolon", "12;7"),
    dropped("no_number", "x;7;noop"),
    dropped("no_tid", "12;;noop"),
    dropped("signed", "+12;7;noop"),
    dropped("blank", "12; 7;noop"),
    dropped("number_too_large", "4294967296;7;noop"),
    {"nul_first",
     std::string("\0", 1),
     nullptr,
     {"command: couldn't parse CID and TID in ", "command: couldn't parse common command fields"}},
    unknown("keyword", "12;7;frobnicate"),
    unknown("longer_keyword", "12;7;subscribed;" + PEER_FILTER),
    unknown("upper_case", "12;7;NOOP"),
    unknown("ten_kilobytes", "12;7;" + std::string(10'000, 'x')),
    {"no_keyword_subscribes", "12;7;", "12;7;NACK;internal error", NO_MAC_IN_NOTHING},
    refused("unsubscribe_nothing", "unsubscribe", "internal error", NO_MAC_IN_NOTHING),
    refused("disconnect_without_subscription", "disconnect", "client has no subscriptions",
            {"command: no active client with ID 1"}),
    bad_period("period_too_large", "65536"),
    bad_period("period_overflow", "99999999999999999999"),
    bad_period("period_negative", "-1"),
    bad_period("period_signed", " +1"),
    bad_reset("reset_stats_without_port", OTHER_MAC),
    bad_reset("reset_stats_with_empty_port", OTHER_MAC + ";"),
    bad_reset("reset_stats_with_blank_port", OTHER_MAC + "; B"),
    bad_reset("reset_stats_with_three_digits", "00-11-22-33-44-555;B"),
    bad_reset("reset_stats_with_five_bytes", "00-11-22-33-44;B"),
    bad_reset("reset_stats_with_sign", "00-11-22-33-44-+5;B"),
    refused("reset_by_default_means_one_port", "reset", "invalid input",
            {"command: couldn't parse rest of command "}),
    refused("reset_stats_of_no_port", "reset-stats;" + OTHER_MAC + ";;", "invalid port identifier",
            {"command: couldn't parse port string ;"}),
    refused(
        "reset_stats_of_untracked_port", "reset-stats;" + LOCAL_MAC_TEXT + ";b", "internal error",
        {"stats: statistics reset: port B does not exist", "command: couldn't reset port b's statistics"}),
    refused("reset_stats_of_unknown_node", "reset-stats;" + OTHER_MAC + ";b", "internal error",
            {"remote: couldn't find fire IP address for node " + OTHER_MAC,
             "command: couldn't reset remote port's statistics"}),
    refused("activate_without_response", "activate;3 4", "invalid input",
            {"command: no authentication string in 3 4"}),
    refused("activate_with_short_response", "activate;x;" + std::string(31, '0'), "authentication failure",
            {"auth: string " + std::string(31, '0') + " is not a valid MD5 sum"}),
    refused("activate_with_signed_response", "activate;x; 1+10x" + std::string(27, '0'),
            "authentication failure",
            {"auth: string  1+10x" + std::string(27, '0') + " is not a valid MD5 sum"}),
    refused("activate_with_wrong_response", "activate;x;" + WRONG_DIGEST, "authentication failure", {}),
    bad_download("remote_download_without_response", "1;3"),
    bad_download("remote_download_with_empty_response", "1;3;"),
    bad_download("remote_download_with_wrong_flag", "2;3;x"),
    bad_download("remote_download_with_longer_flag", "11;3;x"),
};
INSTANTIATE_TEST_SUITE_P(table, request_text, testing::ValuesIn(REQUESTS),
                         [](const auto &row) { return std::string(row.param.name); });

TEST_F(commands, reset_statistics_here_and_there)
{
    publish("local/diag/port/B/type", "fire", false);
    take_packets();
    EXPECT_EQ(answer("1;2;reset-stats;0-1a-2B-3c-4d-5e;bx"), lines({"1;2;ACK"}));
    EXPECT_EQ(take_packets(), std::vector<datagram>());
    EXPECT_EQ(answer("1;3;reset-stats;" + PEER_MAC_TEXT + ";c"), lines({"1;3;ACK"}));
    EXPECT_EQ(take_packets(), std::vector<datagram>({to_peer(PACKET_RESET_STATS, be(2, 1))}));
    EXPECT_EQ(answer("1;4;reset-all-stats"), lines({"1;4;ACK"}));
    EXPECT_EQ(take_packets(), std::vector<datagram>({to_all(PACKET_RESET_ALL_STATS)}));
}

//
// Subscriptions on other nodes
//

TEST_F(commands, subscribe_with_the_period_that_the_text_begins_with)
{
    const std::pair<std::string, unsigned> periods[] = {{"", 10},       {";0", 0},       {";", 0},
                                                        {";abc", 0},    {";30", 30},     {";0x1E", 30},
                                                        {";036;7", 30}, {"; 12abc", 12}, {";65535", 65535}};
    for (const auto &[text, period] : periods) {
        request("5;1;subscribe;" + PEER_FILTER + text);
        advance(1ns);
        EXPECT_EQ(take_packets(),
                  std::vector<datagram>({to_peer(PACKET_SUBSCRIBE, be(next_id, 4) + be(5, 4) + be(period, 2) +
                                                                       terminated(PEER_FILTER))}))
            << text;
        acknowledge(next_id++);
    }
}

TEST_F(commands, about_subscriptions_are_answered_when_the_node_has_or_never)
{
    request("5;1;subscribe;" + PEER_FILTER);
    request("6;2;unsubscribe;" + PEER_FILTER + ";ignored");
    advance(1ns);
    receive_datagram(packet_bytes(PACKET_ACK, be(0, 4)), PEER_IP);
    EXPECT_EQ(take_responses(), lines());
    advance(1s);
    EXPECT_EQ(take_responses(), lines({"5;1;ACK"}));
    advance(8900ms);
    EXPECT_EQ(take_responses(), lines());
    advance(200ms);
    EXPECT_EQ(take_responses(), lines({"6;2;NACK;can't reach remote node"}));
    EXPECT_EQ(answer("5;3;disconnect"), lines({"5;3;ACK"}));
}

TEST_F(commands, keep_a_client_while_it_has_subscriptions)
{
    const auto keepalives = [this] {
        take_packets();
        advance(300s - (now() - started) % 300s);
        return take_packets();
    };
    const datagram keepalive = to_all(PACKET_CLIENT_KEEPALIVE, be(5, 4));
    EXPECT_EQ(keepalives(), std::vector<datagram>());
    subscribe();
    subscribe();
    subscribe("unsubscribe");
    request("4;1;subscribe;" + PEER_FILTER);
    advance(1ns);
    acknowledge(next_id++);
    EXPECT_EQ(keepalives(), std::vector<datagram>({keepalive, to_all(PACKET_CLIENT_KEEPALIVE, be(4, 4))}));
    EXPECT_EQ(answer("4;2;disconnect"), lines({"4;2;ACK"}));
    next_id++;
    advance(11s);
    EXPECT_EQ(keepalives(), std::vector<datagram>({keepalive}));
    subscribe("unsubscribe");
    EXPECT_EQ(take_responses(), lines({"5;1;ACK"}));
    EXPECT_EQ(keepalives(), std::vector<datagram>());

    subscribe("unsubscribe");
    EXPECT_EQ(take_responses(), lines());
    EXPECT_EQ(take_log(), lines({"command: no client for unsubscribed subscription"}));
}

TEST_F(commands, disconnect_ends_all_subscriptions_of_the_client)
{
    subscribe();
    take_packets();
    EXPECT_EQ(answer("5;2;disconnect;x"), lines({"5;2;ACK"}));
    advance(1ns);
    EXPECT_EQ(take_packets(), std::vector<datagram>({to_all(PACKET_UNSUBSCRIBE_ALL, be(1, 4) + be(5, 4))}));
    EXPECT_EQ(answer("5;3;disconnect"), lines({"5;3;NACK;client has no subscriptions"}));
    EXPECT_EQ(take_log(), lines({"command: no active client with ID 5"}));
}

TEST_F(commands, disconnect_that_cannot_be_sent_keeps_the_client)
{
    subscribe();
    fail(failure("timerfd_create", EMFILE));
    EXPECT_EQ(answer("5;2;disconnect"), lines({"5;2;NACK;internal error"}));
    EXPECT_EQ(take_log(), lines({"remote: couldn't create request timer (errno 24)",
                                 "remote: couldn't start pending unsubscribe all request",
                                 "command: couldn't send unsubscribe all message for client 5"}));
    EXPECT_EQ(answer("5;3;disconnect"), lines({"5;3;ACK"}));
}

//
// Lists of nodes
//

std::string activate(const std::string &list)
{
    return "1;2;activate;" + list + ";" + digest();
}

TEST_F(commands, on_nodes_are_answered_once_when_all_have_a_result)
{
    receive_summary(number_section(PEER_NUMBER), bytes("02 00 00 00 00 08"));
    publish("local/diag/node/02-00-00-00-00-08/fire_ip", "10.0.0.8");
    take_packets();
    const std::string challenged = challenge();
    EXPECT_EQ(answer(activate(" 9  7 42 0x9 ")), lines());
    EXPECT_NE(challenge(), challenged);
    EXPECT_EQ(retained().at("local/activate"), "\x05");
    advance(1ns);
    std::vector<datagram> sent = take_packets();
    ASSERT_EQ(sent.size(), 4U) << "each occurrence of a number means each of its cards";
    for (const datagram &each : sent) {
        EXPECT_EQ(each.bytes[1], PACKET_ACTIVATE);
        EXPECT_EQ(each.bytes.back(), 5);
    }
    EXPECT_EQ(std::ranges::count(sent, PEER_IP, &datagram::address), 2);
    for (const unsigned id : {2U, 0U, 3U}) {
        EXPECT_EQ(take_responses(), lines());
        acknowledge(id);
    }
    advance(6s);
    EXPECT_EQ(take_responses(), lines());
    advance(2s);
    EXPECT_EQ(take_responses(), lines({"1;2;NACK;failed nodes: 9 42"})) << "in the order of the list";
}

TEST_F(commands, remote_download_carries_its_flag)
{
    for (const int flag : {1, 0}) {
        EXPECT_EQ(answer("1;2;remote-download;" + std::to_string(flag) + ";;7 9;" + digest() + ";ignored"),
                  lines());
        EXPECT_EQ(retained().at("local/remotedl"), be(static_cast<unsigned>(flag), 1));
        advance(1ns);
        EXPECT_EQ(take_packets(),
                  std::vector<datagram>({to_peer(PACKET_REMOTE_DOWNLOAD,
                                                 be(next_id, 4) + be(static_cast<unsigned>(flag), 1))}));
        acknowledge(next_id++);
        EXPECT_EQ(take_responses(), lines({"1;2;ACK"}));
    }
}

TEST_F(commands, without_remote_nodes_are_answered_at_once)
{
    receive_summary(number_section(OWN_NUMBER)); // the peer now has the number of this node
    EXPECT_EQ(answer(activate("")), lines({"1;2;ACK"}));
    EXPECT_FALSE(retained().contains("local/activate"));
    take_requests();
    EXPECT_EQ(answer(activate("007")), lines({"1;2;ACK"}));
    EXPECT_EQ(std::ranges::count(take_requests(), "PUBLISH local/activate"), 2);
    EXPECT_EQ(answer(activate("42 7")), lines({"1;2;NACK;failed nodes: 42"}));
    EXPECT_EQ(take_packets(), std::vector<datagram>());
}

TEST_F(commands, with_a_wrong_list_do_nothing_and_use_up_the_challenge)
{
    const auto repeat = [](const std::string &token, int times) {
        std::string list;
        for (int i = 0; i < times; i++) {
            list += token + " ";
        }
        return list;
    };
    const std::pair<std::string, std::string> invalid[] = {{"1,2", "1,2"}, {"7 256", "256"}, {"7 x", "x"},
                                                           {"08", "08"},   {"-1", "-1"},     {"7\t9", "7\t9"},
                                                           {"0x", "0x"},   {"+7", "+7"}};
    for (const auto &[list, token] : invalid) {
        const std::string before = challenge();
        EXPECT_EQ(answer(activate(list)), lines({"1;2;NACK;invalid input"}));
        EXPECT_EQ(take_log(), lines({"command: invalid node number " + token,
                                     "command: couldn't parse node list " + list}));
        EXPECT_NE(challenge(), before);
    }
    const std::string too_many = repeat("7", 100) + "x";
    EXPECT_EQ(answer(activate(too_many)), lines({"1;2;NACK;node list is too large"}));
    EXPECT_EQ(take_log(), lines({"command: too many targets in " + too_many,
                                 "command: couldn't parse node list " + too_many}));
    EXPECT_FALSE(retained().contains("local/activate"));
    EXPECT_EQ(answer(activate(repeat("7", 99))), lines({"1;2;ACK"}));
    std::string failed;
    for (int i = 0; i < 99; i++) {
        failed += " 255";
    }
    EXPECT_EQ(answer(activate(repeat("255", 99))), lines({"1;2;NACK;failed nodes:" + failed}));
}

TEST_F(commands, on_a_number_of_a_hundred_cards_go_on_with_99)
{
    for (unsigned card = 0; card < 100; card++) {
        receive_summary(number_section(33), bytes("02 00 00 00 01") + be(card, 1));
    }
    const lines responses = answer(activate("33"));
    ASSERT_EQ(responses.size(), 1U);
    EXPECT_EQ(std::ranges::count(responses[0], '3'), 198);
    const lines log = take_log();
    EXPECT_EQ(log.at(0), "summary.c: ignoring MAC address(es) since result array is too small");
    EXPECT_EQ(log.size(), 1U + 99 * 2);
    EXPECT_EQ(log.back(), "command: couldn't dispatch to node 33");
}

//
// The challenge
//

TEST_F(commands, challenge_is_used_up_by_a_right_response_and_by_failures_from_the_third_on)
{
    const std::string wrong = "1;2;activate;;" + WRONG_DIGEST;
    std::string in_force = challenge();
    std::string response = digest();
    const auto expect = [&](const std::string &text, bool is_right, bool is_renewed) {
        EXPECT_EQ(answer(text), lines({is_right ? "1;2;ACK" : "1;2;NACK;authentication failure"}));
        EXPECT_EQ(challenge() != in_force, is_renewed);
        in_force = challenge();
    };
    expect("1;2;activate;;" + response, true, true);
    expect("1;2;activate;;" + response, false, false);
    expect(wrong, false, false);
    expect(wrong, false, true);
    expect(wrong, false, true);
    response = digest();
    std::ranges::transform(response, response.begin(), [](unsigned char digit) { return tolower(digit); });
    expect("1;2;activate;;" + response + "0;anything", true, true);
    expect(wrong, false, false);
}

TEST_F(commands, challenge_lists_2_to_10_of_the_127_words)
{
    std::vector<int> counts(11);
    size_t longest = 0;
    int lowest = 127;
    int highest = 0;
    for (int round = 0; round < 2000; round++) {
        EXPECT_EQ(answer(activate("")), lines({"1;2;ACK"}));
        const std::string text = challenge();
        ASSERT_TRUE(text.starts_with("1;"));
        ASSERT_NE(text.back(), ' ');
        longest = std::max(longest, text.size());
        std::istringstream indices(text.substr(2));
        size_t count = 0;
        for (int index; indices >> index; count++) {
            lowest = std::min(lowest, index);
            highest = std::max(highest, index);
        }
        counts.at(count)++;
    }
    EXPECT_EQ(std::vector<int>(counts.begin(), counts.begin() + 2), std::vector<int>({0, 0}));
    EXPECT_EQ(std::count(counts.begin() + 2, counts.end(), 0), 0);
    EXPECT_EQ(lowest, 0);
    EXPECT_EQ(highest, 126);
    EXPECT_LE(longest, 41U);
}

TEST_F(commands, challenge_of_ten_three_digit_indices_fits)
{
    const std::string request = activate("");
    srand(15918344); // draws them
    EXPECT_EQ(answer(request), lines({"1;2;ACK"}));
    const std::string text = challenge();
    EXPECT_EQ(text.size(), 2U + 10 * 3 + 9) << text;
    EXPECT_EQ(answer(activate("")), lines({"1;2;ACK"}));
}

TEST_F(commands, challenge_is_not_answered_by_nothing)
{
    const std::string in_force = challenge();
    bool is_right = true;
    for (const int result : {auth_check(nullptr, &is_right), auth_check(digest().c_str(), nullptr)}) {
        EXPECT_EQ(result, -1);
    }
    const std::string null = "auth: NULL pointer received as argument";
    EXPECT_EQ(take_log(), lines({null, null}));
    EXPECT_EQ(challenge(), in_force);
}

TEST_F(commands, challenge_that_cannot_be_published_is_in_force_all_the_same)
{
    const std::string old = activate("");
    fail(failure("mosquitto_publish", MOSQ_ERR_NOMEM, CHALLENGE));
    EXPECT_EQ(answer(old), lines({"1;2;NACK;internal error"}));
    const lines log = take_log();
    ASSERT_EQ(log.size(), 4U);
    EXPECT_TRUE(log[1].starts_with("auth: couldn't publish 1;"));
    EXPECT_EQ(log[2], "auth: couldn't change secret indices");
    EXPECT_EQ(log[3], "command: couldn't check authentication of " + old.substr(old.size() - 32));
    EXPECT_EQ(answer(old), lines({"1;2;NACK;authentication failure"}));
}

//
// Failures
//

struct refusal_case {
    const char *name;
    failure what;
    std::string text; // of the request, as with_digest takes it
    const char *reason;
    lines log;
};

void PrintTo(const refusal_case &row, std::ostream *stream)
{
    *stream << row.name;
}

class internal_failure : public commands, public testing::WithParamInterface<refusal_case>
{
};

TEST_P(internal_failure, is_a_refusal_and_not_the_end)
{
    const refusal_case &row = GetParam();
    const std::string text = with_digest(row.text);
    take_responses();
    fail(row.what);
    request(text);
    EXPECT_EQ(take_responses(), lines({std::string("1;2;NACK;") + row.reason}));
    EXPECT_EQ(take_log(), row.log);
    EXPECT_TRUE(is_running());
}

const lines NOT_SENT = {"remote: couldn't send packet (errno 105)"};
const refusal_case REFUSALS[] = {
    {"reset_stats_without_mac",
     {"ioctl", ENODEV, "eth0"},
     "1;2;reset-stats;" + PEER_MAC_TEXT + ";B",
     "internal error",
     {"hwinfo/hwinfo.c: couldn't get MAC address (errno 19)", "command: couldn't get local MAC address"}},
    {"reset_stats_not_sent",
     {"sendto", ENOBUFS},
     "1;2;reset-stats;" + PEER_MAC_TEXT + ";B",
     "internal error",
     NOT_SENT + lines{"remote: couldn't send reset-stats request",
                      "command: couldn't reset remote port's statistics"}},
    {"reset_all_not_sent",
     {"sendto", ENOBUFS},
     "1;2;reset-all-stats",
     "internal error",
     NOT_SENT +
         lines{"remote: couldn't send reset-all-stats request", "command: couldn't reset all statistics"}},
    {"no_memory_for_targets",
     failure("new", 0).from(6), // record, text, challenge's publication of 3
     "1;2;activate;7;%",
     "internal error",
     {"command: couldn't allocate targets array", "command: couldn't parse node list 7"}},
    {"no_publication_here",
     {"mosquitto_publish", MOSQ_ERR_NOMEM, "local/activate"},
     "1;2;activate;7;%",
     "failed nodes: 7",
     {"broker: couldn't publish message on topic local/activate (Out of memory.)",
      "command: couldn't publish 5 to local/activate"}},
    {"no_request_there",
     {"timerfd_create", EMFILE},
     "1;2;remote-download;1;9;%",
     "failed nodes: 9",
     {"remote: couldn't create request timer (errno 24)", "remote: couldn't start pending request",
      "command: couldn't dispatch to node 9"}},
};
INSTANTIATE_TEST_SUITE_P(table, internal_failure, testing::ValuesIn(REFUSALS),
                         [](const auto &row) { return std::string(row.param.name); });

struct fatal_case {
    const char *name;
    failure what;
    std::string text;                     // likewise
    std::optional<unsigned> acknowledged; // the request to another node that is
    lines log;
};

void PrintTo(const fatal_case &row, std::ostream *stream)
{
    *stream << row.name;
}

class fault : public commands, public testing::WithParamInterface<fatal_case>
{
};

TEST_P(fault, ends_the_daemon)
{
    const fatal_case &row = GetParam();
    subscribe(); // client 5, request 0
    const std::string text = with_digest(row.text);
    fail(row.what);
    request(text);
    if (row.acknowledged) {
        advance(1ns);
        acknowledge(*row.acknowledged);
    }
    advance(300s);
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(take_log(), row.log);
}

fatal_case unsent(const char *name, const std::string &text, std::optional<unsigned> acknowledged,
                  const std::string &response, const lines &log)
{
    return {name, failure("mosquitto_publish", MOSQ_ERR_NOMEM, RESPONSE), text, acknowledged,
            lines{"broker: couldn't publish message on topic " + RESPONSE + " (Out of memory.)",
                  "command: couldn't publish response " + response + " to " + RESPONSE} +
                log};
}

const lines NO_ACK = {"command: couldn't send ACK response"};
const lines NO_NACK = {"command: couldn't send NACK response"};
const lines NO_RESULT = {"command: couldn't handle request result"};
const lines NO_RECORD = {"command: couldn't allocate command structure"};
const fatal_case FAULTS[] = {
    {"no_memory_for_record", {"new", 0}, "1;2;noop", {}, NO_RECORD},
    {"no_memory_for_text", failure("new", 0).from(2), "1;2;noop", {}, NO_RECORD},
    {"no_memory_for_ack",
     failure("new", 0).from(3),
     "1;2;noop",
     {},
     lines{"command: couldn't build ACK response"} + NO_ACK},
    {"no_memory_for_nack",
     failure("new", 0).from(3),
     "1;2;activate;;" + WRONG_DIGEST,
     {},
     lines{"command: couldn't build NACK response"} + NO_NACK},
    {"no_memory_for_client", failure("new", 0).from(5), "1;2;subscribe;" + PEER_FILTER, 1,
     lines{"command: couldn't allocate client structure"} + NO_RESULT},
    unsent("ack", "1;2;noop", {}, "1;2;ACK", NO_ACK),
    unsent("nack", "1;2;activate;;" + WRONG_DIGEST, {}, "1;2;NACK;authentication failure", NO_NACK),
    unsent("ack_of_nodes", "1;2;activate;7;%", {}, "1;2;ACK", NO_NACK),
    unsent("nack_of_nodes", "1;2;activate;42;%", {}, "1;2;NACK;failed nodes: 42", NO_NACK),
    unsent("late_ack_of_nodes", "1;2;activate;9;%", 1, "1;2;ACK", NO_ACK),
    unsent("late_nack_of_nodes", "1;2;activate;9 42;%", 1, "1;2;NACK;failed nodes: 42", NO_NACK),
    unsent("ack_of_subscribe", "1;2;subscribe;" + PEER_FILTER, 1, "1;2;ACK", NO_ACK + NO_RESULT),
    unsent("nack_of_unsubscribe", "1;2;unsubscribe;" + PEER_FILTER, {}, "1;2;NACK;can't reach remote node",
           NO_NACK + NO_RESULT),
};
INSTANTIATE_TEST_SUITE_P(table, fault, testing::ValuesIn(FAULTS),
                         [](const auto &row) { return std::string(row.param.name); });

struct tick_case {
    const char *name;
    uint32_t events;
    int read_size;
    lines log;
};

void PrintTo(const tick_case &row, std::ostream *stream)
{
    *stream << row.name;
}

class keepalive_tick : public commands, public testing::WithParamInterface<tick_case>
{
};

TEST_P(keepalive_tick, that_fails_ends_the_daemon)
{
    const tick_case &row = GetParam();
    subscribe();
    fail(failure("read", EAGAIN).returning(row.read_size));
    fail(failure("sendto", ENOBUFS));
    inject_events(find_timer(300s, 300s), row.events);
    run();
    EXPECT_EQ(exit_status(), 1);
    lines log = take_log();
    log.resize(row.log.size()); // what the shutdown adds depends on the failure
    EXPECT_EQ(log, row.log);
}

const tick_case TICKS[] = {
    {"event", EPOLLERR, 8, {"command: unexpected event(s) on file descriptor"}},
    {"short_read", EPOLLIN, 4, {"command: couldn't clear keepalive timer (errno 11)"}},
    {"send",
     EPOLLIN,
     8,
     {"remote: couldn't send packet (errno 105)", "remote: couldn't send client keepalive",
      "command: couldn't send keepalive for client 5"}},
};
INSTANTIATE_TEST_SUITE_P(table, keepalive_tick, testing::ValuesIn(TICKS),
                         [](const auto &row) { return std::string(row.param.name); });

} // namespace
