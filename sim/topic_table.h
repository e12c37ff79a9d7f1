// The names of all topics of a run, each with a number, which is what messages carry.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

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
        has_wildcard_.push_back(name.find_first_of("+#") != std::string_view::npos);
        return added;
    }
    const std::string &name(topic_id topic) const { return names_[topic]; }
    // Filters are numbered like topics.
    bool has_wildcard(topic_id filter) const { return has_wildcard_[filter]; }
    bool matches(topic_id filter, topic_id topic);

private:
    enum class match : uint8_t { UNKNOWN, NO, YES };
    std::deque<std::string> names_; // whose addresses never change
    std::vector<bool> has_wildcard_;
    std::unordered_map<std::string_view, topic_id> numbers_;
    std::unordered_map<topic_id, std::vector<match>>
        matches_; // of filters with wildcards, which all brokers share
};

} // namespace sim
