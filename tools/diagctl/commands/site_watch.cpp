// diagctl watch --site: what changes at the cards, and where they differ.
#include "clock.h"
#include "commands/site_session.h"
#include "screen/changes.h"
#include "screen/site_reports.h"
#include "topics.h"

#include <fmt/core.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <set>

namespace
{

using std::chrono::steady_clock;

constexpr std::chrono::milliseconds LOOK(1000); // at the views: a change comes to all cards within seconds
constexpr size_t EVENTS_MAX = 10000;            // that wait to be printed

// Shows what both brokers tell once: how often each has told something counts.
class told_once
{
public:
    explicit told_once(size_t brokers) : count(brokers) {}

    // Whether none has told it as often before.
    bool is_new(size_t broker, const std::string &text, steady_clock::time_point now)
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

private:
    static constexpr std::chrono::seconds FORGET{60};
    struct account {
        std::vector<size_t> times;
        size_t most = 0;
        steady_clock::time_point last;
    };
    size_t count;
    std::map<std::string, account> told;
    steady_clock::time_point forgotten{};
};

struct event {
    moment when;
    std::string text;
    std::optional<mac_address> card;
};

class watcher
{
public:
    watcher(const context &common, bool is_json)
        : is_json_wanted(is_json), told(common.hosts.size()),
          states(common.hosts.size(), site_brokers::state::CONNECTING),
          session(
              common, {DIAG_FILTER},
              [this](size_t broker, std::string_view, bytes, const site_changes &items) {
                  take(broker, items);
              },
              change_detail::RECORDS)
    {
        const auto guard = session.lock();
        is_loaded = true;
    }

    exit_status run()
    {
        do {
            for (const event &shown : collect()) {
                print(shown);
            }
            if (fflush(stdout) != 0) {
                return STATUS_FAILURE;
            }
        } while (session.wait(LOOK));
        return STATUS_SUCCESS;
    }

private:
    // Called by the session, under its lock.
    void take(size_t broker, const site_changes &items)
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
                events.push_back(
                    {current_moment(),
                     site_change_text(
                         all, {.event = is.value_or(false) ? site_event::CONNECTED : site_event::DISCONNECTED,
                               .card = item.card}),
                     item.card});
            }
        }
    }

    void add(size_t broker, const std::string &text, const std::optional<mac_address> &card)
    {
        const moment now = current_moment();
        if (!told.is_new(broker, text, now.steady)) {
            return;
        }
        if (events.size() < EVENTS_MAX) {
            events.push_back({now, text, card});
        } else {
            left_out++;
        }
    }

    std::vector<event> collect()
    {
        const auto guard = session.lock();
        const moment now = current_moment();
        std::vector<event> out;
        out.swap(events);
        if (left_out > 0) {
            out.push_back({now, fmt::format("{} more changes, too many to show", left_out), {}});
            left_out = 0;
        }
        compare_brokers(now, out);
        if (now.steady - looked >= LOOK) {
            looked = now.steady;
            compare_views(now, out);
        }
        return out;
    }

    void compare_brokers(const moment &now, std::vector<event> &out)
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
                    {now, fmt::format("broker {} UNREACHABLE: {}", where, brokers.reason(broker)), {}});
            } else if (is == site_brokers::state::THERE) {
                out.push_back({now, fmt::format("broker {} connected", where), {}});
            }
        }
    }

    void compare_views(const moment &now, std::vector<event> &out)
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
                    out.push_back({now, what + text, {}});
                }
            }
        };
        report(current, differences, "views differ: ");
        report(differences, current, "views no longer differ: ");
        differences = std::move(current);
    }

    void print(const event &shown) const
    {
        if (!is_json_wanted) {
            fmt::print("{} {}\n", date_text(shown.when), shown.text);
            return;
        }
        json object = {{"time", utc_text(shown.when.wall)}};
        object["mac"] = shown.card ? json(mac_text(*shown.card)) : json();
        object["text"] = shown.text;
        puts(json_text(object).c_str());
    }

    const bool is_json_wanted;
    told_once told;
    std::vector<event> events;
    size_t left_out = 0;
    bool is_loaded = false;
    std::map<mac_address, std::optional<bool>> connected;
    std::vector<site_brokers::state> states;
    std::set<std::string> differences;
    steady_clock::time_point looked{};
    site_session session;
};

} // namespace

exit_status site_watch(const context &common, bool is_json)
{
    return watcher(common, is_json).run();
}
