// Finds out which of the planned things a violation needs, by leaving out ever smaller pieces of the plan.
#include "run.h"

#include <algorithm>
#include <chrono>
#include <cstring>

namespace sim
{

namespace
{

class shrinker
{
public:
    shrinker(const settings &chosen, const violation &found, int limit_seconds)
        : settings_(chosen), found_(found),
          end_(std::chrono::steady_clock::now() + std::chrono::seconds(limit_seconds))
    {
        settings_.length = found.when + seconds(1);
    }

    bool is_over() const { return std::chrono::steady_clock::now() >= end_; }
    bool still_fails(const std::vector<planned> &plan) const
    {
        const auto left = end_ - std::chrono::steady_clock::now();
        const outcome last =
            complete_run(settings_, plan, "", std::chrono::duration_cast<std::chrono::milliseconds>(left));
        return found_.invariant[0] == '\0' ? last.result == outcome::kind::CRASHED
                                           : last.result == outcome::kind::VIOLATED &&
                                                 strcmp(last.found.invariant, found_.invariant) == 0;
    }

private:
    settings settings_;
    violation found_;
    std::chrono::steady_clock::time_point end_;
};

} // namespace

std::vector<planned> shrink(const settings &chosen, std::vector<planned> plan, const violation &found,
                            int limit_seconds)
{
    const shrinker trial(chosen, found, limit_seconds);
    std::erase_if(plan, [&](const planned &item) { return item.when > found.when; });
    for (size_t piece = std::max(plan.size() / 2, size_t{1}); !plan.empty() && !trial.is_over();) {
        bool is_shorter = false;
        for (size_t start = 0; start < plan.size() && !trial.is_over();) {
            std::vector<planned> rest = plan;
            const auto first = rest.begin() + static_cast<ptrdiff_t>(start);
            rest.erase(first, first + static_cast<ptrdiff_t>(std::min(piece, rest.size() - start)));
            if (trial.still_fails(rest)) {
                plan = std::move(rest);
                is_shorter = true;
            } else {
                start += piece;
            }
        }
        if (piece == 1 && !is_shorter) {
            break;
        }
        piece = std::max(piece / 2, size_t{1});
    }
    return plan;
}

} // namespace sim
