// What the page is told: the networks' state and its changes, as JSON that is made once, however many look. docs/console.md
// has its form.
#pragma once

#include "web/page_json.h"

#include <deque>
#include <functional>
#include <memory>
#include <set>

// An event of the stream: "event: NAME", "id: ID" and the data.
using event_sender = std::function<void(std::string event)>;

struct console_info {
    std::string version;
    std::string broker; // or what else the network is learnt from
    bool is_replay = false;
    bool has_layout = false;
};

class console
{
public:
    console(console_info about, network named, wall_time started, event_sender sender);

    // A message of the broker. Its changes are sent at once, what it makes of the state with the next flush().
    void take(std::string_view topic, bytes payload, bool is_retained, const moment &now);
    // Another state takes the place of this one; the page looks anew.
    void replace(network other);
    // The same for a recording that is played from elsewhere: this state, after so many changes, of which none is known.
    // Nothing is said of what is taken from here on until show_anew().
    void rewind(network other, uint64_t last);
    void show_anew();
    // Whether what is shown is so now; why not. Said at once.
    void set_connection(bool is_live, const std::string &reason, wall_time now);
    bool is_live() const { return live; }

    const network &net() const { return shown.net; }

    // When flush() is due; nothing: no state waits.
    std::optional<std::chrono::steady_clock::time_point> due() const;
    void flush();

    // The state as last flushed, so that what the stream says afterwards follows it.
    std::shared_ptr<const std::string> snapshot(wall_time now);
    // The changes after this one.
    std::string log(uint64_t after) const;
    // The performance records of a port; nothing where none are published.
    std::optional<std::string> performance(const std::string &mac, const std::string &port,
                                           wall_time now) const;

    uint64_t last_change() const { return last_id; }

private:
    struct shown_network {
        network net;
        std::optional<wall_time> ring_since; // empty: not seen to change
        std::map<mac_address, wall_time> left;
        // What has been told, as JSON: nodes, and the rest by its name.
        std::map<mac_address, std::string> nodes;
        json_parts parts;
        // What is to be looked at with the next flush.
        std::set<mac_address> dirty;
        bool is_view_dirty = true;
    };
    struct logged_change {
        uint64_t id;
        std::string text;
    };

    void mark_listed(port_list list);
    void note(const change &item, const moment &now);
    void add_to_log(const std::string &object);
    std::string changed_nodes();
    std::string changed_parts();
    void send(const char *event, const std::string &data);

    console_info info;
    std::string started;
    event_sender sender;
    shown_network shown;
    bool live = false;
    bool is_quiet = false;
    std::string live_since;
    uint64_t last_id = 0;
    uint64_t told_id = 0; // of the last change before the last flush
    std::deque<logged_change> changes_kept;
    std::optional<std::chrono::steady_clock::time_point> dirty_since;
    std::chrono::steady_clock::time_point flushed{};
    std::shared_ptr<const std::string> last_snapshot;
    std::chrono::steady_clock::time_point snapshot_made{};
};
