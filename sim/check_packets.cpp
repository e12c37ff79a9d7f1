// Invariant 7, datagrams: what a daemon sends is what docs/protocol.md says, or other implementations can't read it.
#include "wire.h"
#include "world.h"

#include <algorithm>
#include <map>

namespace sim
{

namespace
{

constexpr unsigned TRANSMISSIONS = 10;
constexpr nanoseconds REPEATED_AFTER = seconds(1);
constexpr nanoseconds SUMMARY_PERIOD = seconds(3);
constexpr nanoseconds SENT_EVERY[wire::SECTIONS] = {seconds(15), seconds(15), seconds(60),
                                                    seconds(15), seconds(15), seconds(60),
                                                    seconds(15), seconds(15), seconds(60)};

struct sent_request {
    std::vector<uint8_t> bytes;
    nanoseconds last;
    unsigned count;
};

struct speaker {
    uint32_t next_request = 0;
    bool may_skip = false;                     // a request that failed before it was sent has used its id
    std::map<uint32_t, sent_request> requests; // of the last while
    nanoseconds sections[wire::SECTIONS] = {};
    nanoseconds last_summary = seconds(-100);
    struct owed {
        uint32_t address;
        uint32_t request;
    };
    std::vector<owed> acknowledgements; // to requests received
};

class packets_checker final : public checker
{
public:
    using checker::checker;

    void starts(node &which) override { of(which) = {}; }

    void excuse(node &which, const char *) override { of(which).may_skip = true; }

    void sends(node &which, uint32_t address, std::span<const uint8_t> datagram) override
    {
        const auto packet = wire::read(datagram);
        if (!packet && !(datagram.size() > wire::HEADER && datagram[wire::TYPE] == wire::TOPIC_DATA)) {
            complain(which, datagram, "receivers would drop it");
        }
        if (datagram[0] != 1 || world_.find_node(datagram.subspan(wire::MAC, 6)) != which.index() ||
            static_cast<size_t>(datagram[wire::LENGTH] << 8 | datagram[wire::LENGTH + 1]) !=
                datagram.size() - wire::HEADER) {
            complain(which, datagram, "its header is wrong");
        }
        if (!packet) {
            return; // a removal, which subscribers drop
        }
        if ((address == wire::GROUP) != is_for_all(packet->kind)) {
            complain(which, datagram, "it goes to the wrong address");
        }
        switch (packet->kind) {
        case wire::SUMMARY:
            check_summary(which, *packet, datagram);
            break;
        case wire::ACK:
            check_acknowledgement(which, address, *packet, datagram);
            break;
        case wire::SUBSCRIBE:
        case wire::UNSUBSCRIBE:
        case wire::UNSUBSCRIBE_ALL:
        case wire::ACTIVATE:
        case wire::REMOTE_DOWNLOAD:
            check_request(which, *packet, datagram);
            break;
        default:
            break;
        }
    }

    void receives(node &which, uint32_t sender, std::span<const uint8_t> datagram) override
    {
        const auto packet = wire::read(datagram);
        if (packet && wire::is_request(packet->kind)) {
            of(which).acknowledgements.push_back({sender, packet->u32(0)});
        }
    }

    // An unanswered request is repeated in vain, and the client told that the node can't be reached.
    void sample() override
    {
        for (size_t i = 0; i < world_.size(); i++) {
            node &each = world_.at(i);
            if (!each.daemon().is_alive() || world_.clock().now() < each.disturbed_until()) {
                continue;
            }
            if (!of(each).acknowledgements.empty()) {
                world_.fail("every-request-is-acknowledged", i, "request %u",
                            of(each).acknowledgements[0].request);
            }
            check_sections(each);
        }
    }

private:
    speaker &of(const node &which)
    {
        speakers_.resize(world_.size());
        return speakers_[which.index()];
    }

    static bool is_for_all(wire::type kind)
    {
        return kind == wire::SUMMARY || kind == wire::UNSUBSCRIBE_ALL || kind == wire::CLIENT_KEEPALIVE ||
               kind == wire::RESET_ALL_STATS || kind == wire::GOODBYE;
    }

    [[noreturn]] void complain(const node &which, std::span<const uint8_t> datagram, const char *what)
    {
        world_.fail("datagrams-are-valid", which.index(), "of type %u with %zu bytes: %s",
                    datagram.size() > 1 ? datagram[wire::TYPE] : 0U, datagram.size(), what);
    }

    void check_summary(node &which, const wire::packet &packet, std::span<const uint8_t> datagram)
    {
        int last = -1;
        std::span<const uint8_t> rest = packet.payload;
        while (!rest.empty()) {
            const int section = rest[0];
            if (rest.size() < 4 || section <= last || section >= static_cast<int>(wire::SECTIONS) ||
                (last == -1 && section != 0) || (rest[1] << 8 | rest[2]) != wire::SECTION_LENGTHS[section] ||
                rest.size() < 3U + wire::SECTION_LENGTHS[section]) {
                complain(which, datagram, "its sections are wrong");
            }
            of(which).sections[section] = world_.clock().now();
            rest = rest.subspan(3U + wire::SECTION_LENGTHS[section]);
            last = section;
        }
        const nanoseconds now = world_.clock().now();
        const bool is_paced = now - of(which).last_summary >= SUMMARY_PERIOD || now < which.disturbed_until();
        if (last < 1 || !is_paced) {
            complain(which, datagram, last < 1 ? "it says nothing" : "it comes too soon");
        }
        of(which).last_summary = now;
    }

    // A node that comes into reach is told everything within a minute.
    void check_sections(const node &which)
    {
        for (size_t i = 0; i < wire::SECTIONS; i++) {
            const nanoseconds last =
                std::max({of(which).sections[i], which.started(), which.disturbed_until()});
            if (world_.clock().now() - last > SENT_EVERY[i] + seconds(4)) {
                world_.fail("every-section-is-sent-in-time", which.index(),
                            "section %zu was last sent %.1f s ago", i,
                            in_seconds(world_.clock().now() - last));
            }
        }
    }

    void check_acknowledgement(const node &which, uint32_t address, const wire::packet &packet,
                               std::span<const uint8_t> datagram)
    {
        std::vector<speaker::owed> &owed = of(which).acknowledgements;
        const auto found = std::ranges::find_if(owed, [&](const speaker::owed &each) {
            return each.address == address && each.request == packet.u32(0);
        });
        if (found == owed.end()) {
            complain(which, datagram, "nobody has asked for this acknowledgement");
        }
        owed.erase(found);
    }

    // An id used twice lets the answer to one request pass for that to another.
    void check_request(const node &which, const wire::packet &packet, std::span<const uint8_t> datagram)
    {
        speaker &asking = of(which);
        const nanoseconds now = world_.clock().now();
        const uint32_t id = packet.u32(0);
        const auto found = asking.requests.find(id);
        if (found == asking.requests.end()) {
            if (asking.may_skip ? id < asking.next_request : id != asking.next_request) {
                complain(which, datagram, "its request id is not the next one");
            }
            asking.next_request = id + 1;
            forget_old(which, asking);
            asking.requests[id] = {{datagram.begin(), datagram.end()}, now, 1};
            return;
        }
        sent_request &again = found->second;
        if (!std::ranges::equal(again.bytes, datagram)) {
            complain(which, datagram, "a repetition differs from the first transmission");
        }
        if (++again.count > TRANSMISSIONS ||
            (now - again.last < REPEATED_AFTER && now > which.disturbed_until())) {
            complain(which, datagram, "a request is repeated too often");
        }
        again.last = now;
    }

    // Nobody acknowledges an UNSUBSCRIBE_ALL: it is said ten times instead.
    void forget_old(const node &which, speaker &asking)
    {
        const nanoseconds now = world_.clock().now();
        std::erase_if(asking.requests, [&](const auto &each) {
            const sent_request &old = each.second;
            if (now - old.last <= minutes(2)) {
                return false;
            }
            if (old.bytes[wire::TYPE] == wire::UNSUBSCRIBE_ALL && old.count != TRANSMISSIONS) {
                complain(which, old.bytes, "it was not sent ten times");
            }
            return true;
        });
    }

    std::vector<speaker> speakers_;
};

} // namespace

std::unique_ptr<checker> make_packets_checker(world &where)
{
    return std::make_unique<packets_checker>(where);
}

} // namespace sim
