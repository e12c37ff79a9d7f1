#include "topic_table.h"

#include <mosquitto.h>

namespace sim
{

bool topic_table::matches(topic_id filter, topic_id topic)
{
    if (!has_wildcard(filter)) {
        return filter == topic;
    }
    std::vector<match> &known = matches_[filter];
    if (known.size() <= topic) {
        known.resize(names_.size());
    }
    if (known[topic] == match::UNKNOWN) {
        bool result = false;
        mosquitto_topic_matches_sub(name(filter).c_str(), name(topic).c_str(), &result);
        known[topic] = result ? match::YES : match::NO;
    }
    return known[topic] == match::YES;
}

} // namespace sim
