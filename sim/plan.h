// What happens to the network from outside: drawn from the seed before the run, so that single items can be left out.
#pragma once

#include "random.h"
#include "timeline.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace sim
{

enum class happening {
    FACT,           // a fact of a card changes
    REQUEST,        // a client asks for something
    CUT,            // of a link, mended later
    LOSS,           // datagrams are lost for a while
    DUPLICATION,    // ... come twice
    REORDERING,     // ... come in any order
    LEAVE,          // the daemon gets SIGTERM and comes back later
    KILL,           // the daemon is killed
    POWER_OFF,      // the card, which comes back later
    FREEZE,         // the daemon gets no processor for a while
    BROKER_RESTART, // which loses what is retained
    BROKER_SLOW,    //
    ACKS_LATE,      // the broker acknowledges late
    ACKS_LOST,      // ... or not at all
    CLOCK_STEP,     // of the wall clock
    CALL_FAILS,     // a system call or an allocation
    GARBAGE,        // datagrams that are none
    STORM,          // many requests and facts at once
    BAD_INPUT,      // one of those that end a daemon
    COUNT,
};
constexpr size_t HAPPENINGS = static_cast<size_t>(happening::COUNT);
const char *name_of(happening what);

struct planned {
    nanoseconds when;
    nanoseconds length; // of what ends by itself
    happening what;
    uint32_t node;
    uint64_t chance; // seed of what else it draws
};

// The run goes in rounds: a turbulent time, then a calm one in which nothing happens and at whose end everything has to
// be in order.
constexpr nanoseconds TURBULENCE = minutes(10);
constexpr nanoseconds CALM = seconds(130);
constexpr nanoseconds ROUND = TURBULENCE + CALM;

std::vector<planned> make_plan(uint64_t seed, size_t nodes, nanoseconds length);
std::string describe(const planned &item);

} // namespace sim
