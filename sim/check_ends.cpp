// Invariant 5: a daemon ends for the reasons that docs/operations.md names and for no other, says why, and says goodbye.
#include "wire.h"
#include "world.h"

namespace sim
{

namespace
{

constexpr seconds EXCUSED = seconds(15);

struct life {
    nanoseconds excused_until = seconds(-1);
    const char *excuse = "";
    bool is_told_to_stop = false;
    bool can_send = true; // no failure has closed the socket or stopped the start
    nanoseconds last_line = seconds(-1);
    nanoseconds goodbye = seconds(-1);
};

class ends_checker final : public checker
{
public:
    using checker::checker;

    void starts(node &which) override
    {
        life &begun = of(which);
        const nanoseconds excused_until = begun.excused_until;
        begun = {};
        begun.excused_until = excused_until;
    }
    void told_to_stop(node &which) override { of(which).is_told_to_stop = true; }
    void broker_stops(node &which) override { excuse(which, "the broker stops"); }

    void excuse(node &which, const char *why) override
    {
        life &excused = of(which);
        excused.excuse = why;
        excused.excused_until = std::max(world_.clock().now(), which.disturbed_until()) + EXCUSED;
        excused.can_send = excused.can_send && std::string_view(why) != "a call that failed";
    }

    void logs(node &which, const char *line) override
    {
        life &logging = of(which);
        logging.last_line = world_.clock().now();
        // A packet that ends the daemon closes its socket: the others notice by its silence.
        const std::string_view text = line;
        if (text.ends_with("couldn't process new packet") || text.ends_with("couldn't receive new packet")) {
            logging.can_send = false;
        }
    }

    void sends(node &which, uint32_t, std::span<const uint8_t> datagram) override
    {
        if (datagram.size() >= wire::HEADER && datagram[wire::TYPE] == wire::GOODBYE) {
            of(which).goodbye = world_.clock().now();
        }
    }

    // A reset of a port that isn't tracked ends a daemon; which ports are, it learns after its start.
    void receives(node &which, uint32_t, std::span<const uint8_t> datagram) override
    {
        const auto packet = wire::read(datagram);
        if (!packet || packet->kind != wire::RESET_STATS) {
            return;
        }
        const uint8_t port = packet->payload[0];
        const bool is_young =
            world_.clock().now() < std::max(which.started() + seconds(3), which.disturbed_until());
        if (is_young || port >= PORTS || !which.told().ports[port].is_tracked) {
            excuse(which, "a reset of a port that is not tracked");
        }
    }

    // A daemon that ends without need loses a day's statistics; one that ends without a word is never mended.
    void ended(node &which, int status) override
    {
        const life &over = of(which);
        const nanoseconds now = world_.clock().now();
        if ((status == 0) != over.is_told_to_stop) {
            world_.fail("a-daemon-ends-for-a-reason", which.index(), "status %d", status);
        }
        if (status != 0 && now > over.excused_until) {
            world_.fail("a-daemon-ends-for-a-reason", which.index(), "the last line: %s",
                        which.last_log().empty() ? "" : which.last_log().back().c_str());
        }
        if (status != 0 && over.last_line != now) {
            world_.fail("every-end-is-logged", which.index(), "no line (%s)", over.excuse);
        }
        const bool has_socket =
            which.daemon().socket().port != 0; // not while it waits for its broker at first
        if (over.can_send && has_socket && over.goodbye != now) {
            world_.fail("every-end-says-goodbye", which.index(), "no goodbye (%s)", over.excuse);
        }
    }

private:
    life &of(const node &which)
    {
        lives_.resize(world_.size());
        return lives_[which.index()];
    }

    std::vector<life> lives_;
};

} // namespace

std::unique_ptr<checker> make_ends_checker(world &where)
{
    return std::make_unique<ends_checker>(where);
}

} // namespace sim
