// Invariant 3: every request of a client is answered exactly once, in time, and the answer is true.
#include "topics.h"
#include "wire.h"
#include "world.h"

#include <algorithm>
#include <map>
#include <set>

namespace sim
{

namespace
{

constexpr seconds OF_OTHER_NODES = seconds(11); // ten transmissions, a second apart, and the last second
constexpr seconds AT_ONCE = seconds(1);
constexpr seconds SLACK = seconds(1);

struct waiting {
    client_request request;
    nanoseconds since;
};

// When a node was last asked for something by another, by kind of packet; for a subscription also which.
struct served {
    nanoseconds subscribed = seconds(-1);
    nanoseconds unsubscribed = seconds(-1);
};

class requests_checker final : public checker
{
public:
    explicit requests_checker(world &where)
        : checker(where), response_topic_(where.topics().number(RESPONSE_TOPIC))
    {
    }

    void requested(node &which, const client_request &request) override
    {
        waiting_[{which.index(), request.client, request.transaction}] = {request, world_.clock().now()};
    }

    // The text says that a client asks again when the daemon or the broker was restarted.
    void starts(node &which) override
    {
        forget(which);
        hidden_challenges_.erase(which.index());
    }
    void killed(node &which) override { forget(which); }
    void ended(node &which, int) override { forget(which); }
    void broker_stops(node &which) override { forget(which); }

    void logs(node &which, const char *line) override
    {
        if (std::string_view(line).ends_with("couldn't change secret indices")) {
            hidden_challenges_.insert(which.index());
        }
    }

    void receives(node &which, uint32_t, std::span<const uint8_t> datagram) override
    {
        const auto packet = wire::read(datagram);
        if (!packet || (packet->kind != wire::SUBSCRIBE && packet->kind != wire::UNSUBSCRIBE)) {
            return;
        }
        const bool adds = packet->kind == wire::SUBSCRIBE;
        const auto filter = packet->text(adds ? wire::FILTER_OF_SUBSCRIBE : wire::FILTER_OF_UNSUBSCRIBE);
        served &done = served_[{world_.find_node(packet->mac), packet->u32(4), std::string(*filter)}];
        (adds ? done.subscribed : done.unsubscribed) = world_.clock().now();
        static_cast<void>(which);
    }

    void published(node &which, const mqtt_message &message) override
    {
        if (!message.is_from_daemon) {
            return;
        }
        const std::string &topic = world_.topics().name(message.topic);
        if (topic == ACTIVATE_TOPIC || topic == REMOTE_DOWNLOAD_TOPIC) {
            carried_out_[{which.index(), message.topic}] = world_.clock().now();
        }
        if (topic == CHALLENGE_TOPIC) {
            hidden_challenges_.erase(which.index());
        }
        if (message.topic == response_topic_) {
            take_answer(which, message.payload.text());
        }
    }

    // A client that gets no answer waits for ever, or takes a command for done that isn't.
    void sample() override
    {
        const nanoseconds now = world_.clock().now();
        for (auto each = waiting_.begin(); each != waiting_.end();) {
            const auto &[index, client, transaction] = each->first;
            const waiting &open = each->second;
            const node &card = world_.at(index);
            const nanoseconds limit = (may_reach_others(open.request) ? OF_OTHER_NODES : AT_ONCE) + SLACK;
            if (now <= std::max(open.since, card.disturbed_until()) + limit) {
                ++each;
                continue;
            }
            // The extra unsubscribe of a client without subscriptions is not answered.
            if (open.request.type != client_request::kind::UNSUBSCRIBE) {
                world_.fail("every-request-is-answered", index, "request %u;%u has no answer after %.1f s",
                            client, transaction, in_seconds(now - open.since));
            }
            each = waiting_.erase(each);
        }
    }

private:
    static bool is_for_others(const client_request &request)
    {
        return request.type != client_request::kind::OTHER &&
               request.type != client_request::kind::DISCONNECT;
    }

    // A response that was right when it was sent may be too late: refused at once, or passed on after all.
    static bool may_reach_others(const client_request &request)
    {
        return is_for_others(request) || (!request.targets.empty() && request.expected.empty());
    }

    void forget(const node &which)
    {
        std::erase_if(waiting_, [&](const auto &each) { return std::get<0>(each.first) == which.index(); });
    }

    void take_answer(const node &which, std::string_view answer)
    {
        world_.count().answers++;
        unsigned client;
        unsigned transaction;
        int length = 0;
        if (sscanf(std::string(answer).c_str(), "%u;%u;%n", &client, &transaction, &length) != 2 ||
            length == 0) {
            world_.fail("every-answer-belongs-to-a-request", which.index(), "%s",
                        std::string(answer).c_str());
        }
        const auto found = waiting_.find({which.index(), client, transaction});
        if (found == waiting_.end()) {
            if (world_.clock().now() > which.disturbed_until()) {
                world_.fail("every-answer-belongs-to-a-request", which.index(), "%s, which nobody waits for",
                            std::string(answer).c_str());
            }
            return;
        }
        check_answer(which, found->second, std::string(answer.substr(static_cast<size_t>(length))));
        waiting_.erase(found);
    }

    void check_answer(const node &which, const waiting &open, const std::string &verdict)
    {
        const client_request &request = open.request;
        if (!verdict.starts_with("ACK") && !verdict.starts_with("NACK;")) {
            world_.fail("answers-are-true", which.index(), "%s is no answer", verdict.c_str());
        }
        if (!request.expected.empty() && verdict != request.expected) {
            world_.fail("answers-are-true", which.index(), "%s instead of %s", verdict.c_str(),
                        std::string(request.expected).c_str());
        }
        const bool is_right_unknown =
            request.type == client_request::kind::TARGETS && hidden_challenges_.contains(which.index());
        if (verdict == "ACK") {
            check_done(which, open);
        } else if (is_right_unknown) {
            return;
        } else if (is_for_others(request) && is_reachable(which, open)) {
            world_.fail("answers-are-true", which.index(), request.targets[0],
                        "%s, though node %zu could be reached", verdict.c_str(), request.targets[0] + 1);
        }
    }

    // What is acknowledged has been done.
    void check_done(const node &which, const waiting &open)
    {
        const client_request &request = open.request;
        const bool adds = request.type == client_request::kind::SUBSCRIBE;
        if (adds || request.type == client_request::kind::UNSUBSCRIBE) {
            const served &done = served_[{which.index(), request.client, request.filter}];
            if ((adds ? done.subscribed : done.unsubscribed) < open.since) {
                world_.fail("answers-are-true", which.index(), request.targets[0],
                            "ACK, but node %zu has not got this request", request.targets[0] + 1);
            }
        }
        if (request.type == client_request::kind::TARGETS) {
            for (const size_t target : request.targets) {
                const auto found = carried_out_.find({target, request.target_topic});
                const bool is_settled = world_.clock().now() > world_.at(target).disturbed_until();
                if ((found == carried_out_.end() || found->second < open.since) && is_settled) {
                    world_.fail("answers-are-true", which.index(), target,
                                "ACK, but node %zu has not done it", target + 1);
                }
            }
        }
    }

    // Whether all targets could be asked all the time, so that there is no reason to refuse.
    bool is_reachable(const node &which, const waiting &open)
    {
        const auto is_sound = [&](const node &each) {
            return each.daemon().is_alive() && each.unsettled_until() + seconds(2) < open.since;
        };
        return is_sound(which) && std::max(world_.fair_since(), joined_) < open.since &&
               std::ranges::all_of(open.request.targets, [&](size_t target) {
                   return is_sound(world_.at(target)) &&
                          (target == which.index() || heard_since(which.index(), target)) &&
                          world_.fire().are_connected(which.index(), target);
               });
    }

    // A number stands for the nodes that have been heard of.
    bool heard_since(size_t which, size_t target)
    {
        const nanoseconds long_ago = world_.clock().now() - seconds(80);
        return world_.at(which).started() < long_ago && world_.at(target).started() < long_ago &&
               joined_ < long_ago && world_.fair_since() < long_ago &&
               world_.at(which).disturbed_until() < long_ago &&
               world_.at(target).disturbed_until() < long_ago;
    }

    void connectivity_changed() override { joined_ = world_.clock().now(); }

    topic_id response_topic_;
    nanoseconds joined_{};
    std::map<std::tuple<size_t, uint32_t, uint32_t>, waiting> waiting_;
    std::map<std::tuple<size_t, uint32_t, std::string>, served> served_; // by asking node, client, filter
    std::map<std::pair<size_t, topic_id>, nanoseconds> carried_out_;
    std::set<size_t> hidden_challenges_; // nodes whose challenge is one that the daemon could not publish
};

} // namespace

std::unique_ptr<checker> make_requests_checker(world &where)
{
    return std::make_unique<requests_checker>(where);
}

} // namespace sim
