#include "client.h"

#include "broker/challenge.h"
#include "common/text.h"
#include "topics.h"
#include "world.h"

#include <array>

namespace sim
{

namespace
{

constexpr const char *FILTERS[] = {"#",           NODE_PORT_SUMMARY, "+/stats", "A/stats",
                                   NODE_JOB_NAME, NODE_M301,         "A/pm/#"};
constexpr const char *PERIODS[] = {"", ";1", ";5", ";036", ";0x1E", ";60", ";0", ";700"};
constexpr const char *WRONG_RESPONSE = "0123456789abcdef0123456789abcdef";
constexpr nanoseconds CHALLENGE_SETTLES = seconds(5);

const word_table WORDS = {
#include "secrets.inc"
};

} // namespace

size_t client_group::draw_peer(random_stream &random) const
{
    const std::vector<size_t> &peers = world_.peers_of(card_.index());
    return peers[random.below(static_cast<uint32_t>(peers.size()))];
}

void client_group::ask(client_request request, const std::string &text)
{
    if (!card_.broker().is_running()) {
        return;
    }
    world_.count().requests++;
    const std::string line =
        std::to_string(request.client) + ";" + std::to_string(request.transaction) + ";" + text;
    world_.trace(card_.index(), "client asks %s", line.c_str());
    if (card_.broker().publish(world_.topics().number(REQUEST_TOPIC), shared_bytes(line), false)) {
        world_.watch().requested(card_, request);
    }
}

std::string client_group::draw_filter(random_stream &random, size_t target) const
{
    const char *const name = FILTERS[random.below(std::size(FILTERS))];
    return topic_text(NODE_TOPIC_FORMAT, world_.at(target).mac_text().c_str(), name).text;
}

void client_group::ask_subscription(random_stream &random, client_request request, bool adds)
{
    const size_t target = draw_peer(random);
    request.targets = {target};
    request.filter = draw_filter(random, target);
    request.type = adds ? client_request::kind::SUBSCRIBE : client_request::kind::UNSUBSCRIBE;
    const char *const period = PERIODS[random.below(std::size(PERIODS))];
    ask(request, adds ? "subscribe;" + request.filter + period : "unsubscribe;" + request.filter);
}

std::string client_group::draw_list(random_stream &random, client_request &request)
{
    std::string list;
    for (unsigned count = 1 + random.below(3); count > 0; count--) {
        const size_t target = random.chance(0.2) ? card_.index() : draw_peer(random);
        request.targets.push_back(target);
        list += (list.empty() ? "" : " ") + std::to_string(world_.at(target).number());
    }
    return list;
}

void client_group::ask_targets(random_stream &random, client_request request)
{
    const shared_bytes *const challenge = card_.broker().find(world_.topics().number(CHALLENGE_TOPIC));
    if (challenge == nullptr) {
        return;
    }
    const bool is_right = random.chance(0.7);
    const nanoseconds now = world_.clock().now();
    // Two answers to one challenge: the second is too late.
    const bool is_certain =
        now - last_challenge_use_ > CHALLENGE_SETTLES && now > card_.disturbed_until() + CHALLENGE_SETTLES;
    last_challenge_use_ = now;
    const bool is_replayed = !used_response_.empty() && challenge->text() != used_challenge_;
    const std::string response = is_right      ? challenge_response(challenge->text(), WORDS).value()
                                 : is_replayed ? used_response_
                                               : WRONG_RESPONSE;
    if (is_right) {
        used_challenge_ = challenge->text();
        used_response_ = response;
    }
    // What was the response to another challenge may be that to the daemon's, whose topic is behind while the
    // broker is.
    if (!is_right && (is_certain || !is_replayed)) {
        request.expected = "NACK;authentication failure";
    }
    const std::string list = draw_list(random, request);
    const bool activates = random.chance(0.5);
    request.target_topic = world_.topics().number(activates ? ACTIVATE_TOPIC : REMOTE_DOWNLOAD_TOPIC);
    if (is_right && is_certain) {
        request.type = client_request::kind::TARGETS;
    }
    ask(request,
        activates ? "activate;" + list + ";" + response : "remote-download;1;" + list + ";" + response);
}

void client_group::ask_other(random_stream &random, client_request request)
{
    switch (random.below(6)) {
    case 0:
        request.expected = "ACK";
        ask(request, "noop");
        break;
    case 1:
        request.expected = "NACK;unknown command";
        ask(request, "frobnicate");
        break;
    case 2:
        ask(request, std::string("subscribe;") + LINK_DOWN_TOPIC);
        break;
    case 3:
        request.expected = "NACK;invalid period value";
        ask(request, "subscribe;pub/diag/02-00-00-00-00-01/#;70000");
        break;
    case 4:
        ask(request, "reset-stats;" + world_.at(draw_peer(random)).mac_text() + ";" +
                         (random.chance(0.5) ? "A" : "b"));
        break;
    default:
        ask(request, random.chance(0.2) ? "reset-all-stats" : "reset-stats;" + card_.mac_text() + ";A");
        break;
    }
}

void client_group::ask_by_chance(random_stream &random)
{
    constexpr uint32_t CLIENTS = std::tuple_size_v<decltype(returns_)>;
    const uint32_t which = random.below(CLIENTS);
    const uint32_t client = 1 + which + CLIENTS * returns_[which];
    client_request request = {
        .client = client, .transaction = ++transactions_, .type = client_request::kind::OTHER};
    switch (random.below(10)) {
    case 0:
    case 1:
    case 2:
        ask_subscription(random, request, true);
        break;
    case 3:
        ask_subscription(random, request, false);
        break;
    case 4:
    case 5:
        returns_[which]++;
        request.type = client_request::kind::DISCONNECT;
        ask(request, "disconnect");
        break;
    case 6:
    case 7:
        ask_targets(random, request);
        break;
    default:
        ask_other(random, request);
        break;
    }
}

void client_group::ask_wrong_reset(size_t target)
{
    const client_request request = {
        .client = 0, .transaction = ++transactions_, .type = client_request::kind::OTHER};
    ask(request, "reset-stats;" + world_.at(target).mac_text() + ";H");
}

} // namespace sim
