// Part of invariant 1: the statistics of a port are what has come since the last reset. A counter that jumps sends
// somebody to look at a sound cable.
#include "records.h"
#include "wire.h"
#include "world.h"

#include "common/bytes.h"
#include "common/text.h"
#include "topics.h"

#include <cmath>

namespace sim
{

namespace
{

constexpr seconds SETTLES = seconds(3);
constexpr uint64_t MOST_SINCE_RESET = 4000; // good frames that a card reports in two messages

struct account {
    uint64_t good_baseline = 0;
    uint64_t errored_baseline = 0;
    bool is_known = false;
    bool is_reset = false; // the next publication begins anew
    nanoseconds reset_at{};
};

struct card_accounts {
    std::array<account, PORTS> ports;
    nanoseconds last_reset{}; // that may have been one
};

class statistics_checker final : public checker
{
public:
    explicit statistics_checker(world &where) : checker(where), cards_(where.size())
    {
        for (size_t i = 0; i < where.size(); i++) {
            for (size_t port = 0; port < PORTS; port++) {
                topics_.push_back(where.topics().number(
                    topic_text(STATS_FORMAT, where.at(i).mac_text().c_str(), PORT_NAMES[port]).text));
            }
        }
    }

    void starts(node &which) override { cards_[which.index()] = {}; }
    // Tools may ask for a reset: which of their requests does is not known here.
    void requested(node &which, const client_request &) override { note_reset(which); }
    void receives(node &which, uint32_t, std::span<const uint8_t> datagram) override
    {
        const auto packet = wire::read(datagram);
        if (packet && (packet->kind == wire::RESET_STATS || packet->kind == wire::RESET_ALL_STATS)) {
            note_reset(which);
            for (size_t port = 0; port < RING_PORTS; port++) {
                const bool is_meant = packet->kind == wire::RESET_ALL_STATS || packet->payload[0] == port;
                if (is_meant) {
                    cards_[which.index()].ports[port].is_reset = true;
                    cards_[which.index()].ports[port].reset_at = world_.clock().now();
                }
            }
        }
    }

    void published(node &which, const mqtt_message &message) override
    {
        const size_t first = which.index() * PORTS;
        for (size_t port = 0; port < RING_PORTS; port++) {
            if (message.is_from_daemon && message.topic == topics_[first + port] &&
                message.payload.size() == STATS_BLOCK_SIZE) {
                check(which, port, message.payload.data());
            }
        }
    }

private:
    void note_reset(const node &which) { cards_[which.index()].last_reset = world_.clock().now(); }

    void check(node &which, size_t port, const uint8_t *block)
    {
        const nanoseconds now = world_.clock().now();
        const port_facts &fact = which.told().ports[port];
        card_accounts &card = cards_[which.index()];
        account &known = card.ports[port];
        const auto good = load_be<uint64_t>(block + STATS_GOOD_FRAMES);
        const auto errored = load_be<uint32_t>(block + STATS_ERRORED_FRAMES);
        const account found = {fact.good_frames - good, fact.errored_frames - errored, true, false,
                               known.reset_at};
        const bool is_disturbed = now < which.disturbed_until();
        const bool may_differ = !known.is_known || is_disturbed || now < card.last_reset + SETTLES;
        if (!may_differ && (found.good_baseline != known.good_baseline ||
                            found.errored_baseline != known.errored_baseline)) {
            world_.fail("statistics-count-since-the-reset", which.index(),
                        "port %c: %llu good and %u errored frames, without a reset",
                        static_cast<char>('A' + port), static_cast<unsigned long long>(good), errored);
        }
        // What was on its way to the broker may still come after the reset.
        const bool is_after_reset = known.is_reset && now > known.reset_at + milliseconds(100);
        if (is_after_reset && !is_disturbed && good > MOST_SINCE_RESET) {
            world_.fail("statistics-count-since-the-reset", which.index(),
                        "port %c: %llu good frames right after a reset", static_cast<char>('A' + port),
                        static_cast<unsigned long long>(good));
        }
        // A daemon that got no processor has several messages to read behind the reset.
        const bool is_reset = known.is_reset && !is_after_reset && !is_disturbed;
        known = found;
        known.is_reset = is_reset;
        known.is_known = !is_disturbed && now > std::max(card.last_reset, which.started()) + SETTLES;
        const double all = static_cast<double>(good) + errored;
        const double ratio = all == 0 ? 0 : errored * 1e6 / all;
        const auto shown = load_be<uint32_t>(block + STATS_ERROR_RATIO_PPM);
        if (!may_differ && std::abs(ratio - shown) > 1 + ratio / 1e5) {
            world_.fail("statistics-count-since-the-reset", which.index(),
                        "port %c: %u errored frames per million, should be %.0f",
                        static_cast<char>('A' + port), shown, ratio);
        }
    }

    std::vector<card_accounts> cards_;
    std::vector<topic_id> topics_; // of the ports of all nodes
};

} // namespace

std::unique_ptr<checker> make_statistics_checker(world &where)
{
    return std::make_unique<statistics_checker>(where);
}

} // namespace sim
