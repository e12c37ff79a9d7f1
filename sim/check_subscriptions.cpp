// Invariant 4: a subscriber sees every value that stood still for its period; its subscription lives as long as its
// keepalives, and no longer.
#include "topics.h"
#include "wire.h"
#include "world.h"

#include <mosquitto.h>

#include <algorithm>
#include <deque>
#include <map>
#include <set>
#include <tuple>
#include <unordered_map>

namespace sim
{

namespace
{

constexpr seconds LIFETIME = seconds(1200);
constexpr seconds KEEPALIVE_PERIOD = seconds(300);
constexpr seconds SLACK = seconds(2);
constexpr seconds LONGEST_FREEZE = seconds(50);
constexpr size_t LARGEST_TOPIC_DATA = 1013;
// The event loop, the broker's session and its timer, the socket, and the timers of sending, purging, periods and
// keepalives.
constexpr size_t DESCRIPTORS_AT_REST = 8;
constexpr size_t BLOCKS_OF_TOPIC = 2; // its last message and its name, which a daemon keeps
constexpr seconds PURGE_AGE = seconds(35);
constexpr seconds PURGED_AFTER = seconds(71);

bool matches(const std::string &filter, const std::string &topic)
{
    bool result = false;
    mosquitto_topic_matches_sub(filter.c_str(), topic.c_str(), &result);
    return result;
}

// What one node serves to a client of another.
struct subscription {
    size_t requester;
    uint32_t client;
    std::string filter;
    uint32_t address;
    seconds period;
    nanoseconds created;
    nanoseconds renewed;
    nanoseconds missed{};  // time in which the daemon got no processor: lives are sends, not seconds
    bool is_vague = false; // it may have ended and been made anew
    std::map<topic_id, nanoseconds> owed = {}; // since when a changed value is to be sent

    int64_t lives() const { return period == seconds(0) ? 1 : std::max(LIFETIME / period, int64_t{1}); }
    bool is_surely_alive(nanoseconds now) const
    {
        return !is_vague && (period == seconds(0) || now <= renewed + (lives() - 1) * period);
    }
    bool may_be_alive(nanoseconds now) const
    {
        return period == seconds(0) || now <= renewed + (lives() + 1) * period + missed + SLACK;
    }
};

// A client with subscriptions on other nodes, on its own node.
struct holder {
    unsigned count = 0;
    nanoseconds changed{};
    nanoseconds reminded{}; // the last keepalive
};

struct relayed {
    std::string topic;
    std::string payload;
    nanoseconds since;
};

struct side {
    std::vector<subscription> served;
    std::unordered_map<topic_id, shared_bytes> own_values;
    std::map<uint32_t, holder> clients;
    std::map<std::pair<uint32_t, uint32_t>, client_request::kind> requests;
    std::deque<relayed> to_relay;
    std::map<size_t, nanoseconds> heard; // the last summary of each node
    std::set<topic_id> topics;           // its own that had a value
    bool are_topics_vague = false;       // one lost its value before the daemon may have heard of it

    void forget_daemon()
    {
        served.clear();
        clients.clear();
        requests.clear();
        to_relay.clear();
        heard.clear();
        topics.clear();
        are_topics_vague = false;
    }
};

class subscriptions_checker final : public checker
{
public:
    explicit subscriptions_checker(world &where)
        : checker(where), response_topic_(where.topics().number(RESPONSE_TOPIC))
    {
    }

    void starts(node &which) override
    {
        of(which).forget_daemon();
        for (const auto &[topic, value] : of(which).own_values) {
            if (!value.empty()) {
                of(which).topics.insert(topic);
            }
        }
    }
    void ended(node &which, int) override { of(which).forget_daemon(); }
    void killed(node &which) override { of(which).forget_daemon(); }
    void excuse(node &which, const char *why) override
    {
        for (subscription &each : of(which).served) {
            each.missed += std::string_view(why) == "no processor" ? LONGEST_FREEZE : seconds(0);
        }
    }
    void broker_stops(node &which) override { of(which).own_values.clear(); }
    void requested(node &which, const client_request &request) override
    {
        of(which).requests[{request.client, request.transaction}] = request.type;
    }

    void published(node &which, const mqtt_message &message) override
    {
        if (message.is_retained) {
            if (owner_of(message.topic) == which.index()) {
                note_value(which, message);
            }
        } else if (message.is_from_daemon) {
            if (message.topic == response_topic_) {
                note_answer(which, std::string(message.payload.text()));
            } else {
                note_relay(which, message);
            }
        }
    }

    void receives(node &which, uint32_t sender, std::span<const uint8_t> datagram) override
    {
        const auto packet = wire::read(datagram);
        if (!packet) {
            return;
        }
        const size_t requester = world_.find_node(packet->mac);
        std::vector<subscription> &served = of(which).served;
        switch (packet->kind) {
        case wire::SUMMARY:
            of(which).heard[requester] = world_.clock().now();
            break;
        case wire::SUBSCRIBE:
            add(which, sender, *packet, requester);
            break;
        case wire::UNSUBSCRIBE:
            std::erase_if(served, [&](const subscription &each) {
                return each.requester == requester && each.client == packet->u32(4) &&
                       each.filter == packet->text(wire::FILTER_OF_UNSUBSCRIBE);
            });
            break;
        case wire::UNSUBSCRIBE_ALL:
            std::erase_if(served, [&](const subscription &each) {
                return each.requester == requester && each.client == packet->u32(4);
            });
            break;
        case wire::GOODBYE:
            of(which).heard.erase(requester);
            std::erase_if(served, [&](const subscription &each) { return each.requester == requester; });
            break;
        case wire::CLIENT_KEEPALIVE:
            renew(which, requester, packet->u32(0));
            break;
        case wire::TOPIC_DATA: {
            const std::string topic(*packet->text(0));
            const auto value = packet->payload.subspan(topic.size() + 1);
            of(which).to_relay.push_back(
                {topic, {reinterpret_cast<const char *>(value.data()), value.size()}, world_.clock().now()});
            break;
        }
        default:
            break;
        }
    }

    void sends(node &which, uint32_t address, std::span<const uint8_t> datagram) override
    {
        if (datagram.size() <= wire::HEADER) {
            return;
        }
        if (datagram[wire::TYPE] == wire::TOPIC_DATA) {
            note_sent(which, address, datagram.subspan(wire::HEADER));
        } else if (datagram[wire::TYPE] == wire::CLIENT_KEEPALIVE) {
            note_keepalive(which, wire::read(datagram)->u32(0));
        }
    }

    void sample() override
    {
        for (size_t i = 0; i < world_.size(); i++) {
            node &each = world_.at(i);
            if (each.daemon().is_alive() && world_.clock().now() > each.disturbed_until()) {
                check_served(each);
                check_clients(each);
                check_relayed(each);
            }
        }
    }

    // Each subscription has a timer, and nothing else has one that isn't always there.
    void calm() override
    {
        sample();
        const nanoseconds now = world_.clock().now();
        for (size_t i = 0; i < world_.size(); i++) {
            node &each = world_.at(i);
            const std::vector<subscription> &served = of(each).served;
            const bool is_certain = std::ranges::all_of(
                served, [&](const subscription &one) { return one.is_surely_alive(now); });
            const bool is_settled = now > each.unsettled_until() + seconds(30);
            if (each.daemon().is_alive() && is_certain && is_settled &&
                each.daemon().count_descriptors() != DESCRIPTORS_AT_REST + served.size()) {
                world_.fail("descriptors-go-with-their-subscriptions", i,
                            "%zu descriptors with %zu subscriptions served",
                            each.daemon().count_descriptors(), served.size());
            }
            if (each.daemon().is_alive() && is_certain) {
                check_memory(each);
            }
        }
    }

private:
    side &of(const node &which)
    {
        sides_.resize(world_.size());
        return sides_[which.index()];
    }

    // The node whose own topic this is, world_.size() for none.
    size_t owner_of(topic_id topic)
    {
        while (owners_.size() <= topic) {
            owners_.push_back(world_.find_owner(world_.topics().name(static_cast<topic_id>(owners_.size()))));
        }
        return owners_[topic];
    }

    // Its broker may have to tell the daemon something yet.
    bool is_early(const node &which) const { return world_.clock().now() < which.unsettled_until() + SLACK; }

    //
    // The node that serves
    //

    void add(const node &which, uint32_t sender, const wire::packet &packet, size_t requester)
    {
        const nanoseconds now = world_.clock().now();
        std::vector<subscription> &served = of(which).served;
        const std::string filter(*packet.text(wire::FILTER_OF_SUBSCRIBE));
        const auto found = std::ranges::find_if(served, [&](const subscription &each) {
            return each.requester == requester && each.client == packet.u32(4) && each.filter == filter;
        });
        if (found != served.end() && found->is_surely_alive(now)) {
            return; // changes nothing
        }
        subscription added = {.requester = requester,
                              .client = packet.u32(4),
                              .filter = filter,
                              .address = sender,
                              .period = seconds(packet.u16(8)),
                              .created = now,
                              .renewed = now};
        if (found != served.end()) {
            added.is_vague = found->may_be_alive(now);
            // The longer life: one without a period has no end.
            if (added.is_vague && added.period > seconds(0)) {
                added.period =
                    found->period == seconds(0) ? seconds(0) : std::max(added.period, found->period);
            }
            served.erase(found);
        }
        // What its broker has not told the daemon yet can't be sent at once, and without a period it is not sent later.
        const bool comes_too_early = added.period == seconds(0) && is_early(which);
        for (const auto &[topic, value] : of(which).own_values) {
            if (!value.empty() && matches(filter, world_.topics().name(topic)) && !comes_too_early) {
                added.owed[topic] = now;
            }
        }
        served.push_back(std::move(added));
    }

    void renew(const node &which, size_t requester, uint32_t client)
    {
        for (subscription &each : of(which).served) {
            if (each.requester == requester && each.client == client &&
                each.may_be_alive(world_.clock().now())) {
                each.is_vague = each.is_vague || !each.is_surely_alive(world_.clock().now());
                each.renewed = world_.clock().now();
            }
        }
    }

    void note_value(const node &which, const mqtt_message &message)
    {
        shared_bytes &value = of(which).own_values[message.topic];
        if (value == message.payload) {
            return;
        }
        value = message.payload;
        if (!value.empty()) {
            of(which).topics.insert(message.topic);
        } else if (is_early(which)) {
            of(which).are_topics_vague = true;
        }
        const std::string &topic = world_.topics().name(message.topic);
        for (subscription &each : of(which).served) {
            if (!matches(each.filter, topic)) {
                continue;
            }
            if (value.empty() || topic.size() + value.size() > LARGEST_TOPIC_DATA) {
                each.owed.erase(message.topic);
            } else if (each.period > seconds(0)) {
                each.owed.emplace(message.topic, world_.clock().now());
            }
        }
    }

    // Data for nobody costs the network for ever: the client is long gone.
    void note_sent(const node &which, uint32_t address, std::span<const uint8_t> payload)
    {
        const std::string topic(reinterpret_cast<const char *>(payload.data()));
        const nanoseconds now = world_.clock().now();
        const topic_id number = world_.topics().number(topic);
        const shared_bytes &current = of(which).own_values[number];
        const auto value = payload.subspan(topic.size() + 1);
        bool is_wanted = false;
        for (subscription &each : of(which).served) {
            if (each.address != address || !matches(each.filter, topic)) {
                continue;
            }
            const bool is_once = each.period == seconds(0) && !each.is_vague;
            is_wanted = is_wanted || (is_once ? now <= each.created + SLACK : each.may_be_alive(now)) ||
                        now <= which.disturbed_until() + each.period;
            const auto owed = each.owed.find(number);
            if (owed != each.owed.end()) {
                if (is_once || std::ranges::equal(value, current.bytes())) {
                    each.owed.erase(owed);
                } else {
                    owed->second = now;
                }
            }
        }
        if (!is_wanted) {
            world_.fail("a-subscription-ends", which.index(), address - fire_network::address(0),
                        "%s is sent to a node that has no subscription to it", topic.c_str());
        }
    }

    void check_served(const node &which)
    {
        const nanoseconds now = world_.clock().now();
        std::erase_if(of(which).served, [&](const subscription &each) {
            return !each.may_be_alive(now) && now > which.disturbed_until() + each.period;
        });
        for (const subscription &each : of(which).served) {
            for (const auto &[topic, since] : each.owed) {
                const nanoseconds due = std::max(since, which.disturbed_until()) + each.period + SLACK;
                if (now > due && each.is_surely_alive(due)) {
                    world_.fail("a-subscriber-sees-every-value", which.index(), each.requester,
                                "%s has not been sent for %.1f s to client %u, who wants it each %lld s",
                                world_.topics().name(topic).c_str(), in_seconds(now - since), each.client,
                                static_cast<long long>(each.period.count()));
                }
            }
        }
    }

    // The blocks in use besides those of topics are as many whenever, and wherever, a daemon has the same to remember.
    void check_memory(const node &which)
    {
        const side &card = of(which);
        const nanoseconds now = world_.clock().now();
        const mqtt_connection *const session = which.broker().connection();
        const bool is_idle = session != nullptr && session->to_broker.empty() && session->to_client.empty() &&
                             session->arrived.empty();
        if (!is_idle || card.are_topics_vague || now < which.unsettled_until() + PURGED_AFTER) {
            return;
        }
        size_t known = 0;
        for (const auto &[other, heard] : card.heard) {
            if (now >= heard + PURGE_AGE && now <= heard + PURGED_AFTER) {
                return;
            }
            known += now < heard + PURGE_AGE ? 1U : 0U;
        }
        const auto clients = static_cast<size_t>(
            std::ranges::count_if(card.clients, [](const auto &each) { return each.second.count > 0; }));
        const auto ports =
            static_cast<size_t>(std::ranges::count_if(which.told().ports, &port_facts::is_tracked));
        const size_t blocks = which.daemon().count_allocations() - BLOCKS_OF_TOPIC * card.topics.size();
        const auto found =
            blocks_.emplace(situation{card.served.size(), known, ports, clients}, blocks).first;
        if (found->second != blocks) {
            world_.fail("memory-returns-to-where-it-was", which.index(),
                        "%zu blocks, and before, or elsewhere, %zu with as many subscriptions (%zu), nodes "
                        "(%zu), ports "
                        "(%zu) and clients (%zu)",
                        blocks, found->second, card.served.size(), known, ports, clients);
        }
    }

    //
    // The node of the subscriber
    //

    void note_answer(const node &which, const std::string &answer)
    {
        unsigned client;
        unsigned transaction;
        int length = 0;
        if (sscanf(answer.c_str(), "%u;%u;%n", &client, &transaction, &length) != 2) {
            return;
        }
        side &asking = of(which);
        const auto found = asking.requests.find({client, transaction});
        if (found == asking.requests.end()) {
            return;
        }
        const client_request::kind kind = found->second;
        asking.requests.erase(found);
        if (answer.substr(static_cast<size_t>(length)) != "ACK") {
            return;
        }
        const nanoseconds now = world_.clock().now();
        holder &entry = asking.clients[client];
        if (kind == client_request::kind::SUBSCRIBE) {
            entry.reminded = entry.count++ == 0 ? now : entry.reminded;
            entry.changed = now;
        } else if (kind == client_request::kind::UNSUBSCRIBE || kind == client_request::kind::DISCONNECT) {
            entry.count -= kind == client_request::kind::DISCONNECT ? entry.count : std::min(entry.count, 1U);
            entry.changed = now;
        }
    }

    void note_keepalive(const node &which, uint32_t client)
    {
        side &asking = of(which);
        const nanoseconds now = world_.clock().now();
        const auto found = asking.clients.find(client);
        const bool is_known =
            found != asking.clients.end() && (found->second.count > 0 || now < found->second.changed + SLACK);
        const bool is_asking = std::ranges::any_of(
            asking.requests, [&](const auto &each) { return each.first.first == client; });
        if (!is_known && !is_asking && now > which.disturbed_until()) {
            world_.fail("a-subscription-ends", which.index(),
                        "a keepalive for client %u, who has no subscription", client);
        }
        if (found != asking.clients.end()) {
            found->second.reminded = now;
        }
    }

    // Without keepalives the other nodes stop sending, and the client's values grow old without a word.
    void check_clients(const node &which)
    {
        const nanoseconds now = world_.clock().now();
        for (const auto &[client, entry] : of(which).clients) {
            if (entry.count > 0 &&
                now > std::max(entry.reminded, which.disturbed_until()) + KEEPALIVE_PERIOD + SLACK) {
                world_.fail("a-subscription-lives", which.index(), "no keepalive for client %u", client);
            }
        }
    }

    void note_relay(const node &which, const mqtt_message &message)
    {
        world_.count().relayed++;
        std::deque<relayed> &waiting = of(which).to_relay;
        const std::string &topic = world_.topics().name(message.topic);
        const auto found = std::ranges::find_if(waiting, [&](const relayed &each) {
            return each.topic == topic && each.payload == message.payload.text();
        });
        if (found != waiting.end()) {
            waiting.erase(found);
        } else if (world_.clock().now() > which.disturbed_until()) {
            world_.fail("a-subscriber-sees-every-value", which.index(),
                        "%s is relayed, which nobody has sent", topic.c_str());
        }
    }

    void check_relayed(const node &which)
    {
        std::deque<relayed> &waiting = of(which).to_relay;
        if (!waiting.empty() &&
            world_.clock().now() > std::max(waiting.front().since, which.disturbed_until()) + SLACK) {
            world_.fail("a-subscriber-sees-every-value", which.index(), "%s has come and is not relayed",
                        waiting.front().topic.c_str());
        }
    }

    topic_id response_topic_;
    std::vector<side> sides_;
    // The subscriptions served, nodes known, ports tracked and own clients: all that a daemon has records of.
    using situation = std::tuple<size_t, size_t, size_t, size_t>;
    std::map<situation, size_t> blocks_;
    std::vector<size_t> owners_;
};

} // namespace

std::unique_ptr<checker> make_subscriptions_checker(world &where)
{
    return std::make_unique<subscriptions_checker>(where);
}

} // namespace sim
