// Part of invariants 1 and 6: a port's quarter hours and days are all there and add up to its statistics, and its colour
// is what they say. Who looks for the hour at which a cable began to fail reads them.
#include "records.h"
#include "world.h"

#include "common/bytes.h"
#include "common/text.h"
#include "topics.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace sim
{

namespace
{

constexpr int64_t QUARTER_HOUR = 900;
constexpr int64_t NEAR_BOUNDARY = 30;
constexpr seconds FIRST_TICK = seconds(30);
constexpr seconds STATS_ARRIVE = seconds(25); // once more what a disturbance may have left behind
constexpr seconds SLACK = seconds(3);
constexpr std::string_view KEPT_RECORDS = "couldn't unpublish PM topics for port ";

// What makes a port red or yellow, and what tells whether periods add up.
struct counters {
    uint64_t good = 0;
    uint32_t link_count = 0;
    uint32_t link_seconds = 0;
    uint32_t ring_count = 0;
    uint32_t ring_seconds = 0;
    uint32_t ratio = 0;
    uint32_t dsl = 0;

    bool is_problem_since(const counters &base) const
    {
        return link_count != base.link_count || link_seconds != base.link_seconds ||
               ring_count != base.ring_count || ring_seconds != base.ring_seconds ||
               ratio > ERROR_RATIO_THRESHOLD || dsl != base.dsl;
    }
};

counters read_stats(const uint8_t *block)
{
    return {
        load_be<uint64_t>(block + STATS_GOOD_FRAMES),       load_be<uint32_t>(block + STATS_LINK_DOWN_COUNT),
        load_be<uint32_t>(block + STATS_LINK_DOWN_SECONDS), load_be<uint32_t>(block + STATS_ERPS_DOWN_COUNT),
        load_be<uint32_t>(block + STATS_ERPS_DOWN_SECONDS), load_be<uint32_t>(block + STATS_ERROR_RATIO_PPM),
        load_be<uint32_t>(block + STATS_DSL_COUNT_60)};
}

counters read_period(const uint8_t *record)
{
    return {load_be<uint64_t>(record + PM_GOOD_FRAMES),       load_be<uint32_t>(record + PM_LINK_DOWN_COUNT),
            load_be<uint32_t>(record + PM_LINK_DOWN_SECONDS), load_be<uint32_t>(record + PM_ERPS_DOWN_COUNT),
            load_be<uint32_t>(record + PM_ERPS_DOWN_SECONDS), load_be<uint32_t>(record + PM_ERROR_RATIO_PPM),
            load_be<uint32_t>(record + PM_DSL_COUNT_60)};
}

struct port_book {
    bool is_tracked = false;
    bool is_doubtful = false; // the order of its messages was not certain
    nanoseconds tracked{};
    bool has_stats = false;
    counters now{};         // of the statistics
    counters before{};      // of those, what closed periods hold
    bool is_exact = true;   // no down time of before the first statistics is in them
    unsigned next_slot = 0; // of the quarter hours
    int64_t last_time = 0;  // at which one was closed
    nanoseconds last_closing = nanoseconds::min();
    unsigned in_row = 0; // quarter hours since the day began
    bool is_day_certain = true;
    std::array<bool, PM_PERIODS> is_problem{};
    char colour = 0; // its first letter

    // A reset.
    void begin()
    {
        now = before = {};
        is_exact = true;
        next_slot = in_row = 0;
        is_day_certain = true;
        is_problem.fill(false);
    }
};

struct card_book {
    std::array<port_book, PORTS> ports;
    int64_t wall_offset = 0;
    nanoseconds stepped = seconds(-1000); // not later than that the wall clock was set
};

class performance_checker final : public checker
{
public:
    explicit performance_checker(world &where) : checker(where), cards_(where.size())
    {
        for (size_t port = 0; port < PORTS; port++) {
            counters_[port] =
                where.topics().number(topic_text(PORT_FACT_FORMAT, PORT_NAMES[port], FACT_STATS).text);
        }
    }

    void starts(node &which) override
    {
        for (size_t port = 0; port < PORTS; port++) {
            port_book &book = cards_[which.index()].ports[port];
            book = {};
            book.is_tracked = which.told().ports[port].is_tracked;
            book.tracked = world_.clock().now();
        }
    }

    // A reset whose records stay is one.
    void logs(node &which, const char *line) override
    {
        const std::string_view text = line;
        const size_t place = text.find(KEPT_RECORDS);
        if (place != std::string_view::npos) {
            cards_[which.index()].ports[static_cast<size_t>(text[place + KEPT_RECORDS.size()] - 'A')].begin();
        }
    }

    void published(node &which, const mqtt_message &message) override
    {
        const meaning &meant = meaning_of(message.topic);
        if (meant.what == meaning::OTHER || (meant.owner != NOBODY && meant.owner != which.index())) {
            return;
        }
        const std::span<const uint8_t> payload = message.payload.bytes();
        if (meant.what == meaning::COLOURS) {
            if (message.is_from_daemon) {
                take_colours(which, message.payload.text());
            }
            return;
        }
        port_book &book = cards_[which.index()].ports[meant.port];
        if (meant.what == meaning::TYPE) {
            const bool is_tracked = message.payload.text() == "fire";
            if (is_tracked != book.is_tracked) {
                book = {};
                book.is_tracked = is_tracked;
                book.tracked = world_.clock().now();
            }
        } else if (message.is_from_daemon && meant.what == meaning::STATS) {
            if (payload.size() == STATS_BLOCK_SIZE) {
                book.now = read_stats(payload.data());
                // A reset also publishes statistics of a port whose counters the card has not told yet.
                if (!book.has_stats && which.broker().find(counters_[meant.port]) != nullptr) {
                    book.has_stats = true;
                    book.before = book.now;
                    book.is_exact = book.now.link_count == 0 && book.now.ring_count == 0;
                }
            }
        } else if (message.is_from_daemon && payload.empty()) {
            book.is_doubtful = book.is_doubtful || is_disturbed(which);
            book.begin();
        } else if (message.is_from_daemon && payload.size() == PM_RECORD_SIZE) {
            take_record(which, meant, payload.data());
        }
    }

    void sample() override
    {
        for (size_t i = 0; i < world_.size(); i++) {
            look_at_clock(world_.at(i));
            if (world_.at(i).daemon().is_alive()) {
                check_last(world_.at(i));
            }
        }
    }

    void calm() override
    {
        sample();
        for (size_t i = 0; i < world_.size(); i++) {
            if (world_.at(i).daemon().is_alive() && !is_disturbed(world_.at(i))) {
                check_colours(world_.at(i));
            }
        }
    }

private:
    static constexpr size_t NOBODY = SIZE_MAX; // a fact, which each card has on its own broker
    struct meaning {
        enum { OTHER, TYPE, STATS, RECORD, COLOURS } what = OTHER;
        size_t owner = NOBODY;
        size_t port = 0;
        unsigned slot = 0; // days behind the quarter hours
    };

    const meaning &meaning_of(topic_id topic)
    {
        while (meanings_.size() <= topic) {
            meanings_.push_back(find_meaning(world_.topics().name(static_cast<topic_id>(meanings_.size()))));
        }
        return meanings_[topic];
    }

    meaning find_meaning(std::string_view name) const
    {
        for (size_t port = 0; port < PORTS; port++) {
            if (name == topic_text(PORT_FACT_FORMAT, PORT_NAMES[port], FACT_TYPE).text) {
                return {meaning::TYPE, NOBODY, port, 0};
            }
        }
        const size_t owner = world_.find_owner(name);
        if (owner == world_.size()) {
            return {};
        }
        name = name.substr(world::OWN_TOPIC_PREFIX);
        if (name == NODE_PORT_SUMMARY) {
            return {meaning::COLOURS, owner, 0, 0};
        }
        if (name.size() < 3 || name[1] != '/' || name[0] < 'A' || name[0] >= 'A' + PORTS) {
            return {};
        }
        const auto port = static_cast<size_t>(name[0] - 'A');
        name = name.substr(2);
        if (name == PORT_STATS) {
            return {meaning::STATS, owner, port, 0};
        }
        unsigned slot = 0;
        const size_t digits = name.find_first_of("0123456789");
        if (!name.starts_with(PM_PREFIX) || digits == std::string_view::npos) {
            return {};
        }
        std::from_chars(name.data() + digits, name.data() + name.size(), slot);
        const bool is_day = name.substr(PM_PREFIX.size()).starts_with(PM_DAY);
        return {meaning::RECORD, owner, port, slot + (is_day ? PM_PERIODS : 0)};
    }

    bool is_disturbed(const node &which) const
    {
        return world_.clock().now() < which.disturbed_until() + STATS_ARRIVE;
    }

    void look_at_clock(const node &which)
    {
        card_book &card = cards_[which.index()];
        const int64_t offset = which.wall_clock() - world_.clock().now() / seconds(1);
        if (offset != card.wall_offset) {
            card.wall_offset = offset;
            card.stepped = world_.clock().now();
            for (port_book &each : card.ports) {
                each.is_day_certain = false;
            }
        }
    }

    void take_record(const node &which, const meaning &meant, const uint8_t *record)
    {
        look_at_clock(which);
        port_book &book = cards_[which.index()].ports[meant.port];
        const auto time = static_cast<int64_t>(load_be<uint64_t>(record + PM_TIME));
        const char name = static_cast<char>('A' + meant.port);
        if (meant.slot >= PM_PERIODS) {
            if (book.is_day_certain && !book.is_doubtful && book.in_row != PM_PERIODS) {
                world_.fail("quarter-hours-and-days-are-all-there", which.index(),
                            "port %c: a day of %u quarter hours", name, book.in_row);
            }
            book.in_row = 0;
            return;
        }
        const bool is_same_slot = book.next_slot == (meant.slot + 1) % PM_PERIODS;
        if (book.last_closing != nanoseconds::min() && time == book.last_time && is_same_slot) {
            return; // for want of an acknowledgement
        }
        const nanoseconds now = world_.clock().now();
        // The daemon hears a little later that a port is tracked, or no longer.
        if (now < book.tracked + SLACK) {
            book.is_doubtful = true;
        } else if (is_disturbed(which)) {
            book.is_doubtful = book.is_doubtful || meant.slot != book.next_slot;
        } else if (!book.is_doubtful) {
            const int64_t beyond = (time + NEAR_BOUNDARY) % QUARTER_HOUR;
            if (meant.slot != book.next_slot || beyond >= 2 * NEAR_BOUNDARY) {
                world_.fail("quarter-hours-and-days-are-all-there", which.index(),
                            "port %c: slot %u is closed, should be %u, %lld s from a quarter hour", name,
                            meant.slot, book.next_slot, static_cast<long long>(beyond - NEAR_BOUNDARY));
            }
        }
        const counters closed = read_period(record);
        if (book.has_stats && !book.is_doubtful && !is_disturbed(which) &&
            book.now.good != book.before.good + closed.good) {
            world_.fail("quarter-hours-add-up", which.index(),
                        "port %c: %llu good frames in the quarter hour, should be %llu", name,
                        static_cast<unsigned long long>(closed.good),
                        static_cast<unsigned long long>(book.now.good - book.before.good));
        }
        book.before.good += closed.good;
        book.before.link_count += closed.link_count;
        book.before.link_seconds += closed.link_seconds;
        book.before.ring_count += closed.ring_count;
        book.before.ring_seconds += closed.ring_seconds;
        book.is_problem[meant.slot] = closed.is_problem_since({});
        book.is_problem[(meant.slot + 1) % PM_PERIODS] = false; // that of yesterday is overwritten now
        book.next_slot = (meant.slot + 1) % PM_PERIODS;
        book.last_time = time;
        book.last_closing = now;
        book.in_row++;
    }

    // The quarter hour that ended last on the wall clock.
    void check_last(const node &which)
    {
        const card_book &card = cards_[which.index()];
        const nanoseconds now = world_.clock().now();
        const int64_t ended = which.wall_clock() / QUARTER_HOUR * QUARTER_HOUR;
        const nanoseconds boundary = now - seconds(which.wall_clock() - ended);
        if (now < boundary + SLACK || boundary < card.stepped + seconds(QUARTER_HOUR) + FIRST_TICK ||
            boundary < which.unsettled_until() + FIRST_TICK + SLACK) {
            return;
        }
        for (size_t port = 0; port < PORTS; port++) {
            const port_book &book = card.ports[port];
            if (!book.is_tracked || book.is_doubtful ||
                boundary < book.tracked + seconds(NEAR_BOUNDARY) + SLACK) {
                continue;
            }
            const bool is_closed =
                book.last_closing != nanoseconds::min() && std::abs(book.last_time - ended) <= NEAR_BOUNDARY;
            const bool is_day_missing = book.is_day_certain && book.in_row >= PM_PERIODS;
            if (!is_closed || is_day_missing) {
                world_.fail("quarter-hours-and-days-are-all-there", which.index(),
                            "port %c: the %s that ended %.0f s ago is missing", static_cast<char>('A' + port),
                            is_closed ? "day" : "quarter hour", in_seconds(now - boundary));
            }
        }
    }

    // Green only turns red, yellow is what has been.
    void take_colours(const node &which, std::string_view text)
    {
        for (size_t port = 0; port < PORTS; port++) {
            port_book &book = cards_[which.index()].ports[port];
            const char old = std::exchange(book.colour, colour_of(text, port));
            const bool has_been = std::ranges::find(book.is_problem, true) != book.is_problem.end();
            if (book.colour == old || book.is_doubtful || is_disturbed(which)) {
                continue;
            }
            if ((book.colour == 'y' && (old == 'g' || !has_been)) ||
                (book.colour == 'g' && old != 0 && has_been)) {
                world_.fail("a-ports-colour-is-true", which.index(),
                            "port %c turns from '%c' to '%c', %s quarter hour with a problem",
                            static_cast<char>('A' + port), old == 0 ? '-' : old, book.colour,
                            has_been ? "with a" : "without a");
            }
        }
    }

    // Red is what is; only a port of the ring is told its statistics, with which the daemon looks at it.
    void check_colours(const node &which)
    {
        const topic_id topic = which.topic(item::PORT_SUMMARY);
        const shared_bytes *const shown = which.broker().find(topic);
        if (shown == nullptr || which.broker().is_in_doubt(topic)) {
            return;
        }
        for (size_t port = 0; port < RING_PORTS; port++) {
            const port_book &book = cards_[which.index()].ports[port];
            const port_facts &fact = which.told().ports[port];
            if (!book.has_stats || !book.is_exact || book.is_doubtful ||
                world_.clock().now() < which.started() + STATS_ARRIVE) {
                continue;
            }
            const bool is_red =
                fact.is_link_down || fact.is_ring_port_down || book.now.is_problem_since(book.before);
            if ((colour_of(shown->text(), port) == 'r') != is_red) {
                world_.fail("a-ports-colour-is-true", which.index(), "port %c should%s be red in %.*s",
                            static_cast<char>('A' + port), is_red ? "" : " not",
                            static_cast<int>(shown->size()), shown->text().data());
            }
        }
    }

    // The first letter, 0 for a port that has none.
    static char colour_of(std::string_view text, size_t port)
    {
        const char name[] = {'"', static_cast<char>('A' + port), '"', ':', '"', 0};
        const size_t found = text.find(name);
        return found == std::string_view::npos ? char{0} : text[found + sizeof name - 1];
    }

    std::vector<card_book> cards_;
    std::array<topic_id, PORTS> counters_{}; // the cards' own
    std::vector<meaning> meanings_;          // of all topics
};

} // namespace

std::unique_ptr<checker> make_performance_checker(world &where)
{
    return std::make_unique<performance_checker>(where);
}

} // namespace sim
