#include "screen/reports.h"

#include <fmt/core.h>

#include <algorithm>
#include <climits>
#include <functional>

namespace
{

// How a port's colour is shown: also by a mark, for terminals and people without colours.
struct colour_look {
    const char *mark;
    text_style style;
};
constexpr colour_look COLOUR_LOOKS[] = {
    {" ", text_style::GREEN}, {"~", text_style::YELLOW}, {"!", text_style::RED}};

size_t port_columns(const std::vector<const node *> &nodes)
{
    size_t count = 1;
    for (const node *shown : nodes) {
        for (size_t port = 0; port < LUM_FRONT_PORTS; port++) {
            if ((shown->colours && (*shown->colours)[port] != PORT_STATUS_NONE) ||
                (shown->media && (*shown->media)[port] != LUM_TYPE_NONE)) {
                count = std::max(count, port + 1);
            }
        }
    }
    return count;
}

screen_line ports_cell(const node &shown, size_t count)
{
    const fact<std::string> &summary = shown.facts[TOPIC_PORT_SUMMARY];
    if (!shown.colours) {
        return plain(fact_text(summary, "-", ""));
    }
    screen_line cell;
    for (size_t port = 0; port < count; port++) {
        const int colour = (*shown.colours)[port];
        const bool has_media = shown.media && (*shown.media)[port] != LUM_TYPE_NONE;
        const std::string gap = port + 1 < count ? " " : "";
        if (colour != PORT_STATUS_NONE) {
            cell.push_back({COLOUR_LOOKS[colour].style,
                            port_text(static_cast<int>(port)) + COLOUR_LOOKS[colour].mark + gap});
        } else {
            cell.push_back(
                {text_style::DIM, (has_media ? port_text(static_cast<int>(port)) + "-" : ". ") + gap});
        }
    }
    return cell;
}

// "eth", or "AB eth, C dsl" where the ports differ.
std::string media_cell(const node &shown)
{
    if (!shown.media) {
        return fact_text(shown.facts[TOPIC_PORT_MEDIA], "-", "");
    }
    std::string text;
    int kinds = 0;
    int last = LUM_TYPE_NONE;
    for (int media = LUM_TYPE_ETH; media < LUM_TYPE_NONE; media++) {
        unsigned ports = 0;
        for (size_t port = 0; port < LUM_FRONT_PORTS; port++) {
            ports |= (*shown.media)[port] == media ? 1U << port : 0U;
        }
        if (ports != 0) {
            kinds++;
            last = media;
            text += fmt::format("{}{} {}", text.empty() ? "" : ", ", port_letters(ports),
                                hwinfo_lumtype_enum_to_str(media));
        }
    }
    if (kinds == 0) {
        return "-";
    }
    return kinds == 1 ? hwinfo_lumtype_enum_to_str(last) : text;
}

std::string job_cell(const node &shown)
{
    std::string text;
    for (const node_topic topic : {TOPIC_JOB_NAME, TOPIC_JOB_REV}) {
        const fact<std::string> &value = shown.facts[topic];
        const std::string part = fact_text(value, "", value.value.value_or(""));
        text += (text.empty() || part.empty() ? "" : " ") + part;
    }
    return text.empty() ? "-" : text;
}

std::string versions_cell(const node &shown)
{
    if (shown.versions.empty()) {
        return fact_text(shown.facts[TOPIC_SOFTWARE_VERSIONS], "-", "");
    }
    std::string text;
    for (const software_version &item : shown.versions) {
        text += (text.empty() ? "" : " / ") + (item.version.empty() ? "-" : item.version);
    }
    return text;
}

// "-", or "0 closed, 1 open".
std::string rings_cell(const network &net, const node &shown)
{
    std::string text;
    for (const auto &[ring, state] : net.rings) {
        if (net.is_local(shown.mac) && state.is_published) {
            text += fmt::format("{}{} {}", text.empty() ? "" : ", ", ring,
                                fact_text(state, "", state.value ? ring_state_text(*state.value) : ""));
        }
    }
    return text.empty() ? "-" : text;
}

const char *location(const network &net, const node &shown)
{
    if (!net.local.value) {
        return "-";
    }
    return net.is_local(shown.mac) ? "local" : "remote";
}

// Label and value, one row each.
class table
{
public:
    void add(const std::string &label, screen_line value)
    {
        rows.push_back({{{text_style::BOLD, label}}, std::move(value)});
    }
    // One row for each of the entries, or other where there are none.
    void add(const std::string &label, const std::vector<std::string> &entries, const std::string &other)
    {
        for (size_t i = 0; i < entries.size(); i++) {
            add(i == 0 ? label : "", {{text_style::RED, entries[i]}});
        }
        if (entries.empty()) {
            add(label, plain(other));
        }
    }
    screen_lines lines() const { return columns(rows); }

private:
    std::vector<std::vector<screen_line>> rows;
};

// A table of nodes whose columns may be left out.
class node_columns
{
public:
    static constexpr int NEEDED = INT_MAX; // a rank that stays whatever the width

    explicit node_columns(const std::vector<const node *> &shown) : nodes(shown) {}

    // Of the columns that are too many, that of the lowest rank goes first.
    void add(const char *title, int rank, const std::function<screen_line(const node &)> &cell_of)
    {
        column added = {rank, heading({title})};
        for (const node *shown : nodes) {
            added.cells.push_back(cell_of(*shown));
        }
        all.push_back(std::move(added));
    }

    screen_lines lines(size_t width)
    {
        screen_lines shown = joined();
        while (widest(shown) > width) {
            const auto least = std::min_element(
                all.begin(), all.end(), [](const column &a, const column &b) { return a.rank < b.rank; });
            if (least->rank == NEEDED) {
                break;
            }
            all.erase(least);
            shown = joined();
        }
        return shown;
    }

private:
    struct column {
        int rank;
        screen_lines cells; // under its title
    };

    screen_lines joined() const
    {
        std::vector<screen_lines> rows(nodes.size() + 1);
        for (const column &shown : all) {
            for (size_t i = 0; i < rows.size(); i++) {
                rows[i].push_back(shown.cells[i]);
            }
        }
        return columns(rows);
    }

    const std::vector<const node *> &nodes;
    std::vector<column> all;
};

// The height of the sparklines, so that one change alone is a low bar.
double most_changes(const trends &recent, const std::vector<const node *> &nodes, const moment &now)
{
    double most = 8;
    for (const node *shown : nodes) {
        const auto counts = recent.changes_of(shown->mac, now);
        most = std::max(most, *std::max_element(counts.begin(), counts.end()));
    }
    return most;
}

void add_topics(table &out, const node &shown)
{
    for (size_t topic = 0; topic < NODE_TOPICS; topic++) {
        const node_topic_info &info = NODE_TOPIC_INFOS[topic];
        const fact<std::string> &value = shown.facts[topic];
        if (info.kind != value_kind::STRUCTURE) {
            out.add(info.label, plain(fact_text(value, "-", value.value.value_or(""))));
        }
    }
    const char *label = "versions";
    for (const software_version &item : shown.versions) {
        out.add(label, plain(item.name + " " + item.version));
        label = "";
    }
    if (shown.versions.empty()) {
        out.add(label, plain(versions_cell(shown)));
    }
}

} // namespace

screen_lines node_table(const network &net, const std::vector<const node *> &nodes, const moment &now,
                        const table_look &look)
{
    const auto name_of = [&](const node *shown) { return net.names.of(shown->mac); };
    const bool has_names = std::any_of(nodes.begin(), nodes.end(), name_of);
    const bool has_all_names = has_names && std::all_of(nodes.begin(), nodes.end(), name_of);
    const size_t ports = port_columns(nodes);
    node_columns table(nodes);
    if (has_names) {
        table.add("NAME", has_all_names ? node_columns::NEEDED : 8, [&](const node &shown) {
            const std::string *const name = name_of(&shown);
            return plain(name == nullptr ? "-" : *name);
        });
    }
    table.add("NODE", has_all_names ? 8 : node_columns::NEEDED,
              [](const node &shown) { return plain(mac_text(shown.mac)); });
    table.add("NR", 7,
              [](const node &shown) { return plain(shown.number ? std::to_string(*shown.number) : "-"); });
    table.add("WHERE", 3, [&](const node &shown) { return plain(location(net, shown)); });
    table.add("PORTS", node_columns::NEEDED, [&](const node &shown) { return ports_cell(shown, ports); });
    table.add("MEDIA", 2, [](const node &shown) { return plain(media_cell(shown)); });
    table.add("RINGS", 5, [&](const node &shown) { return plain(rings_cell(net, shown)); });
    table.add("JOB", 1, [](const node &shown) { return plain(job_cell(shown)); });
    table.add("CHANGED", 6, [&](const node &shown) {
        return plain(shown.last_change ? age_text(now.steady - shown.last_change->steady) : "-");
    });
    if (look.recent != nullptr) {
        const double most = most_changes(*look.recent, nodes, now);
        table.add("LAST 10 MIN", 4, [&](const node &shown) {
            return plain(sparkline(look.recent->changes_of(shown.mac, now), most, is_utf8_locale()));
        });
    }
    table.add("OS / BOOT / APP", 0, [](const node &shown) { return plain(versions_cell(shown)); });
    return table.lines(look.width);
}

screen_lines node_lines(const network &net, const node &shown)
{
    table out;
    out.add("node", plain(fmt::format("{}, number {}", node_text(net, shown.mac),
                                      shown.number ? std::to_string(*shown.number)
                                                   : "not known (no list names the node)")));
    out.add("where", net.has(shown) ? plain(location(net, shown))
                                    : screen_line{{text_style::RED,
                                                   "has left the network; this is what it left behind"}});
    out.add("ports", ports_cell(shown, port_columns({&shown})));
    out.add("media", plain(media_cell(shown)));
    if (net.is_local(shown.mac)) {
        out.add("rings", plain(rings_cell(net, shown)));
    }
    add_topics(out, shown);
    for (int list = 0; list < PORT_LISTS; list++) {
        const unsigned ports = net.listed(static_cast<port_list>(list), shown.mac);
        if (ports != 0) {
            out.add("listed",
                    {{text_style::RED, fmt::format("{}: {}", PORT_LIST_INFOS[static_cast<size_t>(list)].title,
                                                   port_letters(ports))}});
        }
    }
    out.add("changed", plain(shown.last_change ? date_text(*shown.last_change) : "-"));
    return out.lines();
}

std::vector<std::string> port_list_entries(const network &net, port_list which)
{
    std::vector<std::string> entries;
    for (const listed_ports &record : net.lists[which].value.value_or(port_list_value{})) {
        entries.push_back(
            fmt::format("{} ({}) {}", node_text(net, record.mac), record.number, port_letters(record.ports)));
    }
    return entries;
}

std::vector<std::string> miswired_link_entries(const network &net)
{
    std::vector<std::string> entries;
    for (const miswired_link &link : net.miswired_links.value.value_or(std::vector<miswired_link>{})) {
        entries.push_back(miswired_link_text(link));
    }
    return entries;
}

std::string ring_text(const network &net)
{
    return fact_text(net.ring_degraded, "unknown",
                     net.ring_degraded.value.value_or(false) ? "DEGRADED" : "normal");
}

text_style ring_style(const network &net)
{
    if (!net.ring_degraded.value) {
        return text_style::PLAIN;
    }
    return *net.ring_degraded.value ? text_style::RED : text_style::GREEN;
}

screen_lines lists_lines(const network &net)
{
    table out;
    for (int list = 0; list < PORT_LISTS; list++) {
        const auto which = static_cast<port_list>(list);
        out.add(PORT_LIST_INFOS[which].title, port_list_entries(net, which),
                fact_text(net.lists[which], "unknown", "none"));
    }
    out.add("Miswired links", miswired_link_entries(net), fact_text(net.miswired_links, "none", "none"));
    out.add("Network ring", {{ring_style(net), ring_text(net)}});
    return out.lines();
}
