// What the brokers of a site say of many cards and their networks, told to the page.
#pragma once

#include "network/site.h"
#include "web/console.h"

#include <deque>
#include <variant>

class site_console : public console_model
{
public:
    site_console(page_state &told, size_t brokers, const node_names &names);

    // A message of a broker, and whether it has told everything and is there; before it tells everything anew, it is forgotten.
    // These two only note what has come: the page is told by whoever calls flush().
    void take(size_t broker, std::string_view topic, bytes payload, bool is_retained, const moment &now);
    void forget(size_t broker);
    void set_there(size_t broker, bool is);

    // Tells the changes that have come since the last time, and what depends on all cards together once a second. The time until
    // that is due.
    std::chrono::milliseconds look(const moment &now);
    void flush() override;
    std::optional<std::string> node_of(const mac_address &mac) const override;
    std::optional<std::string> performance(const mac_address &mac, int port, wall_time now) const override;

    std::unique_ptr<console_model> clone() const override { return std::make_unique<site_console>(*this); }
    void play(const recorded_message &message, const moment &when) override;
    void pass(const moment &until) override;
    void show_anew() override;

private:
    struct shown_network {
        std::vector<mac_address> cards;
        network view; // without nodes
        std::vector<view_difference> differences;
        std::optional<wall_time> ring_since; // empty: not seen to change
        // What is to be looked at with the next flush.
        std::set<mac_address> dirty;
        bool is_view_dirty = true;
    };
    struct pending_change {
        moment when;
        mac_address card;
        std::variant<change, site_change> item;
    };

    void note_change(const pending_change &item);
    void note_card_change(const pending_change &item, const site_change &what);
    void mark(const mac_address &card, bool is_view);
    void compare_networks(const moment &now);
    void build(std::vector<site_network> found);
    void tell_anew();
    void compare_differences(const std::vector<site_network> &found, const moment &now);
    void refresh_view(shown_network &shown);
    std::string node_text(const shown_network &shown, const mac_address &mac, bool with_statistics) const;
    json_parts parts_of(const shown_network &shown) const;
    std::optional<size_t> network_of(const mac_address &mac) const;

    page_state &page;
    site all;
    std::vector<shown_network> networks;
    std::map<mac_address, size_t> places; // of cards in networks
    std::map<mac_address, wall_time> left;
    std::map<mac_address, uint8_t> numbers; // which a list told once
    std::map<mac_address, std::optional<bool>> connected;
    std::set<std::string> differing; // in words, as last told
    std::deque<pending_change> pending;
    bool is_compared_anew = true; // all of it is to be told
    bool is_compare_due = true;   // something of it may be different
    std::chrono::steady_clock::time_point compared{};
    moment looked{};
};
