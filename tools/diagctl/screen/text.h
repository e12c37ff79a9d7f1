// Lines of styled text for terminals, and how times are written. Texts are UTF-8; a width is a number of
// columns of the terminal.
#pragma once

#include "network/model.h"

#include <span>
#include <string>
#include <vector>

enum class text_style {
    PLAIN,
    DIM,
    BOLD,
    TITLE,
    RED,
    YELLOW,
    GREEN,
};

struct styled_text {
    text_style style;
    std::string text;
};
using screen_line = std::vector<styled_text>;

// Whether the user's terminal shows UTF-8. Where it doesn't, every character takes one column, see
// terminal_text().
bool is_utf8_locale();

// The character that a text starts with. What isn't UTF-8 is one byte and one column.
struct character {
    size_t size; // in bytes
    size_t width;
};
character first_character(std::string_view text);

size_t width_of(std::string_view text);
size_t length_of(const screen_line &line);
size_t widest(const std::vector<screen_line> &lines);
screen_line plain(std::string text);
void append(screen_line &line, const screen_line &more);
void pad(screen_line &line, size_t width);
void clip(screen_line &line, size_t width);
void append_lines(std::vector<screen_line> &lines, const std::vector<screen_line> &more);

// Leaves as many lines as asked for, of which the last tells how many are left out.
void cut_lines(std::vector<screen_line> &lines, size_t count);

// One character for each value: nothing is the lowest, anything else at least the next, max the highest.
std::string sparkline(std::span<const double> values, double max, bool is_utf8);

// The line, with the words of its last part below each other where the width asks for it.
std::vector<screen_line> wrap(screen_line line, size_t width);

// A line of inverse text as wide as the screen.
screen_line title_line(const std::string &text, size_t width);

// Rows of cells in columns as wide as their widest cell.
std::vector<screen_line> columns(const std::vector<std::vector<screen_line>> &rows);

// A row of titles for columns().
std::vector<screen_line> heading(const std::vector<std::string> &titles);

// "2024-05-01 10:15:03", local time, and the time of day of it.
std::string date_text(const moment &when);
std::string clock_text(const moment &when);

// "7 s", "12 min" or "3 h".
std::string age_text(std::chrono::steady_clock::duration age);

// "malformed (5 bytes)".
std::string malformed_text(size_t size);

// "02-00-00-00-00-03", behind its name where it has one.
std::string node_text(const network &net, const mac_address &mac);

// "node Lobby 02-00-00-00-00-03 (7)": the number, where it is known, in brackets.
std::string node_label(const network &net, const mac_address &mac, std::optional<uint8_t> number);

// text where the topic's value is known; otherwise absent, or "malformed (N bytes)".
template <typename T>
std::string fact_text(const fact<T> &value, const char *absent, const std::string &text)
{
    if (!value.is_published) {
        return absent;
    }
    return value.value ? text : malformed_text(value.size);
}
