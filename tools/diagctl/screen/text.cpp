#include "screen/text.h"

#include <fmt/chrono.h>

#include <langinfo.h>

#include <algorithm>
#include <cmath>
#include <cwchar>

namespace
{

constexpr const char *COLUMN_GAP = "  ";

constexpr const char *UTF8_BARS[] = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr const char *ASCII_BARS[] = {"_", ".", "-", "=", "+", "*", "#", "@"};

bool is_continuation(char c)
{
    return (static_cast<unsigned char>(c) & 0xC0U) == 0x80U;
}

} // namespace

bool is_utf8_locale()
{
    static const bool is_utf8 = std::string_view(nl_langinfo(CODESET)) == "UTF-8";
    return is_utf8;
}

character first_character(std::string_view text)
{
    if (is_utf8_locale()) {
        wchar_t code = 0;
        mbstate_t state{};
        const size_t size = mbrtowc(&code, text.data(), text.size(), &state);
        if (size == 0 || size > text.size()) {
            return {1, 1};
        }
        return {size, static_cast<size_t>(std::max(wcwidth(code), 0))};
    }
    size_t size = 1;
    while (size < text.size() && is_continuation(text[size])) {
        size++;
    }
    return {size, 1};
}

size_t width_of(std::string_view text)
{
    size_t width = 0;
    while (!text.empty()) {
        const character next = first_character(text);
        width += next.width;
        text.remove_prefix(next.size);
    }
    return width;
}

size_t length_of(const screen_line &line)
{
    size_t length = 0;
    for (const styled_text &part : line) {
        length += width_of(part.text);
    }
    return length;
}

size_t widest(const std::vector<screen_line> &lines)
{
    size_t width = 0;
    for (const screen_line &line : lines) {
        width = std::max(width, length_of(line));
    }
    return width;
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
    bool is_full = false;
    for (styled_text &part : line) {
        size_t end = 0;
        while (!is_full && end < part.text.size()) {
            const character next = first_character(std::string_view(part.text).substr(end));
            is_full = next.width > width;
            if (!is_full) {
                width -= next.width;
                end += next.size;
            }
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

std::vector<screen_line> wrap(screen_line line, size_t width)
{
    if (length_of(line) <= width) {
        return {line};
    }
    const styled_text last = std::move(line.back());
    line.pop_back();
    const std::string indent(length_of(line), ' ');
    std::vector<screen_line> lines = {std::move(line)};
    bool is_first = true; // word of its line
    for (std::string_view text = last.text; !text.empty();) {
        const std::string word(text.substr(0, text.find(' ')));
        text.remove_prefix(std::min(word.size() + 1, text.size()));
        if (!is_first && length_of(lines.back()) + 1 + width_of(word) > width) {
            lines.push_back(plain(indent));
            is_first = true;
        }
        lines.back().push_back({last.style, is_first ? word : " " + word});
        is_first = false;
    }
    return lines;
}

std::string sparkline(std::span<const double> values, double max, bool is_utf8)
{
    constexpr size_t HIGHEST = std::size(UTF8_BARS) - 1;
    std::string line;
    for (const double value : values) {
        const auto height =
            value > 0
                ? std::clamp<size_t>(static_cast<size_t>(std::lround(value / max * HIGHEST)), 1, HIGHEST)
                : 0;
        line += is_utf8 ? UTF8_BARS[height] : ASCII_BARS[height];
    }
    return line;
}

screen_line title_line(const std::string &text, size_t width)
{
    const size_t used = width_of(text);
    return {{text_style::TITLE, text + std::string(width > used ? width - used : 0, ' ')}};
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
