// Invariants 1 and 2: every card shows the same network, and the real one.
#include "records.h"
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

constexpr nanoseconds NEVER_HEARD = seconds(-1);
constexpr seconds SLACK = seconds(1);
constexpr seconds PURGE_AGE = seconds(35);
constexpr seconds PURGED_AFTER = seconds(71); // "up to twice that when all fall silent at once"
constexpr seconds SENT_EVERY = seconds(15);
constexpr seconds STATIC_SENT_EVERY = seconds(60);
constexpr seconds FIRST_SENT_WITHIN = seconds(3);
constexpr size_t LOOKED_AT = 24; // nodes in one look
constexpr size_t FULL_LIST = PORT_LIST_MAX * PORT_LIST_RECORD_SIZE;

// What one node has heard of another since its daemon started.
struct acquaintance {
    nanoseconds joined{};             // since when the network carries datagrams between them
    nanoseconds heard = NEVER_HEARD;  // the last summary
    nanoseconds left = NEVER_HEARD;   // the goodbye, unless a summary came after it
    nanoseconds absent = NEVER_HEARD; // the last time that it was allowed to be withdrawn
};

class topics_checker final : public checker
{
public:
    using checker::checker;

    void starts(node &b) override
    {
        has_listed_links_.resize(world_.size());
        has_listed_links_[b.index()] = false;
        for (size_t a = 0; a < world_.size(); a++) {
            acquaintance &between = at(a, b.index());
            between.heard = between.left = between.absent = NEVER_HEARD;
        }
    }

    void connectivity_changed() override
    {
        joined_.resize(world_.size() * world_.size());
        for (size_t a = 0; a < world_.size(); a++) {
            for (size_t b = 0; b < world_.size(); b++) {
                const bool reaches = world_.fire().are_connected(a, b);
                if (reaches && !is_joined(a, b)) {
                    at(a, b).joined = world_.clock().now();
                }
                joined_[a * world_.size() + b] = reaches ? 1 : 0;
            }
        }
    }

    void receives(node &b, uint32_t, std::span<const uint8_t> datagram) override
    {
        if (datagram.size() < wire::HEADER ||
            (datagram[wire::TYPE] != wire::SUMMARY && datagram[wire::TYPE] != wire::GOODBYE)) {
            return;
        }
        const auto packet = wire::read(datagram);
        const size_t a = packet ? world_.find_node(packet->mac) : world_.size();
        if (a == world_.size()) {
            return;
        }
        const nanoseconds now = world_.clock().now();
        acquaintance &between = at(a, b.index());
        if (packet->kind == wire::GOODBYE) {
            // A daemon that has not heard of the node since its start withdraws nothing.
            between.left = between.heard == NEVER_HEARD ? between.left : now;
            between.absent = now;
            between.heard = NEVER_HEARD;
            return;
        }
        if (between.heard != NEVER_HEARD && now - between.heard >= PURGE_AGE) {
            between.absent = now;
        }
        between.heard = now;
        between.left = NEVER_HEARD;
    }

    // A node that is there must not vanish: its panel would report a dead neighbour.
    void published(node &b, const mqtt_message &message) override
    {
        if (message.is_from_daemon && message.topic == links_topic_) {
            has_listed_links_[b.index()] = true;
        }
        if (!message.is_from_daemon || !message.payload.empty() ||
            message.topic >= world_.size() * TOPIC_ITEMS ||
            message.topic % TOPIC_ITEMS != static_cast<size_t>(item::PORT_SUMMARY)) {
            return;
        }
        const size_t a = message.topic / TOPIC_ITEMS;
        const acquaintance &between = at(a, b.index());
        const nanoseconds now = world_.clock().now();
        const bool is_silent = between.heard == NEVER_HEARD || now - between.heard >= PURGE_AGE;
        const bool was_absent = between.absent != NEVER_HEARD && now - between.absent < seconds(10);
        if (a != b.index() && !is_silent && !was_absent) {
            world_.fail("nobody-is-withdrawn-who-is-there", b.index(), a,
                        "the topics of node %zu are withdrawn %.3f s after its last summary", a + 1,
                        in_seconds(now - between.heard));
        }
    }

    void sample() override
    {
        if (world_.size() <= LOOKED_AT) {
            calm();
            return;
        }
        for (size_t i = 0; i < LOOKED_AT; i++) {
            check(world_.at(chance_.below(static_cast<uint32_t>(world_.size()))));
        }
    }

    void calm() override
    {
        for (size_t b = 0; b < world_.size(); b++) {
            check(world_.at(b));
        }
    }

private:
    struct listed {
        uint8_t number;
        uint8_t mask;
    };
    using port_list = std::map<size_t, listed>;

    acquaintance &at(size_t a, size_t b)
    {
        if (between_.empty()) {
            between_.resize(world_.size() * world_.size());
        }
        return between_[a * world_.size() + b];
    }

    bool is_joined(size_t a, size_t b) const { return joined_[a * world_.size() + b] != 0; }

    bool is_settled(const node &one, nanoseconds time) const
    {
        return world_.clock().now() > one.unsettled_until() + time;
    }

    // Whether b has had to hear of this item of a.
    bool has_to_know(size_t a, size_t b, item which)
    {
        node &source = world_.at(a);
        node &reader = world_.at(b);
        if (!source.daemon().is_alive() || !reader.daemon().is_alive() || !reader.broker().is_running()) {
            return false;
        }
        const nanoseconds now = world_.clock().now();
        if (a == b) {
            return now > source.due(which) + SLACK && is_settled(source, SENT_EVERY);
        }
        const bool is_static = ITEM_DESCRIPTIONS[static_cast<size_t>(which)].is_static;
        const nanoseconds period = (is_static ? STATIC_SENT_EVERY : SENT_EVERY) + FIRST_SENT_WITHIN + SLACK;
        const acquaintance &between = at(a, b);
        return is_joined(a, b) && now > source.due(which) + SLACK && is_settled(source, period) &&
               is_settled(reader, period) && now > std::max(between.joined, world_.fair_since()) + period;
    }

    // Whether b has had to forget a.
    bool has_to_forget(size_t a, size_t b)
    {
        const acquaintance &between = at(a, b);
        const node &reader = world_.at(b);
        const nanoseconds now = world_.clock().now();
        if (a == b || !reader.daemon().is_alive() || !reader.broker().is_running()) {
            return false;
        }
        const nanoseconds calm_since = reader.disturbed_until();
        return (between.left != NEVER_HEARD && now > std::max(between.left, calm_since) + SLACK) ||
               (between.heard != NEVER_HEARD && now > between.heard + PURGED_AFTER &&
                now > calm_since + PURGED_AFTER);
    }

    void check(node &b)
    {
        if (!b.daemon().is_alive()) {
            return;
        }
        for (size_t a = 0; a < world_.size(); a++) {
            if (has_to_forget(a, b.index())) {
                check_withdrawn(a, b);
            } else {
                check_topics(a, b);
            }
        }
        check_own(b);
        check_list(b, LINK_DOWN_TOPIC, item::LINK_DOWN,
                   [](const facts &told) { return told.mask(&port_facts::is_link_down); });
        check_list(b, GROUND_TOPIC, item::GROUND,
                   [](const facts &told) { return told.mask(&port_facts::is_grounded); });
        check_list(b, MISWIRED_TOPIC, item::MISWIRED, [](const facts &told) { return told.miswired(); });
        check_links(b);
        check_ring_status(b);
    }

    // A tool that asks any card sees each node's own facts: a technician sent out by a stale value finds nothing.
    void check_topics(size_t a, const node &b)
    {
        const node &source = world_.at(a);
        for (size_t i = 0; i < TOPIC_ITEMS; i++) {
            const auto which = static_cast<item>(i);
            if (a == b.index() && which != item::PORT_MEDIA) {
                continue; // the card's own processes write these, and the daemon's are the measure
            }
            const topic_id topic = source.topic(which);
            if (!has_to_know(a, b.index(), which) || b.broker().is_in_doubt(topic) ||
                source.broker().is_in_doubt(topic)) {
                continue;
            }
            const shared_bytes *const shown = b.broker().find(topic);
            const std::string_view text = shown == nullptr ? std::string_view() : shown->text();
            const bool is_own_words = which == item::PORT_SUMMARY || which == item::VERSIONS;
            const shared_bytes *const own = is_own_words ? source.broker().find(topic) : nullptr;
            const std::string wanted = !is_own_words    ? world_.at(a).told().on_others(which)
                                       : own == nullptr ? ""
                                                        : std::string(own->text());
            if (text != wanted) {
                world_.fail("every-card-shows-each-nodes-facts", b.index(), a,
                            "%s is \"%.*s\" and should be \"%s\"", world_.topics().name(topic).c_str(),
                            static_cast<int>(text.size()), text.data(), wanted.c_str());
            }
        }
    }

    // What a node that has gone has said is no longer shown: nobody takes a dead node for a sound one.
    void check_withdrawn(size_t a, const node &b)
    {
        const node &source = world_.at(a);
        for (size_t i = 0; i < TOPIC_ITEMS; i++) {
            const topic_id topic = source.topic(static_cast<item>(i));
            if (ITEM_DESCRIPTIONS[i].is_withdrawn && b.broker().find(topic) != nullptr &&
                !b.broker().is_in_doubt(topic)) {
                const acquaintance &between = at(a, b.index());
                world_.fail("who-has-gone-is-withdrawn", b.index(), a, "%s is still there, %s",
                            world_.topics().name(topic).c_str(),
                            between.left != NEVER_HEARD ? "after the goodbye" : "after the silence");
            }
        }
    }

    // A port that is down is red on its own card.
    void check_own(node &b)
    {
        const shared_bytes *const shown = b.broker().find(b.topic(item::PORT_SUMMARY));
        if (shown == nullptr || b.broker().is_in_doubt(b.topic(item::PORT_SUMMARY)) ||
            !has_to_know(b.index(), b.index(), item::LINK_DOWN) ||
            !has_to_know(b.index(), b.index(), item::PORT_SUMMARY)) {
            return;
        }
        for (size_t port = 0; port < PORTS; port++) {
            const port_facts &fact = b.told().ports[port];
            const std::string name = std::string("\"") + static_cast<char>('A' + port) + "\":\"";
            const size_t found = shown->text().find(name);
            const bool is_red = found != std::string_view::npos &&
                                shown->text().substr(found + name.size()).starts_with("red");
            if ((found != std::string_view::npos) != fact.is_tracked ||
                (fact.is_tracked && fact.is_link_down && !is_red)) {
                world_.fail("a-port-that-is-down-is-red", b.index(), "port %c in %.*s",
                            static_cast<char>('A' + port), static_cast<int>(shown->size()),
                            shown->text().data());
            }
        }
    }

    port_list read_list(const node &b, const char *topic)
    {
        port_list found;
        const shared_bytes *const shown = b.broker().find(world_.topics().number(topic));
        const std::span<const uint8_t> bytes = shown == nullptr ? std::span<const uint8_t>() : shown->bytes();
        for (size_t i = 0; i + PORT_LIST_RECORD_SIZE <= bytes.size(); i += PORT_LIST_RECORD_SIZE) {
            const size_t a = world_.find_node(bytes.subspan(i, 6));
            if (a == world_.size() ||
                !found.emplace(a, listed{bytes[i + PORT_LIST_NODE_NUM], bytes[i + PORT_LIST_PORTS]}).second) {
                world_.fail("the-lists-are-the-networks", b.index(), "%s names an unknown node, or one twice",
                            topic);
            }
        }
        is_full_ = bytes.size() >= FULL_LIST;
        return found;
    }

    // The list of faults is the same on each card: who asks one has asked all.
    template <typename Mask>
    void check_list(const node &b, const char *topic, item which, Mask mask_of)
    {
        const port_list found = read_list(b, topic);
        if (b.broker().is_in_doubt(world_.topics().number(topic))) {
            return;
        }
        for (size_t a = 0; a < world_.size(); a++) {
            const auto record = found.find(a);
            const uint8_t shown = record == found.end() ? uint8_t{0} : record->second.mask;
            if (has_to_forget(a, b.index())) {
                if (record != found.end()) {
                    world_.fail("the-lists-are-the-networks", b.index(), a,
                                "%s still has node %zu, which has gone", topic, a + 1);
                }
            } else if (has_to_know(a, b.index(), which) && !(is_full_ && shown == 0)) {
                node &source = world_.at(a);
                const uint8_t wanted = mask_of(source.told());
                if (shown != wanted || (record != found.end() && record->second.number != source.number())) {
                    world_.fail("the-lists-are-the-networks", b.index(), a,
                                "%s has ports %02X of node %zu and should have %02X", topic, shown, a + 1,
                                wanted);
                }
            }
        }
    }

    // Where the cables are wrong: each record is some node's fact, and each fact is in a record of one of its ends.
    void check_links(const node &b)
    {
        const topic_id topic = links_topic_;
        const shared_bytes *const shown = b.broker().find(topic);
        const std::span<const uint8_t> links = shown == nullptr ? std::span<const uint8_t>() : shown->bytes();
        const bool is_certain = world_.size() <= LOOKED_AT && !b.broker().is_in_doubt(topic) &&
                                has_listed_links_[b.index()] &&
                                links.size() < MISWIRED_LINKS_MAX * MISWIRED_LINK_SIZE;
        std::set<std::array<uint8_t, MISWIRED_LINK_SIZE>> facts_of_all;
        for (size_t a = 0; a < world_.size(); a++) {
            if (!is_certain || (!has_to_know(a, b.index(), item::MISWIRED) && !is_unknown(a, b.index()))) {
                return;
            }
            const facts &told = world_.at(a).told();
            for (size_t port = 0; port < PORTS; port++) {
                if ((told.miswired() >> port & 1) != 0 && !is_unknown(a, b.index())) {
                    facts_of_all.insert({world_.at(a).number(), static_cast<uint8_t>(port),
                                         told.ports[port].peer_node, told.ports[port].peer_port});
                }
            }
        }
        std::set<std::pair<uint8_t, uint8_t>> ends;
        for (size_t i = 0; i < links.size(); i += MISWIRED_LINK_SIZE) {
            ends.insert({links[i], links[i + 1]});
            ends.insert({links[i + 2], links[i + 3]});
            if (!facts_of_all.contains({links[i], links[i + 1], links[i + 2], links[i + 3]})) {
                world_.fail("the-lists-are-the-networks", b.index(),
                            "miswired_links has port %c of node number %u", 'A' + links[i + 1], links[i]);
            }
        }
        for (const auto &fact : facts_of_all) {
            if (!ends.contains({fact[0], fact[1]})) {
                world_.fail("the-lists-are-the-networks", b.index(),
                            "miswired_links lacks port %c of node number %u", 'A' + fact[1], fact[0]);
            }
        }
    }

    // A node that b doesn't know, has forgotten, or could not hear.
    bool is_unknown(size_t a, size_t b)
    {
        return a != b && (has_to_forget(a, b) || (at(a, b).heard == NEVER_HEARD && !is_joined(a, b)));
    }

    // Style 7 tells whether the network would survive a cut: wrong, it hides that it wouldn't.
    void check_ring_status(const node &b)
    {
        bool is_degraded = false;
        for (size_t a = 0; a < world_.size(); a++) {
            if (has_to_forget(a, b.index())) {
                continue;
            }
            const bool is_known =
                has_to_know(a, b.index(), item::RINGS) && has_to_know(a, b.index(), item::PORT_MEDIA);
            if (!is_known && !is_unknown(a, b.index())) {
                return;
            }
            is_degraded = is_degraded || (is_known && world_.at(a).told().is_degraded());
        }
        const topic_id topic = world_.topics().number(NETWORK_STYLE7_TOPIC);
        const shared_bytes *const shown = b.broker().find(topic);
        if (b.broker().is_in_doubt(topic)) {
            return;
        }
        if (shown == nullptr || shown->bytes()[0] != (is_degraded ? 1 : 0)) {
            world_.fail("ring-status-is-the-networks", b.index(), "network_style7 should be %d",
                        is_degraded ? 1 : 0);
        }
    }

    topic_id links_topic_ = world_.topics().number(MISWIRED_LINKS_TOPIC);
    std::vector<bool> has_listed_links_; // since the daemon's start, which leaves what was there
    std::vector<acquaintance> between_;
    std::vector<uint8_t> joined_; // whether the network carries datagrams between two
    random_stream chance_ = world_.random(purpose::CHECKS);
    bool is_full_ = false;
};

} // namespace

std::unique_ptr<checker> make_topics_checker(world &where)
{
    return std::make_unique<topics_checker>(where);
}

} // namespace sim
