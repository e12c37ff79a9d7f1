#include "screen/trends.h"

#include "topics.h"

#include <algorithm>

namespace
{

int64_t minute_of(const moment &now)
{
    return std::chrono::duration_cast<std::chrono::minutes>(now.steady.time_since_epoch()).count();
}

void append(std::deque<double> &values, double value)
{
    values.push_back(value);
    if (values.size() > trends::MAX_RATES) {
        values.pop_front();
    }
}

// Quarter hours close, and files come and go, whether the node is well or not.
bool is_telling(const change &item)
{
    return item.kind != change_kind::PERIOD_CLOSED &&
           (item.kind != change_kind::FACT || item.what != NODE_TOPIC_INFOS[TOPIC_CF_FREE_SPACE].name);
}

} // namespace

void trends::minutes::move_to(int64_t minute)
{
    const auto passed = std::min<int64_t>(minute - latest, MINUTES);
    std::move(counts.begin() + passed, counts.end(), counts.begin());
    std::fill(counts.end() - passed, counts.end(), 0);
    latest = minute;
}

void trends::note(const network &net, std::string_view topic, const changes &items, const moment &now)
{
    for (const change &item : items) {
        if (item.node && is_telling(item)) {
            minutes &changed = node_changes[*item.node];
            changed.move_to(minute_of(now));
            changed.counts.back()++;
        }
    }
    const std::optional<topic_place> place = parse_topic_place(topic);
    if (!place || !place->port || place->name != PORT_STATS) {
        return;
    }
    const auto found = net.nodes.find(place->mac);
    if (found == net.nodes.end() || !found->second.ports.contains(*place->port)) {
        return;
    }
    const port_records &records = found->second.ports.at(*place->port);
    const auto good = field_rate(records, stats_field_at(STATS_GOOD_FRAMES));
    const auto errored = field_rate(records, stats_field_at(STATS_ERRORED_FRAMES));
    if (good && errored) {
        port_rates &kept = rates[place->mac][*place->port];
        append(kept.good_frames, *good);
        append(kept.errored_frames, *errored);
    }
}

std::array<double, trends::MINUTES> trends::changes_of(const mac_address &mac, const moment &now) const
{
    const auto found = node_changes.find(mac);
    if (found == node_changes.end()) {
        return {};
    }
    minutes changed = found->second;
    changed.move_to(minute_of(now));
    return changed.counts;
}

const std::map<int, trends::port_rates> &trends::rates_of(const mac_address &mac) const
{
    static const std::map<int, port_rates> NONE;
    const auto found = rates.find(mac);
    return found == rates.end() ? NONE : found->second;
}
