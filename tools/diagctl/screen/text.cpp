#include "screen/text.h"

#include <fmt/chrono.h>

#include <algorithm>

namespace
{

constexpr const char *COLUMN_GAP = "  ";

bool is_continuation(char c)
{
    return (static_cast<unsigned char>(c) & 0xC0U) == 0x80U;
}

} // namespace

size_t length_of(const screen_line &line)
{
    size_t length = 0;
    for (const styled_text &part : line) {
        length += static_cast<size_t>(
            std::count_if(part.text.begin(), part.text.end(), [](char c) { return !is_continuation(c); }));
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
    for (styled_text &part : line) {
        size_t end = 0;
        for (; end < part.text.size() && (width > 0 || is_continuation(part.text[end])); end++) {
            width -= is_continuation(part.text[end]) ? 0U : 1U;
        }
        part.text.resize(end);
    }
}

void append_lines(std::vector<screen_line> &lines, const std::vector<screen_line> &more)
{
    lines.insert(lines.end(), more.begin(), more.end());
}

void cut_lines(std::vector<screen_line> &lines, size_t count)
{
    if (lines.size() <= count) {
        return;
    }
    const size_t left_out = lines.size() - count + 1;
    lines.resize(count);
    if (count > 0) {
        lines.back() = {{text_style::DIM, fmt::format("... {} more lines", left_out)}};
    }
}

screen_line title_line(const std::string &text, size_t width)
{
    screen_line line = {{text_style::TITLE, text}};
    if (text.size() < width) {
        line[0].text.append(width - text.size(), ' ');
    }
    return line;
}

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

std::vector<screen_line> heading(const std::vector<std::string> &titles)
{
    std::vector<screen_line> row;
    row.reserve(titles.size());
    for (const std::string &title : titles) {
        row.push_back({{text_style::BOLD, title}});
    }
    return row;
}

std::string date_text(const moment &when)
{
    return fmt::format("{:%Y-%m-%d %H:%M:%S}",
                       fmt::localtime(std::chrono::system_clock::to_time_t(when.wall)));
}

std::string clock_text(const moment &when)
{
    return fmt::format("{:%H:%M:%S}", fmt::localtime(std::chrono::system_clock::to_time_t(when.wall)));
}

std::string age_text(std::chrono::steady_clock::duration age)
{
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(age).count();
    if (seconds < 120) {
        return fmt::format("{} s", seconds);
    }
    return seconds < 7200 ? fmt::format("{} min", seconds / 60) : fmt::format("{} h", seconds / 3600);
}

std::string malformed_text(size_t size)
{
    return fmt::format("malformed ({} byte{})", size, size == 1 ? "" : "s");
}

std::string node_text(const network &net, const mac_address &mac)
{
    const std::string *const name = net.names.of(mac);
    return name == nullptr ? mac_text(mac) : fmt::format("{} {}", *name, mac_text(mac));
}

std::string node_label(const network &net, const mac_address &mac, std::optional<uint8_t> number)
{
    const std::string text = "node " + node_text(net, mac);
    return number ? fmt::format("{} ({})", text, *number) : text;
}
