// What a card's broker says of its network, told to the page.
#pragma once

#include "network/recording.h"
#include "web/page_state.h"

#include <memory>
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

    // As it is now, told to the same page.
    virtual std::unique_ptr<console_model> clone() const = 0;
    // What a recording has next, and that it has come to a time. The same recording makes the same changes, wherever it is
    // played from and however fast.
    virtual void play(const recorded_message &message, const moment &when) = 0;
    virtual void pass(const moment &until) = 0;
    // All of it takes the place of what was told; the page looks anew.
    virtual void show_anew() = 0;
};

class console : public console_model
{
public:
    console(page_state &told, network named) : page(told), net(std::move(named)) {}

    // A message of the broker. It is told with the next flush().
    void take(std::string_view topic, bytes payload, bool is_retained, const moment &now);
    // Another state takes the place of this one; the page looks anew.
    void replace(network other);

    void flush() override;
    std::optional<std::string> node_of(const mac_address &mac) const override;
    std::optional<std::string> performance(const mac_address &mac, int port, wall_time now) const override;
    std::unique_ptr<console_model> clone() const override { return std::make_unique<console>(*this); }
    void play(const recorded_message &message, const moment &when) override;
    void pass(const moment & /*until*/) override {}
    void show_anew() override;

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
