#include "web/console.h"

#include "topics.h"

#include <utility>

void console::take(std::string_view topic, bytes payload, bool is_retained, const moment &now)
{
    const std::optional<port_list> list = port_list_of_topic(topic);
    if (list) {
        mark_listed(*list);
    }
    const changes found = network_apply(net, topic, payload, is_retained, now);
    if (list) {
        mark_listed(*list);
    }
    if (const std::optional<topic_place> place = parse_topic_place(topic)) {
        dirty.insert(place->mac);
    } else {
        is_view_dirty = true;
    }
    if (topic == LOCAL_NODE_TOPIC) {
        for (const auto &[mac, known] : net.nodes) {
            dirty.insert(mac);
        }
    }
    page.mark();
    for (const change &item : found) {
        note(item, now);
    }
}

void console::mark_listed(port_list list)
{
    for (const listed_ports &record : net.lists[list].value.value_or(port_list_value{})) {
        dirty.insert(record.mac);
    }
}

void console::note(const change &item, const moment &now)
{
    if (item.kind == change_kind::NETWORK_RING) {
        ring_since = now.wall;
    } else if (item.kind == change_kind::LEFT) {
        left[*item.node] = now.wall;
    } else if (item.kind == change_kind::APPEARED) {
        left.erase(*item.node);
    }
    page.add_change(now.wall, page_change_json(net, item, 0));
}

void console::replace(network other)
{
    if (other.ring_degraded.value != net.ring_degraded.value) {
        ring_since.reset();
    }
    net = std::move(other);
    show_anew();
}

void console::play(const recorded_message &message, const moment &when)
{
    take(message.topic, message.payload, message.was_retained(), when);
}

void console::show_anew()
{
    page.begin_anew(1);
    for (const auto &[mac, known] : net.nodes) {
        dirty.insert(mac);
    }
    is_view_dirty = true;
    flush();
    page.end_anew();
}

std::string console::node_text(const node &shown) const
{
    const auto found = left.find(shown.mac);
    return page_node_json(net, shown,
                          {.since = found == left.end() ? std::nullopt : std::optional(found->second)});
}

void console::flush()
{
    page.begin_telling();
    page_state::node_texts nodes;
    for (const mac_address &mac : std::exchange(dirty, {})) {
        if (const auto found = net.nodes.find(mac); found != net.nodes.end()) {
            nodes[mac] = node_text(found->second);
        }
    }
    for (const auto &[mac, text] : page.nodes(0)) {
        if (!net.nodes.contains(mac)) {
            nodes[mac].reset();
            left.erase(mac);
        }
    }
    page.tell(0, std::move(nodes),
              std::exchange(is_view_dirty, false) ? page_parts_json(net, ring_since) : json_parts());
}

std::optional<std::string> console::node_of(const mac_address &mac) const
{
    const auto found = net.nodes.find(mac);
    return found == net.nodes.end() ? std::nullopt : std::optional(node_text(found->second));
}

std::optional<std::string> console::performance(const mac_address &mac, int port, wall_time now) const
{
    return page_performance_json(net, mac, port, now);
}
