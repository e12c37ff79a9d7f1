// Clients' commands, their sessions, and the challenge.
#include "broker/challenge.h"
#include "packets.h"

#include <sstream>

using namespace card;

namespace
{

const std::string REQUEST = "pub/diag/command/request";
const std::string RESPONSE = "pub/diag/command/response";
const std::string CHALLENGE = "pub/diag/command/aut/tbl_idx";
const std::string PEER_FILTER = PEER_TOPIC + "/#";
constexpr int OWN_NUMBER = 7;
constexpr int PEER_NUMBER = 9;
const std::string WRONG_DIGEST(32, '0');
const word_table WORDS = {
#include "secrets.inc"
};

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
    return retained(CHALLENGE);
}

// The right response to the challenge that is published.
std::string digest()
{
    return challenge_response(challenge(), WORDS).value();
}

// The node's own summary has the number 7, the peer's 9.
class commands : public node_with_peer
{
protected:
    void SetUp() override
    {
        node_with_peer::SetUp();
        started = now();
        receive_summary(number_section(PEER_NUMBER));
        take_packets();
        take_responses();
    }
    void acknowledge(unsigned request_id)
    {
        receive_packet(PACKET_ACK, be(request_id, 4));
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

struct row {
    std::string text;
    std::string response; // "" for none
    lines log = {};
};

row dropped(const std::string &text)
{
    return {
        text,
        "",
        {"command: couldn't parse CID and TID in " + text, "command: couldn't parse common command fields"}};
}

row unknown(const std::string &text)
{
    return {text, "12;7;NACK;unknown command", {"command: unknown command type in " + text}};
}

row refused(const std::string &text, const std::string &reason, const lines &log)
{
    return {"1;2;" + text, "1;2;NACK;" + reason, log};
}

row bad_period(const std::string &period)
{
    return refused("subscribe;" + PEER_FILTER + ";" + period, "invalid period value",
                   {"command: invalid subscribe period " + period});
}

row bad_reset(const std::string &arguments)
{
    return refused("reset-stats;" + arguments, "invalid input",
                   {"command: couldn't parse rest of command " + arguments});
}

row bad_download(const std::string &arguments)
{
    return refused("remote-download;" + arguments, "invalid input",
                   {"command: couldn't parse remote download command " + arguments});
}

row bad_digest(const std::string &digest)
{
    return refused("activate;x;" + digest, "authentication failure",
                   {"auth: string " + digest + " is not a valid MD5 sum"});
}

TEST_F(commands, have_their_response_and_log)
{
    const std::string other = "00-11-22-33-44-55";
    const lines no_mac = {"remote: couldn't find MAC address in topic "};
    const row rows[] = {
        {"12;7;noop", "12;7;ACK"},
        {"12;7;noop;;x", "12;7;ACK"},
        {"12;7;n", "12;7;ACK"},
        {"4294967295;4294967295;noop", "4294967295;4294967295;ACK"},
        {"0012;07;noop", "12;7;ACK"},
        {std::string("12;7;noop\0x", 11), "12;7;ACK"},
        {"", ""},
        dropped("12;7"),
        dropped("x;7;noop"),
        dropped("12;;noop"),
        dropped("+12;7;noop"),
        dropped("12; 7;noop"),
        dropped("4294967296;7;noop"),
        {std::string(1, '\0'), "", dropped("").log},
        unknown("12;7;frobnicate"),
        unknown("12;7;subscribed;" + PEER_FILTER),
        unknown("12;7;NOOP"),
        unknown("12;7;" + std::string(10'000, 'x')),
        {"12;7;", "12;7;NACK;internal error", no_mac}, // no keyword subscribes
        refused("unsubscribe", "internal error", no_mac),
        refused("disconnect", "client has no subscriptions", {"command: no active client with ID 1"}),
        bad_period("65536"),
        bad_period("99999999999999999999"),
        bad_period("-1"),
        bad_period(" +1"),
        bad_reset(other),
        bad_reset(other + ";"),
        bad_reset(other + "; B"),
        bad_reset("00-11-22-33-44-555;B"),
        bad_reset("00-11-22-33-44;B"),
        bad_reset("00-11-22-33-44-+5;B"),
        refused("reset", "invalid input", {"command: couldn't parse rest of command "}), // of one port
        refused("reset-stats;" + other + ";;", "invalid port identifier",
                {"command: couldn't parse port string ;"}),
        refused("reset-stats;" + LOCAL_MAC_TEXT + ";b", "internal error",
                {"stats: statistics reset: port B does not exist",
                 "command: couldn't reset port b's statistics"}),
        refused("reset-stats;" + other + ";b", "internal error",
                {"remote: couldn't find fire IP address for node " + other,
                 "command: couldn't reset remote port's statistics"}),
        refused("activate;3 4", "invalid input", {"command: no authentication string in 3 4"}),
        bad_digest(std::string(31, '0')),
        bad_digest(" 1+10x" + std::string(27, '0')),
        refused("activate;x;" + WRONG_DIGEST, "authentication failure", {}),
        bad_download("1;3"),
        bad_download("1;3;"),
        bad_download("2;3;x"),
        bad_download("11;3;x"),
    };
    for (const row &each : rows) {
        SetUp(); // anew: failed answers to the challenge are counted
        const std::string before = challenge();
        EXPECT_EQ(answer(each.text), each.response.empty() ? lines() : lines({each.response}));
        EXPECT_EQ(take_log(), each.log);
        EXPECT_EQ(challenge(), before);
        EXPECT_EQ(take_packets(), datagrams());
    }
}

TEST_F(commands, reset_statistics_here_and_there)
{
    publish("local/diag/port/B/type", "fire", false);
    take_packets();
    EXPECT_EQ(answer("1;2;reset-stats;0-1a-2B-3c-4d-5e;bx"), lines({"1;2;ACK"}));
    EXPECT_EQ(take_packets(), datagrams());
    EXPECT_EQ(answer("1;3;reset-stats;" + PEER_MAC_TEXT + ";c"), lines({"1;3;ACK"}));
    EXPECT_EQ(take_packets(), datagrams({to_peer(PACKET_RESET_STATS, be(2, 1))}));
    EXPECT_EQ(answer("1;4;reset-all-stats"), lines({"1;4;ACK"}));
    EXPECT_EQ(take_packets(), datagrams({to_all(PACKET_RESET_ALL_STATS)}));
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
                  datagrams({to_peer(PACKET_SUBSCRIBE,
                                     be(next_id, 4) + be(5, 4) + be(period, 2) + terminated(PEER_FILTER))}))
            << text;
        acknowledge(next_id++);
    }
}

TEST_F(commands, about_subscriptions_are_answered_when_the_node_has_or_never)
{
    request("5;1;subscribe;" + PEER_FILTER);
    request("6;2;unsubscribe;" + PEER_FILTER + ";ignored");
    advance(1ns);
    receive_packet(PACKET_ACK, be(0, 4));
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
    EXPECT_EQ(keepalives(), datagrams());
    subscribe();
    subscribe();
    subscribe("unsubscribe");
    request("4;1;subscribe;" + PEER_FILTER);
    advance(1ns);
    acknowledge(next_id++);
    EXPECT_EQ(keepalives(), datagrams({keepalive, to_all(PACKET_CLIENT_KEEPALIVE, be(4, 4))}));
    EXPECT_EQ(answer("4;2;disconnect"), lines({"4;2;ACK"}));
    next_id++;
    advance(11s);
    EXPECT_EQ(keepalives(), datagrams({keepalive}));
    subscribe("unsubscribe");
    EXPECT_EQ(take_responses(), lines({"5;1;ACK"}));
    EXPECT_EQ(keepalives(), datagrams());

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
    EXPECT_EQ(take_packets(), datagrams({to_all(PACKET_UNSUBSCRIBE_ALL, be(1, 4) + be(5, 4))}));
    EXPECT_EQ(answer("5;3;disconnect"), lines({"5;3;NACK;client has no subscriptions"}));
    EXPECT_EQ(take_log(), lines({"command: no active client with ID 5"}));
}

TEST_F(commands, disconnect_that_cannot_be_sent_keeps_the_client)
{
    subscribe();
    fail(system_call::TIMERFD_CREATE, EMFILE);
    EXPECT_EQ(answer("5;2;disconnect"), lines({"5;2;NACK;internal error"}));
    EXPECT_EQ(take_log().back(), "command: couldn't send unsubscribe all message for client 5");
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
    EXPECT_EQ(retained("local/activate"), "\x05");
    advance(1ns);
    datagrams sent = take_packets();
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
    for (const size_t flag : {1U, 0U}) {
        EXPECT_EQ(answer("1;2;remote-download;" + std::to_string(flag) + ";;7 9;" + digest() + ";ignored"),
                  lines());
        EXPECT_EQ(retained("local/remotedl"), be(flag, 1));
        advance(1ns);
        EXPECT_EQ(take_packets(), datagrams({to_peer(PACKET_REMOTE_DOWNLOAD, be(next_id, 4) + be(flag, 1))}));
        acknowledge(next_id++);
        EXPECT_EQ(take_responses(), lines({"1;2;ACK"}));
    }
}

TEST_F(commands, without_remote_nodes_are_answered_at_once)
{
    receive_summary(number_section(OWN_NUMBER)); // the peer now has the number of this node
    EXPECT_EQ(answer(activate("")), lines({"1;2;ACK"}));
    EXPECT_EQ(retained("local/activate"), "");
    take_requests();
    EXPECT_EQ(answer(activate("007")), lines({"1;2;ACK"}));
    EXPECT_EQ(std::ranges::count(take_requests(), "PUBLISH local/activate"), 2);
    EXPECT_EQ(answer(activate("42 7")), lines({"1;2;NACK;failed nodes: 42"}));
    EXPECT_EQ(take_packets(), datagrams());
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
    EXPECT_EQ(retained("local/activate"), "");
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

TEST_F(commands, challenge_of_ten_three_digit_indices_fits)
{
    daemon().srand(43728680); // draws them
    EXPECT_EQ(answer(activate("")), lines({"1;2;ACK"}));
    EXPECT_EQ(challenge().size(), 2U + 10 * 3 + 9) << challenge();
    EXPECT_EQ(answer(activate("")), lines({"1;2;ACK"}));
}

TEST_F(commands, challenges_list_2_to_10_of_the_127_words)
{
    size_t fewest = 127;
    size_t most = 0;
    int lowest = 127;
    int highest = 0;
    for (int round = 0; round < 500; round++) {
        EXPECT_EQ(answer(activate("")), lines({"1;2;ACK"}));
        EXPECT_NE(challenge().back(), ' ');
        std::istringstream indices(challenge().substr(2));
        size_t count = 0;
        for (int index; indices >> index; count++) {
            lowest = std::min(lowest, index);
            highest = std::max(highest, index);
        }
        fewest = std::min(fewest, count);
        most = std::max(most, count);
    }
    EXPECT_EQ(std::vector<size_t>({fewest, most}), std::vector<size_t>({2, 10}));
    EXPECT_EQ(lowest, 0);
    EXPECT_EQ(highest, 126);
}

} // namespace
