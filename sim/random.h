// Random numbers, all from the seed of the run. Every purpose has a stream of its own, so that leaving one fault out of
// a run changes the others as little as possible.
#pragma once

#include "timeline.h"

#include <cstdint>

namespace sim
{

class random_stream
{
public:
    // Where a stream starts is mixed, or neighbouring seeds would walk through the same numbers a step apart.
    explicit random_stream(uint64_t seed, uint64_t purpose = 0, uint64_t index = 0)
        : state_(mix(mix(mix(seed + STEP) + purpose) + index))
    {
    }

    // splitmix64: small, fast, and the same on every machine, which the distributions of the library are not.
    uint64_t next() { return mix(state_ += STEP); }
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(((next() >> 32) * limit) >> 32); }
    bool chance(double probability) { return static_cast<double>(next() >> 11) * 0x1.0p-53 < probability; }
    nanoseconds between(nanoseconds low, nanoseconds high)
    {
        const auto span = static_cast<uint64_t>((high - low).count());
        return span == 0 ? low : low + nanoseconds(next() % span);
    }

private:
    static constexpr uint64_t STEP = 0x9E3779B97F4A7C15U;
    static constexpr uint64_t mix(uint64_t z)
    {
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9U;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBU;
        return z ^ (z >> 31);
    }

    uint64_t state_;
};

} // namespace sim
