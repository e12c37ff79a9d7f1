// The names of all topics of a run, each with a number, which is what messages carry.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>

namespace sim
{

using topic_id = uint32_t;

class topic_table
{
public:
    topic_id number(std::string_view name)
    {
        const auto found = numbers_.find(name);
        if (found != numbers_.end()) {
            return found->second;
        }
        const auto added = static_cast<topic_id>(names_.size());
        numbers_.emplace(names_.emplace_back(name), added);
        return added;
    }
    const std::string &name(topic_id topic) const { return names_[topic]; }

private:
    std::deque<std::string> names_; // whose addresses never change
    std::unordered_map<std::string_view, topic_id> numbers_;
};

} // namespace sim
