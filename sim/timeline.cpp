#include "timeline.h"

#include <algorithm>

namespace sim
{

// A function object, unlike a pointer to a function, is compiled into what compares.
struct timeline::is_later {
    bool operator()(const event &a, const event &b) const
    {
        return a.when != b.when ? a.when > b.when : a.order > b.order;
    }
};

void timeline::push(const event &added)
{
    heap_.push_back(added);
    std::push_heap(heap_.begin(), heap_.end(), is_later{});
}

void timeline::run_until(nanoseconds end)
{
    while (!heap_.empty() && heap_.front().when <= end) {
        std::pop_heap(heap_.begin(), heap_.end(), is_later{});
        const event next = heap_.back();
        heap_.pop_back();
        now_ = std::max(now_, next.when);
        served_++;
        next.call(next.object, next.argument);
    }
    now_ = std::max(now_, end);
}

} // namespace sim
