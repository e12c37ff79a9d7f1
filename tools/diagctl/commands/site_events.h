// What changes at the cards of a site, once, whichever broker tells it.
#pragma once

#include "commands/site_session.h"
#include "screen/top.h"

#include <map>
#include <set>

// Says of what both brokers tell once that it is new: how often each has told it counts.
class told_once
{
public:
    explicit told_once(size_t brokers) : count(brokers) {}

    // Whether none has told it as often before.
    bool is_new(size_t broker, const std::string &text, std::chrono::steady_clock::time_point now);

private:
    struct account {
        std::vector<size_t> times;
        size_t most = 0;
        std::chrono::steady_clock::time_point last;
    };
    size_t count;
    std::map<std::string, account> told;
    std::chrono::steady_clock::time_point forgotten{};
};

struct site_event_text : event {
    std::optional<mac_address> card;
};

class site_events
{
public:
    // The session is of these filters' topics; changes from here on are events.
    site_events(const context &common, std::vector<std::string> filters, change_detail detail);

    site_session &looked() { return session; }
    // What has changed since the last call; under the session's lock.
    std::vector<site_event_text> collect();

private:
    void take(size_t broker, const site_changes &items);
    void add(size_t broker, const std::string &text, const std::optional<mac_address> &card);
    void compare_brokers(const moment &now, std::vector<site_event_text> &out);
    void compare_views(const moment &now, std::vector<site_event_text> &out);

    told_once told;
    std::vector<site_event_text> events;
    size_t left_out = 0;
    bool is_loaded = false;
    std::map<mac_address, std::optional<bool>> connected;
    std::vector<site_brokers::state> states;
    std::set<std::string> differences;
    std::chrono::steady_clock::time_point looked_at{};
    site_session session;
};
