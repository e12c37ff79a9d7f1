// What pages are told: the networks' state and its changes, as JSON that is made once, however many look. docs/console.md has
// its form.
#pragma once

#include "web/page_json.h"

#include <deque>
#include <functional>
#include <memory>
#include <optional>

// An event of the stream: "event: NAME", "id: ID" and the data.
using event_sender = std::function<void(std::string event)>;

struct console_info {
    std::string version;
    std::string broker; // or what else the network is learnt from
    bool is_site = false;
    bool is_replay = false;
    bool has_layout = false;
};

class page_state
{
public:
    page_state(console_info about, wall_time started, event_sender sender);

    // Whether what is shown is so now; why not. Said at once.
    void set_connection(bool is_live, const std::string &reason, wall_time now);
    bool is_live() const { return live; }
    // Each broker of a site, as a JSON array. Said at once.
    void set_brokers(std::string array);

    // A change: see page_change_json(). Remembered, and sent before what it makes of the state.
    void add_change(wall_time when, const std::string &object);
    // The changes after this one.
    std::string log(uint64_t after) const;

    // Something of a state has changed; told with the next tell()s, which are due at this time, begun by begin_telling().
    void mark();
    std::optional<std::chrono::steady_clock::time_point> due() const;
    void begin_telling();

    // What nodes of a network are now, none for one that it no longer has, and everything but its nodes, empty where it is what
    // it was. What differs from what was told is sent.
    using node_texts = std::map<mac_address, std::optional<std::string>>;
    void tell(size_t network, node_texts nodes, json_parts parts);
    const std::map<mac_address, std::string> &nodes(size_t network) const { return networks[network].nodes; }

    // So many networks take the place of those that were told. Nothing is sent until pages are told to look anew.
    void begin_anew(size_t count);
    void end_anew();
    bool is_telling() const { return !is_quiet; }
    uint64_t changes() const { return last_id; } // so far
    // Nothing is sent until pages are told to look anew: a recording is wound to where there were so many changes, of which
    // none is known.
    void rewind(uint64_t changes);

    // The state as last told, so that what the stream says afterwards follows it.
    std::shared_ptr<const std::string> snapshot(wall_time now);

private:
    struct told_network {
        std::map<mac_address, std::string> nodes;
        json_parts parts;
    };
    struct logged_change {
        uint64_t id;
        std::string text;
    };

    void send(const char *event, const std::string &data);
    void send_changes();
    std::string connection_json() const;

    console_info info;
    std::string started;
    event_sender sender;
    std::vector<told_network> networks;
    std::string brokers; // empty: one, or none
    bool live = false;
    std::string live_reason;
    bool is_quiet = false;
    std::string unsent; // changes, as events
    std::string live_since;
    uint64_t last_id = 0;
    uint64_t told_id = 0; // of the last change before what was told last
    std::deque<logged_change> changes_kept;
    std::optional<std::chrono::steady_clock::time_point> dirty_since;
    std::chrono::steady_clock::time_point told_at{};
    std::shared_ptr<const std::string> last_snapshot;
    std::chrono::steady_clock::time_point snapshot_made{};
};
