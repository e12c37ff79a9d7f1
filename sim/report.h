// What simulate prints.
#pragma once

#include "options.h"
#include "run.h"

namespace sim
{

void add(tally &sum, const tally &added);
void show_table(const tally &sum, nanoseconds virtual_time, size_t nodes, double real_seconds);
// How to repeat it, the fewest planned things that it needs, and the last events of the nodes concerned.
void show_violation(const options &chosen, uint64_t seed, const outcome &last);

} // namespace sim
