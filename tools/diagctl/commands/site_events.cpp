#include "commands/site_events.h"

#include "clock.h"
#include "screen/changes.h"
#include "screen/site_reports.h"

#include <fmt/core.h>

#include <utility>

namespace
{

using std::chrono::steady_clock;

constexpr std::chrono::milliseconds LOOK(1000); // at the views: a change comes to all cards within seconds
constexpr std::chrono::seconds FORGET(60);
constexpr size_t EVENTS_MAX = 10000; // that wait to be fetched

} // namespace

bool told_once::is_new(size_t broker, const std::string &text, steady_clock::time_point now)
{
    if (now - forgotten > FORGET) {
        std::erase_if(told, [&](const auto &entry) { return now - entry.second.last > FORGET; });
        forgotten = now;
    }
    account &known = told[text];
    known.times.resize(count);
    known.last = now;
    const bool is = ++known.times[broker] > known.most;
    known.most += is ? 1U : 0U;
    return is;
}

site_events::site_events(const context &common, std::vector<std::string> filters, change_detail detail)
    : told(common.hosts.size()), states(common.hosts.size(), site_brokers::state::CONNECTING),
      session(
          common, std::move(filters),
          [this](size_t broker, std::string_view, bytes, const site_changes &items) { take(broker, items); },
          detail)
{
    const auto guard = session.lock();
    for (const mac_address &mac : session.cards().cards()) {
        connected[mac] = session.cards().is_connected(mac);
    }
    is_loaded = true;
}

// Called by the session, under its lock.
void site_events::take(size_t broker, const site_changes &items)
{
    if (!is_loaded) {
        return;
    }
    const site &all = session.cards();
    for (const change &item : items.nodes) {
        add(broker, change_text(all.net(item.node.value_or(mac_address{})), item), item.node);
    }
    for (const site_change &item : items.cards) {
        // A card that one broker has lost may still be connected to the other.
        const bool is_connection =
            item.event == site_event::CONNECTED || item.event == site_event::DISCONNECTED;
        if (!is_connection) {
            add(broker, site_change_text(all, item), item.card);
        } else if (const std::optional<bool> is = all.is_connected(item.card);
                   std::exchange(connected[item.card], is) != is) {
            const site_change change = {.event = is.value_or(false) ? site_event::CONNECTED
                                                                    : site_event::DISCONNECTED,
                                        .card = item.card};
            events.push_back({{current_moment(), site_change_text(all, change)}, item.card});
        }
    }
}

void site_events::add(size_t broker, const std::string &text, const std::optional<mac_address> &card)
{
    const moment now = current_moment();
    if (!told.is_new(broker, text, now.steady)) {
        return;
    }
    if (events.size() < EVENTS_MAX) {
        events.push_back({{now, text}, card});
    } else {
        left_out++;
    }
}

std::vector<site_event_text> site_events::collect()
{
    const moment now = current_moment();
    std::vector<site_event_text> out;
    out.swap(events);
    if (left_out > 0) {
        out.push_back({{now, fmt::format("{} more changes, too many to show", left_out)}, {}});
        left_out = 0;
    }
    compare_brokers(now, out);
    if (now.steady - looked_at >= LOOK) {
        looked_at = now.steady;
        compare_views(now, out);
    }
    return out;
}

void site_events::compare_brokers(const moment &now, std::vector<site_event_text> &out)
{
    const site_brokers &brokers = session.brokers();
    for (size_t broker = 0; broker < states.size(); broker++) {
        const site_brokers::state is = brokers.state_of(broker);
        const std::string where = brokers.address(broker).text();
        if (is == states[broker]) {
            continue;
        }
        states[broker] = is;
        if (is == site_brokers::state::AWAY) {
            out.push_back(
                {{now, fmt::format("broker {} UNREACHABLE: {}", where, brokers.reason(broker))}, {}});
        } else if (is == site_brokers::state::THERE) {
            out.push_back({{now, fmt::format("broker {} connected", where)}, {}});
        }
    }
}

void site_events::compare_views(const moment &now, std::vector<site_event_text> &out)
{
    const site &all = session.cards();
    std::set<std::string> current;
    for (const site_network &network : all.networks()) {
        for (view_difference item : network.differences) {
            item.since.reset();
            current.insert(difference_text(all, item));
        }
    }
    const auto report = [&](const auto &from, const auto &missing, const char *what) {
        for (const std::string &text : from) {
            if (!missing.contains(text)) {
                out.push_back({{now, what + text}, {}});
            }
        }
    };
    report(current, differences, "views differ: ");
    report(differences, current, "views no longer differ: ");
    differences = std::move(current);
}
