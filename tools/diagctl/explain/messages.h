// What the daemon's messages mean: the tables of docs/troubleshooting.md, which the build puts into the
// program.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct message_row {
    std::string format; // with printf's conversions
    std::string source; // as a log line names it, or "any"
    std::string cause;
    std::string effect;
    std::string cure;
};

// The rows of the tables whose columns are message, source, cause, then and cure, without their markup.
std::vector<message_row> parse_message_rows(std::string_view document);
const std::vector<message_row> &known_messages();

// What a line of the log says: the text, and its source where it stands before it.
struct logged_message {
    std::string_view source; // empty in a bare text
    std::string_view text;
};
logged_message parse_log_line(std::string_view line);

// Whether text could be what printf makes of the format.
bool matches_format(std::string_view text, std::string_view format);

// The rows that explain a message: of its source, or of every source that could have logged it where that
// isn't known. Of several that fit, those with the longest fixed text.
std::vector<const message_row *> find_messages(const std::vector<message_row> &rows,
                                               const logged_message &message);
