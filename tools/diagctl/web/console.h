// What a card's broker says of its network, told to the page.
#pragma once

#include "web/page_state.h"

#include <set>

// What is looked at: it tells its page what it is now.
class console_model
{
public:
    virtual ~console_model() = default;

    // Tells what has changed since the last time.
    virtual void flush() = 0;
    // A node with its statistics, a port's performance records; nothing where none are known.
    virtual std::optional<std::string> node_of(const mac_address &mac) const = 0;
    virtual std::optional<std::string> performance(const mac_address &mac, int port, wall_time now) const = 0;
};

class console : public console_model
{
public:
    console(page_state &told, network named) : page(told), net(std::move(named)) {}

    // A message of the broker. It is told with the next flush().
    void take(std::string_view topic, bytes payload, bool is_retained, const moment &now);
    // Another state takes the place of this one; the page looks anew.
    void replace(network other);
    // The same for a recording that is played from elsewhere: this state, after so many changes, of which none is known.
    // Nothing is said of what is taken from here on until show_anew().
    void rewind(network other, uint64_t last);
    void show_anew();

    void flush() override;
    std::optional<std::string> node_of(const mac_address &mac) const override;
    std::optional<std::string> performance(const mac_address &mac, int port, wall_time now) const override;

private:
    void mark_listed(port_list list);
    void note(const change &item, const moment &now);
    std::string node_text(const node &shown) const;

    page_state &page;
    network net;
    std::optional<wall_time> ring_since; // empty: not seen to change
    std::map<mac_address, wall_time> left;
    // What is to be looked at with the next flush.
    std::set<mac_address> dirty;
    bool is_view_dirty = true;
};
