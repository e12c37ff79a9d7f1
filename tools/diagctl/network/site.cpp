#include "network/site.h"

#include "topics.h"

#include <algorithm>
#include <numeric>
#include <set>

namespace
{

constexpr std::string_view CARDS_PREFIX = "cards/";
constexpr std::string_view BRIDGE_STATE = "bridge"; // cards/<MAC>/bridge
constexpr size_t MAC_TEXT_SIZE = 3 * MAC_SIZE - 1;

// Null where there is no room for another.
site_card *card_of(site_account &account, const mac_address &mac)
{
    const auto found = account.cards.find(mac);
    if (found != account.cards.end()) {
        return &found->second;
    }
    if (account.cards.size() >= SITE_CARDS_MAX) {
        return nullptr;
    }
    site_card &added = account.cards[mac];
    added.mac = mac;
    added.view.local = {true, MAC_TEXT_SIZE, mac};
    return &added;
}

template <typename T>
void set(fact<T> &target, bytes payload, std::optional<T> value)
{
    target = {!payload.empty(), payload.size(), payload.empty() ? std::nullopt : std::move(value)};
}

std::optional<bool> decode_bridge(bytes payload)
{
    const std::string_view text = as_text(payload);
    return text == "1" || text == "0" ? std::optional(text == "1") : std::nullopt;
}

// When what a message says began.
std::optional<moment> since(bool is_retained, const moment &now)
{
    return is_retained ? std::nullopt : std::optional(now);
}

void apply_bridge(site_card &card, bytes payload, bool is_retained, const moment &now, site_changes &out)
{
    const std::optional<bool> before = card.bridge.value;
    set(card.bridge, payload, decode_bridge(payload));
    const std::optional<bool> after = card.bridge.value;
    if (after == before) {
        return;
    }
    card.bridge_since = since(is_retained, now);
    card.bridge_losses += before == true && after == false ? 1U : 0U;
    if (after && !is_retained) {
        out.cards.push_back(
            {.event = *after ? site_event::CONNECTED : site_event::DISCONNECTED, .card = card.mac});
    }
}

bool apply_hearing(site_card &card, const mac_address &other, bytes payload, bool is_retained,
                   const moment &now, site_changes &out)
{
    const bool is_heard = !payload.empty();
    const auto found = card.others.find(other);
    if (found == card.others.end() && (!is_heard || card.others.size() >= SITE_OTHERS_MAX)) {
        return !is_heard;
    }
    site_card::hearing &known = card.others[other];
    if (known.is_heard != is_heard) {
        known = {is_heard, since(is_retained, now)};
        if (!is_retained) {
            out.cards.push_back(
                {.event = is_heard ? site_event::HEARS : site_event::LOST, .card = card.mac, .other = other});
        }
    }
    return true;
}

void apply_list(site_card &card, port_list which, bytes payload, bool is_retained, const moment &now,
                site_changes &out)
{
    fact<port_list_value> &list = card.view.lists[which];
    const unsigned before = card.view.listed(which, card.mac);
    set(list, payload, decode_port_list(payload));
    card.lists_since[which] = since(is_retained, now);
    const unsigned after = card.view.listed(which, card.mac);
    const auto report = [&](site_event event, unsigned ports) {
        if (ports != 0 && !is_retained) {
            out.cards.push_back({.event = event, .card = card.mac, .list = which, .ports = ports});
        }
    };
    report(site_event::LISTED, after & ~before);
    report(site_event::UNLISTED, before & ~after);
}

// cards/<MAC>/<what>; false where no card says such a thing.
bool apply_view(site_card &card, std::string_view what, bytes payload, bool is_retained, const moment &now,
                site_changes &out)
{
    if (what == BRIDGE_STATE) {
        apply_bridge(card, payload, is_retained, now, out);
    } else if (const std::optional<port_list> list = port_list_of_topic(what)) {
        apply_list(card, *list, payload, is_retained, now, out);
    } else if (what == MISWIRED_LINKS_TOPIC) {
        set(card.view.miswired_links, payload, decode_miswired_links(payload));
    } else if (what == REQUEST_TOPIC || what == RESPONSE_TOPIC || what == CHALLENGE_TOPIC) {
        // Between the card and who gives it commands.
    } else {
        const std::optional<topic_place> place = parse_topic_place(what);
        return place && !place->port && place->name == NODE_PORT_SUMMARY && place->mac != card.mac &&
               apply_hearing(card, place->mac, payload, is_retained, now, out);
    }
    return true;
}

// A MAC address where topics have one, but in another form.
std::string_view odd_address_in(std::string_view topic)
{
    const std::string_view prefix = topic.starts_with(CARDS_PREFIX) ? CARDS_PREFIX : DIAG_PREFIX;
    const std::string_view rest = topic.substr(std::min(topic.size(), prefix.size()));
    const std::string_view address = rest.substr(0, rest.find('/'));
    return parse_mac(address) && !parse_topic_mac(address) ? address : "";
}

bool apply(site_account &account, std::string_view topic, bytes payload, bool is_retained, const moment &now,
           change_detail detail, site_changes &out)
{
    const bool is_view = topic.starts_with(CARDS_PREFIX);
    const std::optional<mac_address> mac = site_topic_card(topic);
    if (!mac && account.odd_address.empty()) {
        account.odd_address = odd_address_in(topic);
    }
    if (!mac || payload.size() > SITE_PAYLOAD_MAX) {
        return false;
    }
    const std::string_view rest = topic.substr(is_view ? CARDS_PREFIX.size() : DIAG_PREFIX.size());
    site_card *const card = card_of(account, *mac);
    if (card == nullptr) {
        return false;
    }
    out.card = mac;
    out.is_view = is_view;
    if (!is_retained) {
        card->last_message = now;
    }
    if (is_view) {
        return apply_view(*card, rest.substr(MAC_TEXT_SIZE + 1), payload, is_retained, now, out);
    }
    out.nodes = network_apply(account.net, topic, payload, is_retained, now, detail);
    return true;
}

// --- networks

// Which of some things belong together.
class partition
{
public:
    explicit partition(size_t count) : parents(count) { std::iota(parents.begin(), parents.end(), 0); }
    size_t root(size_t item)
    {
        while (parents[item] != item) {
            item = parents[item] = parents[parents[item]];
        }
        return item;
    }
    void join(size_t a, size_t b) { parents[std::max(root(a), root(b))] = std::min(root(a), root(b)); }

private:
    std::vector<size_t> parents;
};

// Cards in groups, each in the order of the addresses.
template <typename Joins>
std::vector<std::vector<mac_address>> groups_of(const std::vector<mac_address> &macs,
                                                const Joins &for_each_join)
{
    partition parts(macs.size());
    const auto index_of = [&](const mac_address &mac) {
        const auto found = std::lower_bound(macs.begin(), macs.end(), mac);
        return found != macs.end() && *found == mac ? static_cast<size_t>(found - macs.begin()) : macs.size();
    };
    for (size_t i = 0; i < macs.size(); i++) {
        for_each_join(macs[i], [&](const mac_address &other) {
            if (const size_t found = index_of(other); found != macs.size()) {
                parts.join(i, found);
            }
        });
    }
    std::map<size_t, std::vector<mac_address>> by_root;
    for (size_t i = 0; i < macs.size(); i++) {
        by_root[parts.root(i)].push_back(macs[i]);
    }
    std::vector<std::vector<mac_address>> groups;
    groups.reserve(by_root.size());
    for (auto &[root, group] : by_root) {
        groups.push_back(std::move(group));
    }
    return groups;
}

void set_later(std::optional<moment> &latest, const std::optional<moment> &candidate)
{
    if (candidate && (!latest || candidate->steady > latest->steady)) {
        latest = candidate;
    }
}

// The cards of a network whose view counts: a card that isn't connected says what once was.
class network_views
{
public:
    network_views(const site &all, const std::vector<mac_address> &macs)
    {
        for (const mac_address &mac : macs) {
            const site_card *const card = all.card(mac);
            if (card != nullptr && all.is_connected(mac).value_or(true)) {
                cards.push_back(card);
            }
        }
    }

    std::vector<view_difference> differences() const
    {
        std::vector<view_difference> out;
        std::vector<mac_address> macs;
        for (const site_card *card : cards) {
            macs.push_back(card->mac);
        }
        const auto parts = groups_of(macs, [&](const mac_address &mac, const auto &join) {
            for (const auto &[other, known] : find(mac).others) {
                if (known.is_heard) {
                    join(other);
                }
            }
        });
        for (size_t i = 1; i < parts.size(); i++) {
            view_difference found = {.kind = view_difference::PARTS, .seen_by = parts[0], .not_by = parts[i]};
            for (const mac_address &one : parts[i]) {
                for (const auto &[other, known] : find(one).others) {
                    set_later(found.since, known.is_heard ? std::nullopt : known.since);
                }
            }
            out.push_back(std::move(found));
        }
        for (const auto &part : parts) {
            compare(part, out);
        }
        return out;
    }

private:
    const site_card &find(const mac_address &mac) const
    {
        return **std::lower_bound(
            cards.begin(), cards.end(), mac,
            [](const site_card *card, const mac_address &wanted) { return card->mac < wanted; });
    }

    void compare(const std::vector<mac_address> &part, std::vector<view_difference> &out) const
    {
        for (const mac_address &subject : part) {
            view_difference found = {.kind = view_difference::UNHEARD, .subject = subject};
            for (const mac_address &mac : part) {
                const site_card &card = find(mac);
                if (mac != subject) {
                    (card.hears(subject) ? found.seen_by : found.not_by).push_back(mac);
                    const auto known = card.others.find(subject);
                    set_later(found.since, known == card.others.end() ? std::nullopt : known->second.since);
                }
            }
            if (!found.not_by.empty()) {
                out.push_back(std::move(found));
            }
        }
        for (const port_list list : {LIST_LINK_DOWN, LIST_GROUND, LIST_MISWIRED}) {
            compare_lists(part, list, out);
        }
    }

    void compare_lists(const std::vector<mac_address> &part, port_list list,
                       std::vector<view_difference> &out) const
    {
        std::set<std::pair<mac_address, unsigned>> entries;
        std::optional<moment> changed;
        for (const mac_address &mac : part) {
            const site_card &card = find(mac);
            set_later(changed, card.lists_since[list]);
            for (const listed_ports &record : card.view.lists[list].value.value_or(port_list_value{})) {
                entries.emplace(record.mac, record.ports);
            }
        }
        for (const auto &[subject, ports] : entries) {
            view_difference found = {
                .kind = view_difference::LISTED, .subject = subject, .list = list, .ports = ports};
            for (const mac_address &mac : part) {
                const site_card &card = find(mac);
                if (card.view.lists[list].is_published) {
                    const bool is_listed = card.view.listed(list, subject) == ports;
                    (is_listed ? found.seen_by : found.not_by).push_back(mac);
                }
            }
            if (!found.not_by.empty()) {
                found.since = changed;
                out.push_back(std::move(found));
            }
        }
    }

    std::vector<const site_card *> cards; // in the order of their addresses
};

} // namespace

std::string site_bridge_topic(const mac_address &mac)
{
    return std::string(CARDS_PREFIX) + mac_text(mac) + "/" + std::string(BRIDGE_STATE);
}

std::optional<mac_address> site_topic_card(std::string_view topic)
{
    const std::string_view prefix = topic.starts_with(CARDS_PREFIX) ? CARDS_PREFIX : DIAG_PREFIX;
    if (!topic.starts_with(prefix)) {
        return {};
    }
    const std::string_view rest = topic.substr(prefix.size());
    const bool has_more = rest.size() > MAC_TEXT_SIZE + 1 && rest[MAC_TEXT_SIZE] == '/';
    return has_more ? parse_topic_mac(rest.substr(0, MAC_TEXT_SIZE)) : std::nullopt;
}

site_changes site_apply(site_account &account, std::string_view topic, bytes payload, bool is_retained,
                        const moment &now, change_detail detail)
{
    site_changes out;
    out.is_retained = is_retained;
    if (!apply(account, topic, payload, is_retained, now, detail, out) && account.foreign++ == 0) {
        account.first_foreign = topic;
    }
    return out;
}

void site::clear(size_t broker)
{
    node_names names = std::move(accounts[broker].net.names);
    accounts[broker] = {};
    accounts[broker].net.names = std::move(names);
}

std::vector<mac_address> site::cards() const
{
    std::set<mac_address> macs;
    for (const site_account &account : accounts) {
        for (const auto &[mac, card] : account.cards) {
            macs.insert(macs.end(), mac);
        }
    }
    return {macs.begin(), macs.end()};
}

// A broker that is there knows better than one that has gone, one to which the card is connected than one to which it isn't,
// and of those the one that it has been connected to for longer: the other may not have been told everything yet.
bool site::is_better(size_t a, size_t b, const mac_address &mac) const
{
    const auto find = [&](size_t broker) {
        const auto found = accounts[broker].cards.find(mac);
        return found == accounts[broker].cards.end() ? nullptr : &found->second;
    };
    const site_card *const first = find(a);
    const site_card *const second = find(b);
    if (first == nullptr || second == nullptr) {
        return first != nullptr && second == nullptr;
    }
    if (is_there[a] != is_there[b]) {
        return is_there[a];
    }
    if (first->bridge.value != second->bridge.value) {
        const auto rank = [](const std::optional<bool> &is_connected) {
            return is_connected ? *is_connected ? 2 : 0 : 1;
        };
        return rank(first->bridge.value) > rank(second->bridge.value);
    }
    const auto is_before = [](const std::optional<moment> &one, const std::optional<moment> &other) {
        return other && (!one || one->steady < other->steady);
    };
    if (first->bridge.value == true) {
        return is_before(first->bridge_since, second->bridge_since);
    }
    return is_before(second->last_message, first->last_message);
}

size_t site::best(const mac_address &mac) const
{
    size_t found = 0;
    for (size_t broker = 1; broker < accounts.size(); broker++) {
        found = is_better(broker, found, mac) ? broker : found;
    }
    return found;
}

const site_card *site::card(const mac_address &mac) const
{
    const auto &cards = accounts[best(mac)].cards;
    const auto found = cards.find(mac);
    return found == cards.end() ? nullptr : &found->second;
}

const node *site::find(const mac_address &mac) const
{
    const auto &nodes = accounts[best(mac)].net.nodes;
    const auto found = nodes.find(mac);
    return found == nodes.end() ? nullptr : &found->second;
}

std::optional<bool> site::is_connected(const mac_address &mac) const
{
    const site_card *const best_card = card(mac);
    return best_card == nullptr ? std::nullopt : best_card->bridge.value;
}

std::vector<site_network> site::networks() const
{
    const auto groups = groups_of(cards(), [&](const mac_address &mac, const auto &join) {
        const site_card &one = *card(mac);
        // A card that was heard once still belongs to those that heard it.
        for (const auto &[other, known] : one.others) {
            join(other);
        }
        for (const auto &list : one.view.lists) {
            for (const listed_ports &record : list.value.value_or(port_list_value{})) {
                join(record.mac);
            }
        }
    });
    std::vector<site_network> networks;
    networks.reserve(groups.size());
    for (const auto &group : groups) {
        networks.push_back({group, network_views(*this, group).differences()});
    }
    return networks;
}

std::vector<mac_address> site::find_cards(const node_reference &reference) const
{
    std::vector<mac_address> found;
    for (const mac_address &mac : cards()) {
        const auto &macs = reference.macs;
        const auto has_number = [&](const site_card &one) {
            const auto &lists = one.view.lists;
            return std::any_of(lists.begin(), lists.end(), [&](const auto &list) {
                const port_list_value records = list.value.value_or(port_list_value{});
                return std::any_of(records.begin(), records.end(), [&](const listed_ports &record) {
                    return record.mac == mac && record.number == reference.number;
                });
            });
        };
        if (std::find(macs.begin(), macs.end(), mac) != macs.end() ||
            (reference.number && has_number(*card(mac)))) {
            found.push_back(mac);
        }
    }
    return found;
}
