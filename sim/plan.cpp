#include "plan.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace sim
{

namespace
{

struct row {
    happening what;
    const char *name;
    double per_node;  // in a round, for each node ...
    double per_round; // ... and for all together
    nanoseconds least;
    nanoseconds most;
};

constexpr std::array<row, HAPPENINGS> ROWS = {{
    {happening::FACT, "fact", 4, 0, {}, {}},
    {happening::REQUEST, "request", 1.5, 2, {}, {}},
    {happening::CUT, "cut", 0, 2.5, seconds(1), minutes(8)},
    {happening::LOSS, "loss", 0, 0.4, seconds(2), minutes(2)},
    {happening::DUPLICATION, "duplication", 0, 0.3, seconds(2), minutes(2)},
    {happening::REORDERING, "reordering", 0, 0.3, seconds(2), minutes(2)},
    {happening::LEAVE, "leave", 0, 0.5, seconds(1), minutes(5)},
    {happening::KILL, "kill", 0, 0.4, {}, {}},
    {happening::POWER_OFF, "power off", 0, 0.4, seconds(5), minutes(6)},
    {happening::FREEZE, "freeze", 0, 0.3, milliseconds(100), seconds(50)},
    {happening::BROKER_RESTART, "broker restart", 0, 0.3, milliseconds(200), seconds(20)},
    {happening::BROKER_SLOW, "broker slow", 0, 0.3, seconds(1), seconds(60)},
    {happening::ACKS_LATE, "acknowledgements late", 0, 0.3, seconds(1), seconds(60)},
    {happening::ACKS_LOST, "acknowledgements lost", 0, 0.2, seconds(1), seconds(20)},
    {happening::CLOCK_STEP, "clock step", 0, 0.3, {}, {}},
    {happening::CALL_FAILS, "call fails", 0, 0.3, {}, {}},
    {happening::GARBAGE, "garbage", 0, 0.3, {}, {}},
    {happening::STORM, "storm", 0, 0.2, {}, {}},
    {happening::BAD_INPUT, "bad input", 0, 0.2, {}, {}},
}};

// A whole number whose mean is this.
unsigned draw_count(double mean, random_stream &random)
{
    const auto whole = static_cast<unsigned>(mean * 2);
    const unsigned count = whole == 0 ? 0 : random.below(whole + 1);
    return random.chance(mean - whole / 2.0) ? count + 1 : count;
}

} // namespace

const char *name_of(happening what)
{
    return ROWS[static_cast<size_t>(what)].name;
}

std::vector<planned> make_plan(uint64_t seed, size_t nodes, nanoseconds length)
{
    std::vector<planned> plan;
    random_stream random(seed, 1);
    for (nanoseconds round{}; round < length; round += ROUND) {
        for (const row &each : ROWS) {
            const double mean = each.per_node * static_cast<double>(nodes) + each.per_round;
            for (unsigned count = draw_count(mean, random); count > 0; count--) {
                const nanoseconds when = round + seconds(5) + random.between({}, TURBULENCE - seconds(10));
                nanoseconds lasts = random.between(each.least, each.most);
                lasts = random.chance(0.5) ? lasts / 8 : lasts;
                // Nearly everything is over when the calm begins; what goes on lasts through all of it.
                const bool stays =
                    random.chance(0.15) && (each.what == happening::CUT || each.what == happening::LEAVE ||
                                            each.what == happening::POWER_OFF);
                const nanoseconds end = stays ? round + ROUND : std::min(when + lasts, round + TURBULENCE);
                plan.push_back(
                    {when, end - when, each.what, random.below(static_cast<uint32_t>(nodes)), random.next()});
            }
        }
    }
    std::ranges::sort(plan, {}, &planned::when);
    return plan;
}

std::string describe(const planned &item)
{
    char text[120];
    snprintf(text, sizeof text, "%12.6f s  node %-4u %s", in_seconds(item.when), item.node + 1,
             name_of(item.what));
    std::string result = text;
    if (item.length > nanoseconds(0)) {
        snprintf(text, sizeof text, " for %.3f s", in_seconds(item.length));
        result += text;
    }
    return result;
}

} // namespace sim
