// Virtual time and what is to happen in it. Time stands still while something happens and then jumps to the next event;
// events of the same moment happen in the order in which they were planned.
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

namespace sim
{

using std::chrono::hours;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::nanoseconds;
using std::chrono::seconds;

inline double in_seconds(nanoseconds time)
{
    return static_cast<double>(time.count()) / 1e9;
}

class timeline
{
public:
    nanoseconds now() const { return now_; }
    uint64_t events() const { return served_; }

    // Plans (object.*Method)(argument). The object has to live until then; what may be obsolete by then has to find
    // out by its argument.
    template <auto Method, typename Object>
    void at(nanoseconds when, Object &object, uint64_t argument = 0)
    {
        push({when, planned_++, &call<Method, Object>, &object, argument});
    }
    template <auto Method, typename Object>
    void after(nanoseconds delay, Object &object, uint64_t argument = 0)
    {
        at<Method>(now_ + delay, object, argument);
    }

    // Lets everything happen up to this moment.
    void run_until(nanoseconds end);

private:
    struct event {
        nanoseconds when;
        uint64_t order;
        void (*call)(void *object, uint64_t argument);
        void *object;
        uint64_t argument;
    };

    template <auto Method, typename Object>
    static void call(void *object, uint64_t argument)
    {
        (static_cast<Object *>(object)->*Method)(argument);
    }
    struct is_later;
    void push(const event &added);

    std::vector<event> heap_; // the next event first
    nanoseconds now_{};
    uint64_t planned_ = 0;
    uint64_t served_ = 0;
};

} // namespace sim
