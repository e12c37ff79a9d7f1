// What the brokers of a site say of many cards: each card's own topics, its view of its network, and whether it is connected.
// Each broker's account is kept apart; of each card the account counts that knows it best. Nothing here talks to a broker or
// looks at a clock.
#pragma once

#include "network/model.h"

// A broker's account is bounded whatever is published there.
constexpr size_t SITE_CARDS_MAX = 20000;
constexpr size_t SITE_OTHERS_MAX = 1000;     // that one card hears
constexpr size_t SITE_PAYLOAD_MAX = 1 << 16; // as in site.conf

struct site_card {
    mac_address mac{};
    fact<bool> bridge;                  // is it connected to this broker?
    std::optional<moment> bridge_since; // empty: since before this was looked at
    unsigned bridge_losses = 0;         // that were seen
    card_view view;
    std::array<std::optional<moment>, PORT_LISTS> lists_since; // of view.lists, empty likewise

    // The other nodes that it hears, or has heard.
    struct hearing {
        bool is_heard = false;
        std::optional<moment> since; // empty likewise
    };
    std::map<mac_address, hearing> others;
    std::optional<moment> last_message; // other than retained

    bool hears(const mac_address &other) const
    {
        const auto found = others.find(other);
        return found != others.end() && found->second.is_heard;
    }
};

enum class site_event {
    CONNECTED,
    DISCONNECTED,
    HEARS,    // other
    LOST,     // other
    LISTED,   // one of its own ports, by itself
    UNLISTED, // likewise
};
struct site_change {
    site_event event;
    mac_address card;
    mac_address other = {};
    port_list list = {};
    unsigned ports = 0;
};

struct site_changes {
    std::optional<mac_address> card = {}; // whose message it was
    bool is_view = false;                 // what the card says of others, of its lists or its connection
    changes nodes;                        // of the cards' own topics
    std::vector<site_change> cards;
    bool is_retained = false; // so that there are none
};

// One broker's account.
struct site_account {
    network net; // what the cards say of themselves
    std::map<mac_address, site_card> cards;
    size_t foreign = 0;        // messages that no card of a site sends
    std::string first_foreign; // their first topic
    std::string odd_address;   // of a card that doesn't write it as topics have it, the first
};

std::string site_bridge_topic(const mac_address &mac); // cards/<MAC>/bridge
// Which card a topic at the site is of.
std::optional<mac_address> site_topic_card(std::string_view topic);

site_changes site_apply(site_account &account, std::string_view topic, bytes payload, bool is_retained,
                        const moment &now, change_detail detail = change_detail::NETWORK);

// Cards of one network that differ in what they say of it.
struct view_difference {
    enum kind_of {
        PARTS,   // they hear each other in parts: those of seen_by and those of not_by
        UNHEARD, // subject isn't heard by not_by
        LISTED,  // ports of subject are listed by seen_by, not by not_by
    };
    kind_of kind;
    mac_address subject{};
    port_list list = {};
    unsigned ports = 0;
    std::vector<mac_address> seen_by = {};
    std::vector<mac_address> not_by = {};
    std::optional<moment> since = {}; // empty: since before this was looked at
};

struct site_network {
    std::vector<mac_address> cards; // that hear each other, or have
    std::vector<view_difference> differences;
};

// All accounts of a site as one.
class site
{
public:
    explicit site(size_t brokers) : accounts(brokers), is_there(brokers) {}

    size_t brokers() const { return accounts.size(); }
    site_account &account(size_t broker) { return accounts[broker]; }
    const site_account &account(size_t broker) const { return accounts[broker]; }
    // Whether the broker has told everything and is still there. Before it tells everything anew, its account is cleared.
    void set_there(size_t broker, bool is) { is_there[broker] = is; }
    void clear(size_t broker);

    // Every card that any broker knows.
    std::vector<mac_address> cards() const;
    // The account that counts; card and node are null where none knows the card.
    size_t best(const mac_address &mac) const;
    const network &net(const mac_address &mac) const { return accounts[best(mac)].net; }
    const site_card *card(const mac_address &mac) const;
    const node *find(const mac_address &mac) const;
    // Whether it is connected to any broker; empty where its bridge doesn't say.
    std::optional<bool> is_connected(const mac_address &mac) const;

    std::vector<site_network> networks() const;
    // The cards that a user means.
    std::vector<mac_address> find_cards(const node_reference &reference) const;

private:
    bool is_better(size_t a, size_t b, const mac_address &mac) const;

    std::vector<site_account> accounts; // by broker
    std::vector<bool> is_there;
};
