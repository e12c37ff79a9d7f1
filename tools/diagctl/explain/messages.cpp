#include "explain/messages.h"

#include <algorithm>
#include <cctype>

namespace
{

constexpr std::string_view DOCUMENT =
#include "troubleshooting.inc"
    ;

constexpr size_t COLUMNS = 5;
constexpr const char *ANY_SOURCE = "any";
constexpr std::string_view SEPARATOR = " - ";

std::string_view trimmed(std::string_view text)
{
    const size_t start = text.find_first_not_of(' ');
    return start == std::string_view::npos ? "" : text.substr(start, text.find_last_not_of(' ') - start + 1);
}

// Without emphasis, code spans, line breaks and links; \* and \| as they are meant.
std::string without_markup(std::string_view text)
{
    std::string plain;
    for (size_t i = 0; i < text.size(); i++) {
        const size_t link_end = text.substr(i).starts_with("](") ? text.find(')', i) : std::string_view::npos;
        if (link_end != std::string_view::npos) {
            i = link_end;
        } else if (text[i] == '\\' && i + 1 < text.size()) {
            plain += text[++i];
        } else if (text[i] != '*' && text[i] != '`' &&
                   !(text[i] == '[' && text.find("](", i) != std::string_view::npos)) {
            plain += text[i];
        }
    }
    return plain;
}

// "| a | b |": the cells, with \| as part of one.
std::vector<std::string_view> cells_of(std::string_view line)
{
    std::vector<std::string_view> cells;
    for (size_t start = 1, i = 1; i < line.size(); i++) {
        if (line[i] == '|' && line[i - 1] != '\\') {
            cells.push_back(trimmed(line.substr(start, i - start)));
            start = i + 1;
        }
    }
    return cells;
}

bool is_digit(char c)
{
    return std::isdigit(static_cast<unsigned char>(c)) != 0;
}

// A conversion such as %d, %02X or %.*s at the start of format: what may stand for it.
struct conversion {
    size_t size; // of the conversion, 0 where there is none
    char letter;
};

conversion conversion_at(std::string_view format)
{
    if (!format.starts_with('%')) {
        return {0, 0};
    }
    const size_t letter = format.find_first_not_of("0123456789.*-+ #hlzjt", 1);
    return letter == std::string_view::npos ? conversion{0, 0} : conversion{letter + 1, format[letter]};
}

bool may_stand_for(char letter, std::string_view text)
{
    const auto all = [&](auto is_right) {
        return !text.empty() && std::all_of(text.begin(), text.end(), is_right);
    };
    switch (letter) {
    case '%':
        return text == "%";
    case 'c':
        return text.size() == 1;
    case 'd':
    case 'i':
    case 'u':
        text.remove_prefix(text.starts_with('-') ? 1 : 0);
        return all(is_digit);
    case 'x':
    case 'X':
        return all([](char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; });
    default:
        return true;
    }
}

size_t fixed_length(std::string_view format)
{
    size_t length = 0;
    while (!format.empty()) {
        const conversion found = conversion_at(format);
        length += found.size == 0 ? 1 : 0;
        format.remove_prefix(std::max<size_t>(found.size, 1));
    }
    return length;
}

} // namespace

std::vector<message_row> parse_message_rows(std::string_view document)
{
    std::vector<message_row> rows;
    while (!document.empty()) {
        const size_t end = std::min(document.find('\n'), document.size());
        const std::vector<std::string_view> cells = cells_of(document.substr(0, end));
        if (cells.size() == COLUMNS && cells[0].starts_with('`') && cells[0].ends_with('`')) {
            std::string format(cells[0].substr(1, cells[0].size() - 2));
            rows.push_back({std::move(format), without_markup(cells[1]), without_markup(cells[2]),
                            without_markup(cells[3]), without_markup(cells[4])});
        }
        document.remove_prefix(std::min(end + 1, document.size()));
    }
    return rows;
}

const std::vector<message_row> &known_messages()
{
    static const std::vector<message_row> rows = parse_message_rows(DOCUMENT);
    return rows;
}

logged_message parse_log_line(std::string_view line)
{
    // "... [ERROR] diag(1234) - remote:764 - packet is too small (3 bytes), ignoring"
    for (size_t start = line.find(SEPARATOR); start != std::string_view::npos;
         start = line.find(SEPARATOR, start + 1)) {
        const std::string_view rest = line.substr(start + SEPARATOR.size());
        const size_t colon = rest.find(':');
        const size_t end = rest.find(SEPARATOR);
        if (colon != std::string_view::npos && end != std::string_view::npos && colon + 1 < end &&
            std::all_of(rest.begin() + static_cast<std::ptrdiff_t>(colon) + 1,
                        rest.begin() + static_cast<std::ptrdiff_t>(end), is_digit)) {
            return {rest.substr(0, colon), trimmed(rest.substr(end + SEPARATOR.size()))};
        }
    }
    return {{}, trimmed(line)};
}

bool matches_format(std::string_view text, std::string_view format)
{
    for (; !format.empty(); text.remove_prefix(1), format.remove_prefix(1)) {
        const conversion found = conversion_at(format);
        if (found.size > 0) {
            const std::string_view rest = format.substr(found.size);
            if (rest.empty()) {
                return may_stand_for(found.letter, text);
            }
            for (size_t size = 0; size <= text.size(); size++) {
                if (may_stand_for(found.letter, text.substr(0, size)) &&
                    matches_format(text.substr(size), rest)) {
                    return true;
                }
            }
            return false;
        }
        if (text.empty() || text[0] != format[0]) {
            return false;
        }
    }
    return text.empty();
}

std::vector<const message_row *> find_messages(const std::vector<message_row> &rows,
                                               const logged_message &message)
{
    std::vector<const message_row *> found;
    size_t longest = 0;
    for (const message_row &row : rows) {
        const bool is_source =
            message.source.empty() || row.source == ANY_SOURCE || row.source == message.source;
        if (!is_source || !matches_format(message.text, row.format)) {
            continue;
        }
        const size_t length = fixed_length(row.format);
        if (length > longest) {
            found.clear();
            longest = length;
        }
        if (length == longest) {
            found.push_back(&row);
        }
    }
    return found;
}
