// Invariant 6: what a daemon has taken it gives back. A panel runs for years: what leaks ends it at last, at night.
#include "wire.h"
#include "world.h"

#include <map>
#include <tuple>

namespace sim
{

namespace
{

class resources_checker final : public checker
{
public:
    using checker::checker;

    void sample() override
    {
        // The search walks through all memory of a node: one at a time.
        if (world_.size() > 0) {
            check(world_.at(next_++ % world_.size()));
        }
    }

    void calm() override
    {
        for (size_t i = 0; i < world_.size(); i++) {
            check(world_.at(i));
        }
    }

private:
    void check(node &which)
    {
        process &daemon = which.daemon();
        if (!daemon.is_alive()) {
            return;
        }
        const size_t leak = daemon.find_leak();
        if (leak != 0) {
            world_.fail("nothing-leaks", which.index(), "%zu bytes that nothing refers to any more", leak);
        }
        const int unwatched = daemon.find_unwatched();
        if (unwatched != -1 && world_.clock().now() > which.disturbed_until() + seconds(10) &&
            world_.clock().now() > which.started() + seconds(1)) {
            world_.fail("nothing-leaks", which.index(), "descriptor %d is open and nothing watches it",
                        unwatched);
        }
    }

    size_t next_ = 0;
};

} // namespace

std::unique_ptr<checker> make_resources_checker(world &where)
{
    return std::make_unique<resources_checker>(where);
}

} // namespace sim
