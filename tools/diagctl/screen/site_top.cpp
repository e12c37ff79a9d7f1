#include "screen/site_top.h"

#include <fmt/core.h>

#include <algorithm>

namespace
{

constexpr size_t MIN_EVENT_LINES = 5; // with their title
constexpr std::string_view HELP = "sort m:mac n:number f:faults c:change  enter detail  q quit";
constexpr std::string_view DETAIL_HELP = "enter back  q quit";

screen_lines header_lines(const site_screen &screen, const moment &now)
{
    std::string title = fmt::format("diagctl top  site {}  {}", screen.brokers, clock_text(now));
    const std::string_view help = screen.is_detail ? DETAIL_HELP : HELP;
    if (title.size() + help.size() + 2 <= screen.width) {
        title.append(screen.width - title.size() - help.size(), ' ');
        title += help;
    }
    size_t unreachable = 0;
    size_t differences = 0;
    const std::vector<site_network> networks = screen.all.networks();
    const std::vector<mac_address> cards = screen.all.cards();
    for (const mac_address &mac : cards) {
        unreachable += screen.all.is_connected(mac) == false ? 1U : 0U;
    }
    for (const site_network &shown : networks) {
        differences += shown.differences.size();
    }
    const auto bad = [](size_t count) { return count == 0 ? text_style::PLAIN : text_style::RED; };
    return {title_line(title, screen.width),
            {{text_style::PLAIN, fmt::format("Cards {}   Networks {}   ", cards.size(), networks.size())},
             {bad(unreachable), fmt::format("Unreachable {}", unreachable)},
             {text_style::PLAIN, "   "},
             {bad(differences), fmt::format("Differences of views {}", differences)}}};
}

// The tables, scrolled so that the selected card is in sight, with what is above and below it.
screen_lines visible_rows(const site_screen &screen, size_t count, const moment &now)
{
    std::vector<site_row> rows = site_node_rows(screen.all, screen.order, screen.start, now);
    const auto selected = std::find_if(rows.begin(), rows.end(),
                                       [&](const site_row &row) { return row.card == screen.selected; });
    size_t first = 0;
    if (selected != rows.end()) {
        for (styled_text &part : selected->line) {
            part.style = text_style::TITLE;
        }
        const auto place = static_cast<size_t>(selected - rows.begin());
        first = place < count / 2 ? 0 : place - count / 2;
    }
    first = std::min(first, rows.size() > count ? rows.size() - count : 0);
    screen_lines lines;
    for (size_t i = first; i < std::min(first + count, rows.size()); i++) {
        lines.push_back(std::move(rows[i].line));
    }
    return lines;
}

screen_lines detail_lines(const site_screen &screen)
{
    const network net = site_card_model(screen.all, screen.selected);
    const node &shown = net.nodes.at(screen.selected);
    screen_lines lines = below_connection(screen.all, screen.selected, screen.start, node_lines(net, shown));
    if (!shown.ports.empty()) {
        lines.push_back(title_line("Statistics since reset", screen.width));
        append_lines(lines, ports_lines(shown));
    }
    return lines;
}

} // namespace

std::vector<mac_address> site_rows(const site &all, node_order order)
{
    std::vector<mac_address> cards;
    for (const site_row &row : site_node_rows(all, order, {}, {})) {
        if (row.card) {
            cards.push_back(*row.card);
        }
    }
    return cards;
}

screen_lines site_render(const site_screen &screen, const moment &now)
{
    screen_lines lines = header_lines(screen, now);
    const size_t fixed = lines.size() + MIN_EVENT_LINES;
    const size_t room = screen.height > fixed ? screen.height - fixed : 0;
    screen_lines body = screen.is_detail ? detail_lines(screen) : visible_rows(screen, room, now);
    cut_lines(body, room);
    append_lines(lines, body);
    const size_t left = screen.height > lines.size() ? screen.height - lines.size() : 0;
    append_lines(lines, event_lines(screen.events, screen.width, left));
    lines.resize(screen.height);
    for (screen_line &line : lines) {
        clip(line, screen.width);
    }
    return lines;
}
