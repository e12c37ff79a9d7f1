// diagctl explain: what messages of the daemon's log mean. Talks to no broker.
#include "commands/context.h"
#include "explain/messages.h"
#include "network/json.h"

#include <fmt/core.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <iostream>
#include <set>

namespace
{

struct explain_options {
    std::vector<std::string> words;
    bool is_json = false;
};

void print_json(const std::string &line, const std::vector<const message_row *> &rows)
{
    json object = {{"line", line}, {"explanations", json::array()}};
    for (const message_row *row : rows) {
        object["explanations"].push_back({{"message", row->format},
                                          {"source", row->source},
                                          {"cause", row->cause},
                                          {"effect", row->effect},
                                          {"cure", row->cure}});
    }
    puts(json_text(object).c_str());
}

// The line as it is, with what it means below.
void print_text(const std::string &line, const std::vector<const message_row *> &rows,
                std::set<const message_row *> &explained)
{
    fmt::print("{}\n", line);
    for (const message_row *row : rows) {
        const char *const from = rows.size() > 1 ? "from    " : nullptr;
        if (from != nullptr) {
            fmt::print("    {}{}\n", from, row->source);
        }
        if (!explained.insert(row).second) {
            fmt::print("    (explained above)\n");
        } else {
            fmt::print("    cause   {}\n    effect  {}\n    cure    {}\n", row->cause, row->effect,
                       row->cure);
        }
    }
}

exit_status run_explain(const explain_options &options)
{
    std::set<const message_row *> explained;
    const auto explain = [&](const std::string &line) {
        const auto rows = find_messages(known_messages(), parse_log_line(line));
        if (options.is_json) {
            print_json(line, rows);
        } else {
            print_text(line, rows, explained);
        }
        return !rows.empty();
    };
    if (options.words.empty()) {
        for (std::string line; std::getline(std::cin, line);) {
            explain(line);
        }
        return STATUS_SUCCESS;
    }
    std::string message;
    for (const std::string &word : options.words) {
        message += (message.empty() ? "" : " ") + word;
    }
    if (!explain(message)) {
        throw failure(STATUS_FAILURE,
                      "the daemon has no such message: give the whole line, or its text behind ' - '");
    }
    return STATUS_SUCCESS;
}

} // namespace

void add_explain_command(command_line &line, context &common)
{
    auto [added, options] = add_command<explain_options>(
        line, common, "explain",
        "Tell cause, effect and cure of a message of the daemon's log, or of every line of a log on standard "
        "input.",
        [](const context &, const explain_options &given) { return run_explain(given); });
    added.words(
        {.name = "MESSAGE", .help = "A line of the log, or its text; without, standard input is read"},
        options->words);
    add_json_option(added, options->is_json, "Print one JSON object a line");
}
