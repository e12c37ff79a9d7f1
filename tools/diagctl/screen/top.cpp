#include "screen/top.h"

#include <fmt/core.h>

#include <algorithm>

namespace
{

constexpr size_t MIN_EVENT_LINES = 4; // with their title
constexpr size_t MIN_NODE_ROWS = 3;
constexpr size_t MAX_LIST_LINES = 3;
constexpr size_t MAX_BARS = 40;
constexpr size_t WIDE = 60; // enough for an entry of a list behind its title
// The longest that there is room for.
constexpr const char *HELP[] = {"sort m:mac n:number f:faults c:change  enter detail  q quit",
                                "enter detail  q quit", "q quit"};
constexpr const char *DETAIL_HELP[] = {"enter back  q quit", "q quit"};

// Parts beside each other where there is room, else below each other.
screen_lines flowing(const screen_lines &parts, size_t width)
{
    constexpr std::string_view GAP = "   ";
    screen_lines lines;
    for (const screen_line &part : parts) {
        if (!lines.empty() && length_of(lines.back()) + GAP.size() + length_of(part) <= width) {
            lines.back().push_back({text_style::PLAIN, std::string(GAP)});
            append(lines.back(), part);
        } else {
            lines.push_back(part);
        }
    }
    return lines;
}

screen_lines header_lines(const screen &screen, size_t node_count, const moment &now)
{
    const network &net = screen.net;
    std::string title = "diagctl top  " + screen.broker + "  " + clock_text(now);
    const std::span<const char *const> helps =
        screen.is_detail ? std::span<const char *const>(DETAIL_HELP) : std::span<const char *const>(HELP);
    for (const std::string_view help : helps) {
        if (title.size() + help.size() + 2 <= screen.width) {
            title.append(screen.width - title.size() - help.size(), ' ');
            title += help;
            break;
        }
    }
    const std::string local =
        fact_text(net.local, "unknown", net.local.value ? node_text(net, *net.local.value) : "");
    screen_lines lines = {title_line(title, screen.width)};
    append_lines(lines, flowing({{{text_style::PLAIN, "Local node "}, {text_style::BOLD, local}},
                                 {{text_style::PLAIN, "Network ring "}, {ring_style(net), ring_text(net)}},
                                 plain(fmt::format("{} node{}", node_count, node_count == 1 ? "" : "s"))},
                                screen.width));
    return lines;
}

// The table, scrolled so that the selected node is in it.
screen_lines visible_nodes(const screen &screen, const std::vector<const node *> &nodes, size_t max_rows,
                           const moment &now)
{
    screen_lines lines =
        node_table(screen.net, nodes, now, {.width = screen.width, .recent = &screen.recent});
    if (nodes.empty()) {
        return lines;
    }
    const size_t selected = index_of(nodes, screen.selected);
    lines[selected + 1][0].style = text_style::TITLE;
    if (nodes.size() <= max_rows) {
        return lines;
    }
    // One row tells what isn't shown.
    const size_t visible = max_rows - 1;
    const size_t first = selected < visible ? 0 : selected - visible + 1;
    const auto body = lines.begin() + 1;
    const auto from = body + static_cast<std::ptrdiff_t>(first);
    screen_lines cut = {lines[0]};
    cut.insert(cut.end(), from, from + static_cast<std::ptrdiff_t>(visible));
    cut.push_back({{text_style::DIM,
                    fmt::format("... nodes {} to {} of {}", first + 1, first + visible, nodes.size())}});
    return cut;
}

// The rates of ports between one statistics message and the next, as far as they are known.
screen_lines rate_lines(const std::map<int, trends::port_rates> &rates, size_t width)
{
    if (rates.empty()) {
        return {};
    }
    constexpr size_t LABELS = 40; // of port, titles and numbers
    const size_t room = width > LABELS ? (width - LABELS) / 2 : 0;
    std::vector<screen_lines> rows = {heading({"PORT", "GOOD FRAMES", "", "ERRORED FRAMES", ""})};
    for (const auto &[port, known] : rates) {
        rows.push_back({plain(port_text(port))});
        for (const std::deque<double> *all : {&known.good_frames, &known.errored_frames}) {
            const size_t count = std::min({all->size(), room, MAX_BARS});
            const std::vector<double> bars(all->end() - static_cast<std::ptrdiff_t>(count), all->end());
            const double max = *std::max_element(all->begin(), all->end());
            rows.back().push_back(plain(rate_text(all->back())));
            rows.back().push_back(plain(sparkline(bars, max, is_utf8_locale())));
        }
    }
    return columns(rows);
}

// One node with the statistics of its ports.
screen_lines detail_lines(const screen &screen, const node &shown)
{
    screen_lines lines;
    for (const screen_line &line : node_lines(screen.net, shown)) {
        append_lines(lines, wrap(line, screen.width));
    }
    const screen_lines ports = ports_lines(shown);
    if (!ports.empty()) {
        const screen_lines rates = rate_lines(screen.recent.rates_of(shown.mac), screen.width);
        if (!rates.empty()) {
            lines.push_back(title_line("Rates", screen.width));
            append_lines(lines, rates);
        }
        lines.push_back(title_line("Statistics since reset", screen.width));
        append_lines(lines, ports);
    }
    return lines;
}

// "Link down: none", or the entries behind the title, wrapped and cut.
screen_lines list_lines(const std::string &title, const std::vector<std::string> &entries,
                        const std::string &other, size_t width)
{
    screen_line line = plain(title + ": ");
    if (entries.empty()) {
        line.push_back({text_style::PLAIN, other});
        return {line};
    }
    screen_lines lines;
    const size_t indent = width >= WIDE ? length_of(line) : 2;
    for (size_t i = 0; i < entries.size(); i++) {
        const bool is_last = i + 1 == entries.size();
        const std::string text = entries[i] + (is_last ? "" : ", ");
        if (length_of(line) > indent && length_of(line) + width_of(text) > width) {
            if (lines.size() + 1 == MAX_LIST_LINES) {
                line.push_back({text_style::RED, fmt::format("... {} more", entries.size() - i)});
                break;
            }
            lines.push_back(line);
            line = plain(std::string(indent, ' '));
        }
        line.push_back({text_style::RED, text});
    }
    lines.push_back(line);
    return lines;
}

screen_lines all_list_lines(const network &net, size_t width)
{
    screen_lines lines;
    screen_lines short_ones;
    const auto add = [&](const std::string &title, const std::vector<std::string> &entries,
                         const std::string &other) {
        const screen_lines list = list_lines(title, entries, other, width);
        (list.size() == 1 ? append_lines(short_ones, list) : append_lines(lines, list));
    };
    for (int list = 0; list < PORT_LISTS; list++) {
        const auto which = static_cast<port_list>(list);
        add(PORT_LIST_INFOS[which].title, port_list_entries(net, which),
            fact_text(net.lists[which], "unknown", "none"));
    }
    add("Miswired links", miswired_link_entries(net), fact_text(net.miswired_links, "none", "none"));
    append_lines(lines, flowing(short_ones, width));
    return lines;
}

// Statistics since the last reset, and the running and the last period beside them where they have the field.
std::vector<screen_lines> stats_rows(const port_records &records, const pm_record *last_period)
{
    std::vector<screen_lines> rows;
    const auto cell = [](std::optional<uint64_t> value) {
        return plain(value ? std::to_string(*value) : "-");
    };
    for (const stats_field &field : STATS_FIELDS) {
        const auto pm = std::find_if(PM_FIELDS.begin(), PM_FIELDS.end(),
                                     [&](const pm_field &candidate) { return candidate.source == &field; });
        screen_lines row = {plain(field.name), cell(field_value(*records.stats.value, field))};
        if (pm != PM_FIELDS.end()) {
            row.push_back(cell(running_period_value(records, *pm)));
            row.push_back(
                cell(last_period == nullptr ? std::nullopt : std::optional(field_value(*last_period, *pm))));
        } else {
            row.resize(4);
        }
        rows.push_back(row);
    }
    return rows;
}

std::string pm_time_text(const pm_record &record)
{
    return clock_text(
        {{}, std::chrono::system_clock::from_time_t(static_cast<time_t>(closing_time(record)))});
}

// What can be said of the running and the last period, with the last period's record where there is one.
std::string period_text(const port_records &records, const pm_record *last_period)
{
    if (!records.last_period.is_published) {
        return "no period closed yet";
    }
    if (!records.last_period.value) {
        return "last_period " + fact_text(records.last_period, "", "");
    }
    std::string text = "last " + *records.last_period.value;
    const auto slot = records.pm.find(*records.last_period.value);
    if (last_period != nullptr) {
        text += " " + pm_time_text(*last_period);
    } else {
        text += "'s record is " + (slot == records.pm.end() || !slot->second.is_published
                                       ? "missing"
                                       : fact_text(slot->second, "", ""));
    }
    if (!records.period_start) {
        text += ", running began unseen";
    }
    return text;
}

const pm_record *last_period_record(const port_records &records)
{
    if (!records.last_period.value) {
        return nullptr;
    }
    const auto slot = records.pm.find(*records.last_period.value);
    return slot == records.pm.end() || !slot->second.value ? nullptr : &*slot->second.value;
}

// The rows with titles, in two halves side by side where they fit.
screen_lines stats_table(std::vector<screen_lines> rows, size_t width)
{
    const screen_lines heads = heading({"FIELD", "TOTAL", "RUNNING", "LAST"});
    const size_t half = (rows.size() + 1) / 2;
    std::vector<screen_lines> wide = {heads};
    append_lines(wide[0], heads);
    for (size_t i = 0; i < half; i++) {
        wide.push_back(rows[i]);
        if (i + half < rows.size()) {
            append_lines(wide.back(), rows[i + half]);
        }
    }
    screen_lines lines = columns(wide);
    if (length_of(lines[0]) <= width) {
        return lines;
    }
    rows.insert(rows.begin(), heads);
    return columns(rows);
}

screen_lines stats_lines(const screen &screen)
{
    const stats_target &target = *screen.target;
    const auto only_title = [&](const std::string &text) {
        return screen_lines{title_line(fmt::format("Statistics of {}: {}", target.text, text), screen.width)};
    };
    const std::vector<const node *> nodes = find_nodes(screen.net, target.node);
    if (nodes.empty()) {
        return only_title("no such node is known here");
    }
    if (nodes.size() > 1) {
        std::string macs = "several nodes are called so:";
        for (const node *found : nodes) {
            macs += " " + mac_text(found->mac);
        }
        return only_title(macs);
    }
    const auto found = nodes[0]->ports.find(target.port);
    if (found == nodes[0]->ports.end() || !found->second.stats.is_published) {
        return only_title("none published on this broker");
    }
    const port_records &records = found->second;
    if (!records.stats.value) {
        return only_title(fact_text(records.stats, "", ""));
    }
    const pm_record *const last_period = last_period_record(records);
    screen_lines lines = {title_line(
        fmt::format("Statistics of {} since reset ({})", target.text, period_text(records, last_period)),
        screen.width)};
    const auto &rates = screen.recent.rates_of(nodes[0]->mac);
    if (const auto known = rates.find(target.port); known != rates.end()) {
        append_lines(lines, rate_lines({*known}, screen.width));
    }
    append_lines(lines, stats_table(stats_rows(records, last_period), screen.width));
    return lines;
}

} // namespace

size_t index_of(const std::vector<const node *> &nodes, const mac_address &mac)
{
    const auto found =
        std::find_if(nodes.begin(), nodes.end(), [&](const node *item) { return item->mac == mac; });
    return found == nodes.end() ? 0 : static_cast<size_t>(found - nodes.begin());
}

// What is wider than the screen goes on in the next line.
screen_lines event_lines(const std::deque<event> &events, size_t width, size_t count)
{
    screen_lines lines;
    const size_t room = count > 0 ? count - 1 : 0;
    for (auto item = events.rbegin(); item != events.rend() && lines.size() < room; ++item) {
        const screen_lines wrapped =
            wrap({{text_style::DIM, clock_text(item->when) + " "}, {text_style::PLAIN, item->text}}, width);
        lines.insert(lines.begin(), wrapped.begin(), wrapped.end());
    }
    if (lines.size() > room) {
        lines.erase(lines.begin(), lines.end() - static_cast<std::ptrdiff_t>(room));
    }
    if (events.empty()) {
        lines.push_back({{text_style::DIM, "none since the start"}});
    }
    lines.insert(lines.begin(), title_line("Events", width));
    return lines;
}

screen_lines view_render(const screen &screen, const moment &now)
{
    const std::vector<const node *> nodes = sorted_nodes(screen.net, screen.order);
    screen_lines lines = header_lines(screen, nodes.size(), now);
    // The rows that may follow when the newest events stay in sight.
    const auto room = [&](size_t others) {
        const size_t fixed = lines.size() + others + MIN_EVENT_LINES;
        return screen.height > fixed ? screen.height - fixed : 0;
    };
    const auto selected = screen.net.nodes.find(screen.selected);
    if (screen.is_detail && selected != screen.net.nodes.end()) {
        screen_lines detail = detail_lines(screen, selected->second);
        cut_lines(detail, room(0));
        append_lines(lines, detail);
    } else {
        const screen_lines lists = all_list_lines(screen.net, screen.width);
        screen_lines stats = screen.target != nullptr ? stats_lines(screen) : screen_lines{};
        // Nodes shrink to a few rows before statistics do.
        const size_t rows = room(lists.size() + 1);
        const size_t node_rows =
            std::min(nodes.size(), std::max(MIN_NODE_ROWS, rows > stats.size() ? rows - stats.size() : 0));
        cut_lines(stats, rows > node_rows ? rows - node_rows : 0);
        append_lines(lines, visible_nodes(screen, nodes, node_rows, now));
        append_lines(lines, lists);
        append_lines(lines, stats);
    }
    append_lines(lines, event_lines(screen.events, screen.width,
                                    screen.height > lines.size() ? screen.height - lines.size() : 0));

    lines.resize(screen.height);
    for (screen_line &line : lines) {
        clip(line, screen.width);
    }
    return lines;
}
