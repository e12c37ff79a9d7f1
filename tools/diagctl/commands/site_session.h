// What the commands have in common with --site: sessions with the site's brokers and what they have told.
#pragma once

#include "broker/signals.h"
#include "broker/site_brokers.h"
#include "commands/reading.h"
#include "commands/site.h"
#include "network/site.h"
#include "screen/live.h"

// What the brokers' sessions need of the command line.
std::vector<broker_address> site_addresses(const context &common);
constexpr const char *VIEWS_FILTER = "cards/#";

class site_session
{
public:
    // Called under the lock.
    using message_listener =
        std::function<void(size_t broker, std::string_view topic, bytes payload, const site_changes &items)>;

    // Takes in the cards' views and what the filters' topics have; throws when no broker is there, or no card.
    site_session(const context &common, std::vector<std::string> filters, message_listener given = {},
                 change_detail wanted = change_detail::NETWORK);

    // Only under the lock, as all that changes.
    site &cards() { return all; }
    site_brokers &brokers() { return *connections; }
    std::unique_lock<std::mutex> lock() { return connections->lock(); }
    const moment &since() const { return start; }

    // Takes in more topics: what they have has come when this returns.
    void subscribe(const std::vector<std::string> &filters) { connections->subscribe(filters, signals); }
    // The one card that is meant.
    mac_address resolve(const std::string &text);
    // Shows a report once, or again with every change; its functions are called under the lock.
    exit_status show(const report &shown, const reading_options &options);
    // Shows a view until it ends; what it calls is called under the lock.
    exit_status run(live_view &view);
    // Waits until something comes, or the time is over; false when a signal asks to end.
    bool wait(std::chrono::milliseconds limit);
    // The same for something to read from the descriptor, whatever comes from the brokers.
    bool wait_for(int descriptor, std::chrono::milliseconds limit);
    // Waits for the whole time.
    bool go_on(std::chrono::milliseconds time);

private:
    void take(size_t broker, std::string_view topic, bytes payload, bool is_retained);
    void take_state(size_t broker, site_brokers::state now);
    void report_foreign() const;

    const signal_input signals; // before there are threads
    message_listener listener;
    change_detail detail;
    site all;
    const moment start;
    std::optional<site_brokers> connections;
};
