#include "view.h"

#include "summary.h"

#include <algorithm>
#include <ctime>

namespace
{

using std::to_string;

constexpr size_t MIN_EVENT_LINES = 4; // with their title
constexpr size_t MIN_NODE_ROWS = 3;
constexpr size_t MAX_LIST_LINES = 3;
constexpr const char *COLUMN_GAP = "  ";
// A port's colour is also a mark, for terminals and people without colours.
constexpr const char *COLOUR_MARKS[] = {" ", "~", "!"}; // by port_status
constexpr text_style COLOUR_STYLES[] = {text_style::GREEN, text_style::YELLOW, text_style::RED};
constexpr const char *LIST_TITLES[PORT_LISTS] = {"Link down", "Ground fault", "Miswired"};

size_t length_of(const screen_line &line)
{
    size_t length = 0;
    for (const styled_text &part : line) {
        length += part.text.size();
    }
    return length;
}

screen_line plain(std::string text)
{
    return {{text_style::PLAIN, std::move(text)}};
}

void append(screen_line &line, const screen_line &more)
{
    line.insert(line.end(), more.begin(), more.end());
}

void pad(screen_line &line, size_t width)
{
    const size_t length = length_of(line);
    if (length < width) {
        line.push_back({text_style::PLAIN, std::string(width - length, ' ')});
    }
}

void clip(screen_line &line, size_t width)
{
    screen_line clipped;
    for (styled_text &part : line) {
        part.text.resize(std::min(part.text.size(), width));
        width -= part.text.size();
        clipped.push_back(std::move(part));
    }
    line = std::move(clipped);
}

// "2024-05-01 10:15:03", local time.
std::string date_text(const moment &when)
{
    const time_t seconds = std::chrono::system_clock::to_time_t(when.wall);
    tm broken_down{};
    char text[sizeof "2024-05-01 10:15:03" + 8] = "";
    if (localtime_r(&seconds, &broken_down) != nullptr) {
        strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &broken_down);
    }
    return text;
}

// The time of day of it.
std::string clock_text(const moment &when)
{
    const std::string text = date_text(when);
    return text.substr(std::min(text.size(), text.find(' ') + 1));
}

std::string age_text(std::chrono::steady_clock::duration age)
{
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(age).count();
    if (seconds < 120) {
        return to_string(seconds) + " s";
    }
    return seconds < 7200 ? to_string(seconds / 60) + " min" : to_string(seconds / 3600) + " h";
}

std::string named_node(const mac_address &mac, uint8_t number)
{
    return mac_text(mac) + " (" + to_string(number) + ")";
}

screen_line title_line(const std::string &text, size_t width)
{
    screen_line line = {{text_style::TITLE, text}};
    if (text.size() < width) {
        line[0].text.append(width - text.size(), ' ');
    }
    return line;
}

// Rows of cells in columns as wide as their widest cell.
std::vector<screen_line> columns(const std::vector<std::vector<screen_line>> &rows)
{
    std::vector<size_t> widths;
    for (const auto &row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t i = 0; i < row.size(); i++) {
            widths[i] = std::max(widths[i], length_of(row[i]));
        }
    }
    std::vector<screen_line> lines;
    for (const auto &row : rows) {
        screen_line line;
        for (size_t i = 0; i < row.size(); i++) {
            screen_line cell = row[i];
            if (i + 1 < row.size()) {
                pad(cell, widths[i]);
                cell.push_back({text_style::PLAIN, COLUMN_GAP});
            }
            append(line, cell);
        }
        lines.push_back(line);
    }
    return lines;
}

template <typename T>
std::string fact_text(const fact<T> &value, const char *absent, const std::string &text)
{
    if (!value.is_published) {
        return absent;
    }
    return value.value ? text : "malformed (" + to_string(value.size) + " bytes)";
}

std::vector<screen_line> header_lines(const screen &screen, size_t node_count, const moment &now)
{
    const network &net = screen.net;
    std::string title = "diagctl top  " + screen.broker + "  " + clock_text(now);
    const std::string help = "up/down scroll  q quit";
    if (title.size() + help.size() + 2 <= screen.width) {
        title.append(screen.width - title.size() - help.size(), ' ');
        title += help;
    }
    screen_line state = plain("Local node ");
    state.push_back({text_style::BOLD,
                     fact_text(net.local, "unknown", net.local.value ? mac_text(*net.local.value) : "")});
    state.push_back({text_style::PLAIN, "   Network ring "});
    const bool degraded = net.ring_degraded.value.value_or(false);
    state.push_back({degraded ? text_style::RED : text_style::GREEN,
                     fact_text(net.ring_degraded, "unknown", degraded ? "DEGRADED" : "normal")});
    if (!net.ring_degraded.value) {
        state.back().style = text_style::PLAIN;
    }
    state.push_back(
        {text_style::PLAIN, "   " + to_string(node_count) + (node_count == 1 ? " node" : " nodes")});
    return {title_line(title, screen.width), state};
}

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
            cell.push_back(
                {COLOUR_STYLES[colour], port_text(static_cast<int>(port)) + COLOUR_MARKS[colour] + gap});
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
        std::string ports;
        for (size_t port = 0; port < LUM_FRONT_PORTS; port++) {
            if ((*shown.media)[port] == media) {
                ports += port_text(static_cast<int>(port));
            }
        }
        if (!ports.empty()) {
            kinds++;
            last = media;
            text += (text.empty() ? "" : ", ") + ports + " " + hwinfo_lumtype_enum_to_str(media);
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

// The local node first, the others by MAC address.
std::vector<const node *> shown_nodes(const network &net)
{
    std::vector<const node *> nodes;
    for (const auto &[mac, candidate] : net.nodes) {
        if (net.is_local(mac)) {
            nodes.insert(nodes.begin(), &candidate);
        } else if (candidate.is_present) {
            nodes.push_back(&candidate);
        }
    }
    return nodes;
}

std::vector<screen_line> node_lines(const screen &screen, const std::vector<const node *> &nodes,
                                    size_t max_rows, const moment &now)
{
    std::vector<std::vector<screen_line>> rows;
    std::vector<screen_line> titles;
    for (const char *title : {"NODE", "NR", "WHERE", "PORTS", "MEDIA", "JOB", "CHANGED", "OS / BOOT / APP"}) {
        titles.push_back({{text_style::BOLD, title}});
    }
    rows.push_back(titles);
    const size_t ports = port_columns(nodes);
    for (const node *shown : nodes) {
        rows.push_back({
            plain(mac_text(shown->mac)),
            plain(shown->number ? to_string(*shown->number) : "-"),
            plain(!screen.net.local.value           ? "-"
                  : screen.net.is_local(shown->mac) ? "local"
                                                    : "remote"),
            ports_cell(*shown, ports),
            plain(media_cell(*shown)),
            plain(job_cell(*shown)),
            plain(shown->last_change ? age_text(now.steady - shown->last_change->steady) : "-"),
            plain(versions_cell(*shown)),
        });
    }
    std::vector<screen_line> lines = columns(rows);
    if (nodes.size() <= max_rows) {
        return lines;
    }
    // One row tells what isn't shown.
    const size_t visible = max_rows - 1;
    const size_t first = std::min(screen.first_node, nodes.size() - visible);
    const auto body = lines.begin() + 1;
    const auto from = body + static_cast<std::ptrdiff_t>(first);
    std::vector<screen_line> cut = {lines[0]};
    cut.insert(cut.end(), from, from + static_cast<std::ptrdiff_t>(visible));
    cut.push_back({{text_style::DIM, "... nodes " + to_string(first + 1) + " to " +
                                         to_string(first + visible) + " of " + to_string(nodes.size())}});
    return cut;
}

// "Link down: none", or the entries behind the title, wrapped and cut.
std::vector<screen_line> list_lines(const std::string &title, const std::vector<std::string> &entries,
                                    const std::string &other, size_t width)
{
    screen_line line = plain(title + ": ");
    if (entries.empty()) {
        line.push_back({text_style::PLAIN, other});
        return {line};
    }
    std::vector<screen_line> lines;
    const size_t indent = length_of(line);
    for (size_t i = 0; i < entries.size(); i++) {
        const bool is_last = i + 1 == entries.size();
        const std::string text = entries[i] + (is_last ? "" : ", ");
        if (length_of(line) > indent && length_of(line) + text.size() > width) {
            if (lines.size() + 1 == MAX_LIST_LINES) {
                line.push_back({text_style::RED, "... " + to_string(entries.size() - i) + " more"});
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

std::vector<std::string> port_list_entries(const std::vector<listed_ports> &list)
{
    std::vector<std::string> entries;
    for (const listed_ports &record : list) {
        std::string text = named_node(record.mac, record.number) + " ";
        for (int port = 0; port < LUM_FRONT_PORTS; port++) {
            if ((record.ports & (1U << port)) != 0) {
                text += port_text(port);
            }
        }
        entries.push_back(text);
    }
    return entries;
}

std::vector<screen_line> all_list_lines(const network &net, size_t width)
{
    std::vector<std::vector<screen_line>> lists;
    for (size_t i = 0; i < PORT_LISTS; i++) {
        const auto &list = net.lists[i];
        lists.push_back(list_lines(LIST_TITLES[i],
                                   port_list_entries(list.value.value_or(std::vector<listed_ports>{})),
                                   fact_text(list, "unknown", "none"), width));
    }
    std::vector<std::string> links;
    for (const miswired_link &link : net.miswired_links.value.value_or(std::vector<miswired_link>{})) {
        links.push_back(miswired_link_text(link));
    }
    lists.push_back(
        list_lines("Miswired links", links, fact_text(net.miswired_links, "none", "none"), width));

    // Short lists share a line.
    constexpr const char *LIST_GAP = "   ";
    std::vector<screen_line> lines;
    for (const auto &list : lists) {
        if (list.size() == 1 && !lines.empty() &&
            length_of(lines.back()) + length_of(list[0]) + std::string_view(LIST_GAP).size() <= width) {
            lines.back().push_back({text_style::PLAIN, LIST_GAP});
            append(lines.back(), list[0]);
        } else {
            lines.insert(lines.end(), list.begin(), list.end());
        }
    }
    return lines;
}

// Statistics since the last reset, and the running and the last period beside them where they have the field.
std::vector<std::vector<screen_line>> stats_rows(const port_records &records, const pm_record *last_period)
{
    std::vector<std::vector<screen_line>> rows;
    const auto cell = [](std::optional<uint64_t> value) { return plain(value ? to_string(*value) : "-"); };
    for (const stats_field &field : STATS_FIELDS) {
        const auto pm = std::find_if(PM_FIELDS.begin(), PM_FIELDS.end(),
                                     [&](const pm_field &candidate) { return candidate.source == &field; });
        std::vector<screen_line> row = {plain(field.name),
                                        cell(field_value(*records.stats.value, field.offset, field.width))};
        if (pm != PM_FIELDS.end()) {
            row.push_back(cell(running_period_value(records, *pm)));
            row.push_back(cell(last_period == nullptr
                                   ? std::nullopt
                                   : std::optional(field_value(*last_period, pm->offset, pm->width))));
        } else {
            row.resize(4);
        }
        rows.push_back(row);
    }
    return rows;
}

std::string pm_time_text(const pm_record &record)
{
    const auto seconds = static_cast<int64_t>(field_value(record, PM_TIME, sizeof(int64_t)));
    moment closed{};
    closed.wall = std::chrono::system_clock::from_time_t(static_cast<time_t>(seconds));
    return clock_text(closed);
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

std::vector<screen_line> stats_lines(const screen &screen)
{
    const stats_target &target = *screen.target;
    const std::vector<const node *> nodes = find_nodes(screen.net, target.node);
    const std::string title = "Statistics of " + target.text;
    if (nodes.empty()) {
        return {title_line(title + ": no such node is known here", screen.width)};
    }
    if (nodes.size() > 1) {
        std::string macs;
        for (const node *found : nodes) {
            macs += " " + mac_text(found->mac);
        }
        return {title_line(title + ": several nodes have this number:" + macs, screen.width)};
    }
    const auto found = nodes[0]->ports.find(target.port);
    if (found == nodes[0]->ports.end() || !found->second.stats.is_published) {
        return {title_line(title + ": none published on this broker", screen.width)};
    }
    const port_records &records = found->second;
    if (!records.stats.value) {
        return {title_line(title + ": " + fact_text(records.stats, "", ""), screen.width)};
    }
    const pm_record *const last_period = last_period_record(records);
    std::vector<screen_line> lines = {
        title_line(title + " since reset (" + period_text(records, last_period) + ")", screen.width)};

    const std::vector<screen_line> heads = {
        {{text_style::BOLD, "FIELD"}},
        {{text_style::BOLD, "TOTAL"}},
        {{text_style::BOLD, "RUNNING"}},
        {{text_style::BOLD, "LAST"}},
    };
    std::vector<std::vector<screen_line>> rows = stats_rows(records, last_period);
    // Two halves side by side where they fit.
    const size_t half = (rows.size() + 1) / 2;
    std::vector<std::vector<screen_line>> wide = {heads};
    wide[0].insert(wide[0].end(), heads.begin(), heads.end());
    for (size_t i = 0; i < half; i++) {
        wide.push_back(rows[i]);
        if (i + half < rows.size()) {
            wide.back().insert(wide.back().end(), rows[i + half].begin(), rows[i + half].end());
        }
    }
    std::vector<screen_line> body = columns(wide);
    if (length_of(body[0]) > screen.width) {
        rows.insert(rows.begin(), heads);
        body = columns(rows);
    }
    lines.insert(lines.end(), body.begin(), body.end());
    return lines;
}

std::vector<screen_line> event_lines(const screen &screen, size_t count)
{
    std::vector<screen_line> lines = {title_line("Events", screen.width)};
    if (screen.events.empty()) {
        lines.push_back({{text_style::DIM, "none since the start"}});
    }
    const size_t shown = std::min(screen.events.size(), count > 0 ? count - 1 : 0);
    for (size_t i = screen.events.size() - shown; i < screen.events.size(); i++) {
        lines.push_back({{text_style::DIM, clock_text(screen.events[i].when) + " "},
                         {text_style::PLAIN, screen.events[i].text}});
    }
    return lines;
}

// With a last line that tells how many are left out.
void cut_lines(std::vector<screen_line> &lines, size_t count)
{
    if (lines.size() <= count) {
        return;
    }
    const size_t left_out = lines.size() - count + 1;
    lines.resize(count);
    if (count > 0) {
        lines.back() = {{text_style::DIM, "... " + to_string(left_out) + " more lines"}};
    }
}

} // namespace

std::vector<screen_line> view_render(const screen &screen, const moment &now)
{
    const std::vector<const node *> nodes = shown_nodes(screen.net);
    std::vector<screen_line> lines = header_lines(screen, nodes.size(), now);
    const std::vector<screen_line> lists = all_list_lines(screen.net, screen.width);
    std::vector<screen_line> stats;
    if (screen.target != nullptr) {
        stats = stats_lines(screen);
    }
    const auto add = [&](const std::vector<screen_line> &part) {
        lines.insert(lines.end(), part.begin(), part.end());
    };

    // What isn't nodes or statistics comes first; nodes shrink to a few rows before statistics do.
    const size_t fixed = lines.size() + 1 + lists.size() + MIN_EVENT_LINES;
    const size_t room = screen.height > fixed ? screen.height - fixed : 0;
    const size_t node_rows =
        std::min(nodes.size(), std::max(MIN_NODE_ROWS, room > stats.size() ? room - stats.size() : 0));
    cut_lines(stats, room > node_rows ? room - node_rows : 0);
    add(node_lines(screen, nodes, node_rows, now));
    add(lists);
    add(stats);
    add(event_lines(screen, screen.height > lines.size() ? screen.height - lines.size() : 0));

    lines.resize(screen.height);
    for (screen_line &line : lines) {
        clip(line, screen.width);
    }
    return lines;
}

std::string event_line(const event &event)
{
    return date_text(event.when) + " " + event.text;
}
