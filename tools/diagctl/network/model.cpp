#include "network/model.h"

#include "common/text.h"
#include "topics.h"

#include <fmt/core.h>

#include <algorithm>
#include <utility>

namespace
{

node &node_of(network &net, const mac_address &mac)
{
    node &found = net.nodes[mac];
    found.mac = mac;
    return found;
}

template <typename T>
void set_fact(fact<T> &target, bytes payload, std::optional<T> value)
{
    target.is_published = !payload.empty();
    target.size = payload.size();
    target.value = payload.empty() ? std::nullopt : std::move(value);
}

change change_of(const network &net, change_kind kind, const mac_address &mac, std::optional<int> port = {})
{
    const auto found = net.nodes.find(mac);
    return {.kind = kind,
            .node = mac,
            .number = found == net.nodes.end() ? std::nullopt : found->second.number,
            .port = port};
}

// --- topics of nodes

change_value value_of(const fact<std::string> &value, value_kind kind)
{
    if (!value.value) {
        return value.is_published ? change_value(malformed_value{value.size}) : change_value();
    }
    uint32_t number = 0;
    switch (kind) {
    case value_kind::FLAG:
        return *value.value == "on";
    case value_kind::NUMBER:
        return parse_u32(*value.value, number) ? change_value(uint64_t{number}) : change_value();
    default:
        return *value.value;
    }
}

change_value code_value(int code, int none, const char *(*name_of)(int))
{
    return code == none ? change_value() : change_value(std::string(name_of(code)));
}

void compare_port_codes(const change &item, const std::optional<port_codes> &before,
                        const std::optional<port_codes> &after, const char *(*name_of)(int), int none,
                        changes &out)
{
    for (size_t port = 0; port < LUM_FRONT_PORTS; port++) {
        const int was = before ? (*before)[port] : none;
        const int is = after ? (*after)[port] : none;
        if (is != was) {
            change found = item;
            found.port = static_cast<int>(port);
            found.before = code_value(was, none, name_of);
            found.after = code_value(is, none, name_of);
            out.push_back(std::move(found));
        }
    }
}

// What a node said of itself before a message.
struct node_before {
    fact<std::string> value; // of the message's topic
    std::optional<port_codes> colours;
    std::optional<port_codes> media;
};

void compare_node_topic(const network &net, const node_before &before, const node &after, node_topic topic,
                        bool is_first, changes &out)
{
    const fact<std::string> &is = after.facts[topic];
    const node_topic_info &info = NODE_TOPIC_INFOS[topic];
    const change_kind kind = topic == TOPIC_PORT_SUMMARY ? change_kind::COLOUR
                             : topic == TOPIC_PORT_MEDIA ? change_kind::MEDIA
                                                         : change_kind::FACT;
    change item = change_of(net, kind, after.mac);
    item.what = info.name;
    if (is.is_malformed()) {
        item.before = value_of(before.value, info.kind);
        item.after = malformed_value{is.size};
        out.push_back(std::move(item));
    } else if (is_first) {
        const auto is_coloured = [](int colour) { return colour != PORT_STATUS_NONE; };
        if (topic == TOPIC_PORT_SUMMARY && after.colours &&
            std::any_of(after.colours->begin(), after.colours->end(), is_coloured)) {
            item.kind = change_kind::COLOURS;
            item.after = *after.colours;
            out.push_back(std::move(item));
        }
    } else if (kind == change_kind::COLOUR) {
        compare_port_codes(item, before.colours, after.colours, colour_name, PORT_STATUS_NONE, out);
    } else if (kind == change_kind::MEDIA) {
        compare_port_codes(item, before.media, after.media, hwinfo_lumtype_enum_to_str, LUM_TYPE_NONE, out);
    } else if (is.value != before.value.value) {
        item.before = value_of(before.value, info.kind);
        item.after = value_of(is, info.kind);
        out.push_back(std::move(item));
    }
}

// What a node said of itself before it left is void; versions and card address are still published.
void forget_departed(node &departed)
{
    departed.number.reset();
    departed.ports.clear();
}

void decode_node_topic(node &target, node_topic topic, bytes payload)
{
    set_fact(target.facts[topic], payload, NODE_TOPIC_INFOS[topic].decode(payload));
    if (topic == TOPIC_PORT_SUMMARY) {
        target.colours = decode_colours(payload);
    } else if (topic == TOPIC_PORT_MEDIA) {
        target.media = decode_media(payload);
    } else if (topic == TOPIC_SOFTWARE_VERSIONS) {
        target.versions = decode_versions(payload).value_or(std::vector<software_version>{});
    }
    target.is_present = std::any_of(target.facts.begin(), target.facts.begin() + NODE_TOPICS_WITHDRAWN,
                                    [](const auto &value) { return value.is_published; });
}

// Whether the value is the first that a node has of this topic since it appeared.
bool take_first(node &current, node_topic topic, bool is_known, bool has_appeared)
{
    if (is_known || has_appeared) {
        current.is_heard.fill(is_known);
    }
    return !std::exchange(current.is_heard[topic], true);
}

void apply_node_topic(network &net, const mac_address &mac, node_topic topic, bytes payload, bool is_retained,
                      const moment &now, changes &out)
{
    node &current = node_of(net, mac);
    const fact<std::string> &value = current.facts[topic];
    const node_before before = {value, current.colours, current.media};
    const bool was_present = current.is_present;
    decode_node_topic(current, topic, payload);

    const bool is_local = net.is_local(mac);
    const bool has_appeared = !is_local && !was_present && current.is_present;
    const bool is_first = take_first(current, topic, is_retained || is_local, has_appeared);
    if (!is_retained && (value.is_published != before.value.is_published || value.size != before.value.size ||
                         value.value != before.value.value)) {
        current.last_change = now;
    }
    if (has_appeared) {
        out.push_back(change_of(net, change_kind::APPEARED, mac));
    }
    if (!is_local && was_present && !current.is_present) {
        out.push_back(change_of(net, change_kind::LEFT, mac));
        forget_departed(current);
    }
    // A leaving node's topics go one by one, port_summary first: that is one event, told at the end.
    const bool is_leaving = payload.empty() && !current.facts[TOPIC_PORT_SUMMARY].is_published;
    if (is_local || (current.is_present && !is_leaving)) {
        compare_node_topic(net, before, current, topic, is_first, out);
    }
}

// --- topics of ports

// Counters wrap.
uint64_t difference(uint64_t value, uint64_t before, size_t width)
{
    return width == sizeof(uint32_t) ? static_cast<uint32_t>(value - before) : value - before;
}

// A message on a topic of a port; name is what follows pub/diag/<MAC>/<PORT>/.
struct port_message {
    const topic_place &place;
    bytes payload;
    bool is_retained;
    const moment &now;
    change_detail detail;
};

template <typename T>
bool report_malformed(const fact<T> &value, change item, changes &out)
{
    if (value.is_malformed()) {
        item.after = malformed_value{value.size};
        out.push_back(std::move(item));
    }
    return value.is_malformed();
}

void compare_stats(change item, const std::optional<stats_record> &before, const stats_record &after,
                   changes &out)
{
    named_numbers was;
    named_numbers is;
    for (const stats_field &field : STATS_FIELDS) {
        const uint64_t old_value = before ? field_value(*before, field) : 0;
        const uint64_t new_value = field_value(after, field);
        if (new_value != old_value) {
            was.emplace_back(field.name, old_value);
            is.emplace_back(field.name, new_value);
        }
    }
    if (!is.empty()) {
        item.before = before ? change_value(std::move(was)) : change_value();
        item.after = std::move(is);
        out.push_back(std::move(item));
    }
}

void apply_stats(port_records &records, const port_message &message, const change &item, changes &out)
{
    if (!records.stats.is_published) {
        records.is_reset_seen = false;
    }
    const std::optional<stats_record> before = records.stats.value;
    set_fact(records.stats, message.payload, decode_stats(message.payload));
    if (records.stats.value && message.detail == change_detail::RECORDS) {
        compare_stats(item, before, *records.stats.value, out);
    }
    records.sample_before = std::exchange(records.sample, std::nullopt);
    if (records.stats.value && !message.is_retained) {
        records.sample = {*records.stats.value, message.now};
    }
    report_malformed(records.stats, item, out);
}

void apply_last_period(port_records &records, const port_message &message, change item, changes &out)
{
    const fact<std::string> before = records.last_period;
    set_fact(records.last_period, message.payload, decode_period_slot(message.payload));
    records.period_start.reset();
    records.is_reset_seen = message.payload.empty() && !message.is_retained;
    item.before = before.value ? change_value(*before.value) : change_value();
    if (report_malformed(records.last_period, item, out)) {
        return;
    }
    if (records.last_period.value && !message.is_retained) {
        records.period_start = records.stats.value;
        item.after = *records.last_period.value;
        out.push_back(std::move(item));
    } else if (before.is_published && message.payload.empty()) {
        item.kind = change_kind::RECORDS_CLEARED;
        out.push_back(std::move(item));
    }
}

void apply_pm_record(port_records &records, std::string_view slot, const port_message &message, change item,
                     changes &out)
{
    fact<pm_record> &record = records.pm[std::string(slot)];
    const std::optional<pm_record> before = record.value;
    set_fact(record, message.payload, decode_pm(message.payload));
    item.what = slot;
    if (!report_malformed(record, item, out) && record.value && record.value != before &&
        message.detail == change_detail::RECORDS) {
        named_numbers values;
        for (const pm_field &field : PM_FIELDS) {
            const uint64_t value = field_value(*record.value, field);
            if (field.treatment != pm_treatment::CLOSING_TIME && value != 0) {
                values.emplace_back(field.name, value);
            }
        }
        item.after = std::move(values);
        out.push_back(std::move(item));
    }
}

void apply_port_topic(network &net, const port_message &message, changes &out)
{
    const topic_place &place = message.place;
    const std::string_view name = place.name;
    const auto item = [&](change_kind kind) {
        change result = change_of(net, kind, place.mac, place.port);
        result.what = name;
        return result;
    };
    const auto records = [&]() -> port_records & { return node_of(net, place.mac).ports[*place.port]; };
    if (name == PORT_STATS) {
        apply_stats(records(), message, item(change_kind::STATISTICS), out);
    } else if (name == PM_LAST_PERIOD) {
        apply_last_period(records(), message, item(change_kind::PERIOD_CLOSED), out);
    } else if (name == PM_LAST_DAY) {
        fact<std::string> &last = records().last_day;
        set_fact(last, message.payload, decode_day_slot(message.payload));
        report_malformed(last, item(change_kind::PERIOD_CLOSED), out);
    } else if (name.starts_with(PM_PREFIX) && is_slot(name.substr(PM_PREFIX.size()))) {
        apply_pm_record(records(), name.substr(PM_PREFIX.size()), message, item(change_kind::RECORD), out);
    }
}

// --- what a card says of the network

void apply_local_node(network &net, bytes payload, bool is_retained, changes &out)
{
    change item = {.kind = change_kind::LOCAL_NODE};
    if (net.local.value) {
        item.before = mac_text(*net.local.value);
    }
    set_fact(net.local, payload, parse_topic_mac(as_text(payload)));
    if (net.local.value) {
        node &local = node_of(net, *net.local.value);
        if (!is_retained) {
            // The daemon has started again and counts from nothing, while what it published before is still
            // there.
            for (auto &[port, records] : local.ports) {
                records.period_start.reset();
                records.is_reset_seen = false;
            }
        }
        item.node = local.mac;
        item.number = local.number;
        item.after = mac_text(local.mac);
    }
    if (!report_malformed(net.local, item, out)) {
        out.push_back(std::move(item));
    }
}

change_value ring_value(const fact<int32_t> &state)
{
    return state.value ? change_value(std::string(ring_state_text(*state.value))) : change_value();
}

void apply_ring(network &net, std::string_view ring_text, bytes payload, changes &out)
{
    uint32_t ring = 0;
    if (ring_text.empty() || !parse_u32(ring_text, ring)) {
        return;
    }
    fact<int32_t> &state = net.rings[ring];
    const fact<int32_t> before = state;
    set_fact(state, payload, decode_ring_state(payload));
    change item = net.local.value ? change_of(net, change_kind::RING, *net.local.value)
                                  : change{.kind = change_kind::RING};
    item.what = std::to_string(ring);
    item.before = ring_value(before);
    if (!report_malformed(state, item, out) && state.value != before.value) {
        item.after = ring_value(state);
        out.push_back(std::move(item));
    }
}

change_value degraded_value(const fact<bool> &is_degraded)
{
    return is_degraded.value ? change_value(std::string(*is_degraded.value ? "degraded" : "normal"))
                             : change_value();
}

void apply_ring_status(network &net, bytes payload, changes &out)
{
    const fact<bool> before = net.ring_degraded;
    set_fact(net.ring_degraded, payload, decode_ring_degraded(payload));
    change item = {.kind = change_kind::NETWORK_RING};
    item.before = degraded_value(before);
    if (!report_malformed(net.ring_degraded, item, out) && net.ring_degraded.value != before.value) {
        item.after = degraded_value(net.ring_degraded);
        out.push_back(std::move(item));
    }
}

// One change for each port that is in list and not in other.
void compare_lists(const network &net, port_list which, const port_list_value &list,
                   const port_list_value &other, bool is_gain, changes &out)
{
    for (const listed_ports &record : list) {
        const unsigned ports = record.ports & ~ports_in(other, record.mac);
        for (int port = 0; port < LUM_FRONT_PORTS; port++) {
            if ((ports & (1U << port)) != 0) {
                change item = change_of(net, change_kind::LISTED, record.mac, port);
                item.what = PORT_LIST_INFOS[which].name;
                item.before = !is_gain;
                item.after = is_gain;
                out.push_back(std::move(item));
            }
        }
    }
}

// Whatever a list has named stays known only as long as something else is known of it, or a list still names
// it.
void forget_unlisted(network &net)
{
    const auto is_listed = [&](const mac_address &mac) {
        return std::any_of(net.lists.begin(), net.lists.end(), [&](const fact<port_list_value> &list) {
            return list.value && std::any_of(list.value->begin(), list.value->end(),
                                             [&](const listed_ports &record) { return record.mac == mac; });
        });
    };
    std::erase_if(net.nodes, [&](const auto &entry) {
        const auto &[mac, candidate] = entry;
        const bool is_told_of = std::any_of(candidate.facts.begin(), candidate.facts.end(),
                                            [](const auto &value) { return value.is_published; });
        return !is_told_of && candidate.ports.empty() && !net.is_local(mac) && !is_listed(mac);
    });
}

void apply_port_list(network &net, port_list which, bytes payload, changes &out)
{
    fact<port_list_value> &list = net.lists[which];
    const port_list_value before = list.value.value_or(port_list_value{});
    set_fact(list, payload, decode_port_list(payload));
    if (report_malformed(list, {.kind = change_kind::LISTED, .what = PORT_LIST_INFOS[which].name}, out)) {
        return;
    }
    const port_list_value after = list.value.value_or(port_list_value{});
    for (const listed_ports &record : after) {
        node_of(net, record.mac).number = record.number;
    }
    compare_lists(net, which, after, before, true, out);
    compare_lists(net, which, before, after, false, out);
    forget_unlisted(net);
}

link_end end_of(const network &net, uint8_t number, uint8_t port)
{
    const std::vector<const node *> found = find_nodes(net, {.number = number});
    return {found.size() == 1 ? std::optional(found[0]->mac) : std::nullopt, number, port};
}

void compare_links(const network &net, const std::vector<miswired_link> &links,
                   const std::vector<miswired_link> &other, bool is_gain, changes &out)
{
    for (const miswired_link &link : links) {
        if (std::find(other.begin(), other.end(), link) == other.end()) {
            const link_end near = end_of(net, link.number, link.port);
            out.push_back({.kind = change_kind::MISWIRED_LINK,
                           .node = near.mac,
                           .number = near.number,
                           .port = near.port,
                           .before = !is_gain,
                           .after = is_gain,
                           .peer = end_of(net, link.peer_number, link.peer_port)});
        }
    }
}

void apply_miswired_links(network &net, bytes payload, changes &out)
{
    const auto before = net.miswired_links.value.value_or(std::vector<miswired_link>{});
    set_fact(net.miswired_links, payload, decode_miswired_links(payload));
    if (!report_malformed(net.miswired_links, {.kind = change_kind::MISWIRED_LINK}, out)) {
        const auto after = net.miswired_links.value.value_or(std::vector<miswired_link>{});
        compare_links(net, after, before, true, out);
        compare_links(net, before, after, false, out);
    }
}

// True where the topic is one that a card's view of the network is made of.
bool apply_view_topic(network &net, std::string_view topic, bytes payload, bool is_retained, changes &out)
{
    if (const std::optional<port_list> list = port_list_of_topic(topic)) {
        apply_port_list(net, *list, payload, out);
    } else if (topic == MISWIRED_LINKS_TOPIC) {
        apply_miswired_links(net, payload, out);
    } else if (topic == NETWORK_STYLE7_TOPIC) {
        apply_ring_status(net, payload, out);
    } else if (topic.starts_with(RING_PREFIX) && topic.ends_with(RING_SUFFIX) &&
               topic.size() > RING_PREFIX.size() + RING_SUFFIX.size()) {
        topic.remove_prefix(RING_PREFIX.size());
        topic.remove_suffix(RING_SUFFIX.size());
        apply_ring(net, topic, payload, out);
    } else if (topic == LOCAL_NODE_TOPIC) {
        apply_local_node(net, payload, is_retained, out);
    } else if (topic == REQUEST_TOPIC || topic == RESPONSE_TOPIC) {
        const change_kind kind = topic == REQUEST_TOPIC ? change_kind::REQUEST : change_kind::RESPONSE;
        out.push_back({.kind = kind, .after = printable(as_text(payload))});
    } else {
        return false;
    }
    return true;
}

long long count_colour(const node &shown, int colour)
{
    return shown.colours ? std::count(shown.colours->begin(), shown.colours->end(), colour) : 0;
}

bool comes_before(const network &net, node_order order, const node &a, const node &b)
{
    switch (order) {
    case node_order::NUMBER:
        return a.number && (!b.number || *a.number < *b.number);
    case node_order::FAULTS:
        for (const int colour : {PORT_STATUS_RED, PORT_STATUS_YELLOW}) {
            if (count_colour(a, colour) != count_colour(b, colour)) {
                return count_colour(a, colour) > count_colour(b, colour);
            }
        }
        return false;
    case node_order::CHANGE:
        return a.last_change && (!b.last_change || a.last_change->steady > b.last_change->steady);
    default:
        return net.is_local(a.mac) && !net.is_local(b.mac);
    }
}

} // namespace

changes network_apply(network &net, std::string_view topic, bytes payload, bool is_retained,
                      const moment &now, change_detail detail)
{
    changes out;
    if (!apply_view_topic(net, topic, payload, is_retained, out)) {
        const std::optional<topic_place> place = parse_topic_place(topic);
        if (place && place->port) {
            apply_port_topic(net, {*place, payload, is_retained, now, detail}, out);
        } else if (const auto known = place ? node_topic_named(place->name) : std::nullopt) {
            apply_node_topic(net, place->mac, *known, payload, is_retained, now, out);
        }
    }
    if (is_retained) {
        out.clear();
    }
    return out;
}

std::optional<double> field_rate(const port_records &records, const stats_field &field)
{
    const bool is_traffic =
        field.treatment == stats_treatment::DIFFERENCED && field.origin != stats_origin::KEPT;
    if (!records.sample || !records.sample_before || !is_traffic) {
        return {};
    }
    const std::chrono::duration<double> time =
        records.sample->when.steady - records.sample_before->when.steady;
    const uint64_t grown = difference(field_value(records.sample->record, field),
                                      field_value(records.sample_before->record, field), field.width);
    return time.count() > 0 ? std::optional(static_cast<double>(grown) / time.count()) : std::nullopt;
}

std::optional<uint64_t> running_period_value(const port_records &records, const pm_field &field)
{
    if (!records.stats.value || field.source == nullptr) {
        return {};
    }
    const stats_field &source = *field.source;
    const uint64_t value = field_value(*records.stats.value, source);
    if (field.treatment == pm_treatment::PASSED) {
        return value;
    }
    if (!records.last_period.is_published) {
        const bool counts_from_first_stats = source.origin == stats_origin::COPIED;
        return counts_from_first_stats || records.is_reset_seen ? std::optional(value) : std::nullopt;
    }
    if (!records.period_start) {
        return {};
    }
    return difference(value, field_value(*records.period_start, source), source.width);
}

std::chrono::system_clock::time_point closed_record::time() const
{
    return std::chrono::system_clock::from_time_t(static_cast<time_t>(closing_time(*record.value)));
}

std::vector<closed_record> closed_records(const node &shown, int port, pm_kind kind)
{
    std::vector<closed_record> closed;
    const auto found = shown.ports.find(port);
    if (found == shown.ports.end()) {
        return closed;
    }
    const bool is_day = kind == pm_kind::DAYS;
    const fact<std::string> &last = is_day ? found->second.last_day : found->second.last_period;
    for (const auto &[slot, record] : found->second.pm) {
        if (slot.starts_with(PM_DAY) == is_day && record.is_published) {
            closed.push_back({slot, record, last.value == slot});
        }
    }
    const auto time = [](const closed_record &item) {
        return item.record.value ? closing_time(*item.record.value) : INT64_MIN;
    };
    std::stable_sort(closed.begin(), closed.end(),
                     [&](const closed_record &a, const closed_record &b) { return time(a) < time(b); });
    return closed;
}

std::vector<const node *> sorted_nodes(const network &net, node_order order)
{
    std::vector<const node *> nodes;
    for (const auto &[mac, candidate] : net.nodes) {
        if (net.has(candidate)) {
            nodes.push_back(&candidate);
        }
    }
    std::stable_sort(nodes.begin(), nodes.end(),
                     [&](const node *a, const node *b) { return comes_before(net, order, *a, *b); });
    return nodes;
}

std::optional<node_reference> parse_node_reference(std::string_view text, const node_names &names)
{
    uint32_t number = 0;
    if (text.empty()) {
        return {};
    }
    if (text == "local") {
        return node_reference{.is_local = true};
    }
    if (const std::optional<mac_address> mac = parse_mac(text)) {
        return node_reference{.macs = {*mac}};
    }
    if (parse_u32(text, number)) {
        return number >= 1 && number <= UINT8_MAX
                   ? std::optional(node_reference{.number = static_cast<uint8_t>(number)})
                   : std::nullopt;
    }
    node_reference named = {.macs = names.find(text)};
    return named.macs.empty() ? std::nullopt : std::optional(std::move(named));
}

std::vector<const node *> find_nodes(const network &net, const node_reference &reference)
{
    std::vector<const node *> found;
    for (const auto &[mac, candidate] : net.nodes) {
        const auto &macs = reference.macs;
        if ((reference.is_local && net.is_local(mac)) ||
            std::find(macs.begin(), macs.end(), mac) != macs.end() ||
            (reference.number && candidate.number == reference.number)) {
            found.push_back(&candidate);
        }
    }
    return found;
}

bool concerns(const network &net, const node_reference &reference, const change &item)
{
    const std::vector<const node *> nodes = find_nodes(net, reference);
    const auto is_meant = [&](const std::optional<mac_address> &mac, const std::optional<uint8_t> &number) {
        const auto is_node = [&](const node *shown) {
            return mac ? *mac == shown->mac : number && number == shown->number;
        };
        // What has just been forgotten is still named by the reference.
        const auto is_named = [&](const mac_address &named) { return mac == named; };
        return (reference.number && reference.number == number) ||
               std::any_of(reference.macs.begin(), reference.macs.end(), is_named) ||
               std::any_of(nodes.begin(), nodes.end(), is_node);
    };
    return is_meant(item.node, item.number) || (item.peer && is_meant(item.peer->mac, item.peer->number));
}
