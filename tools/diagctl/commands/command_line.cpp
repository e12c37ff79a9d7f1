#include "commands/command_line.h"

#include "commands/completion.h"
#include "screen/terminal.h"

#include <CLI/CLI.hpp>
#include <fmt/core.h>

#include <algorithm>
#include <cstdio>
#include <numeric>
#include <utility>

namespace
{

std::vector<described_word> words_of(const CLI::Option &option)
{
    std::vector<described_word> words;
    for (const std::string &name : option.get_snames()) {
        words.push_back({"-" + name, option.get_description()});
    }
    for (const std::string &name : option.get_lnames()) {
        words.push_back({"--" + name, option.get_description()});
    }
    return words;
}

completed_command described(const CLI::App &command)
{
    completed_command result = {command.get_name(), command.get_description(), {}, {}};
    for (const CLI::Option *const option : command.get_options()) {
        if (!option->nonpositional()) {
            result.arguments.push_back(option->get_name(true));
            continue;
        }
        for (const described_word &word : words_of(*option)) {
            result.options.push_back({word, option->get_items_expected_max() > 0});
        }
    }
    return result;
}

// Help that keeps to the width of the terminal.
class help_format : public CLI::Formatter
{
public:
    help_format() { label("SUBCOMMAND", "COMMAND"); }

    std::string make_option(const CLI::Option *option, bool is_positional) const override
    {
        std::string name = make_option_name(option, is_positional);
        std::string text = option->get_description();
        if (!is_positional && !option->get_type_name().empty()) {
            name += " " + option->get_type_name();
        }
        if (!option->get_default_str().empty()) {
            text += "; default " + option->get_default_str();
        }
        if (!option->get_envname().empty()) {
            text += " ($" + option->get_envname() + ")";
        }
        return row(name, text);
    }
    std::string make_subcommand(const CLI::App *command) const override
    {
        return row(command->get_name(), command->get_description());
    }
    std::string make_description(const CLI::App *app) const override
    {
        return text_of(plain(app->get_description()));
    }

private:
    static std::string text_of(screen_line line)
    {
        std::string text;
        for (const screen_line &part : wrap(std::move(line), current_terminal_size().width)) {
            for (const styled_text &words : part) {
                text += words.text;
            }
            text += "\n";
        }
        return text;
    }
    static std::string row(const std::string &name, const std::string &text)
    {
        constexpr size_t WORDS = 26;
        screen_line line = plain("  " + name);
        const bool is_alone = length_of(line) + 2 > WORDS;
        if (is_alone) {
            line = plain("");
        }
        pad(line, WORDS);
        line.push_back({text_style::PLAIN, text});
        return (is_alone ? "  " + name + "\n" : "") + text_of(std::move(line));
    }
};

// How many characters have to be put in, left out or replaced.
size_t distance(std::string_view from, std::string_view to)
{
    std::vector<size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), 0);
    for (size_t i = 0; i < from.size(); i++) {
        size_t diagonal = std::exchange(row[0], i + 1);
        for (size_t j = 0; j < to.size(); j++) {
            const size_t replaced = diagonal + (from[i] == to[j] ? 0U : 1U);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, row[j + 1] + 1});
        }
    }
    return row.back();
}

} // namespace

void command::describe(CLI::Option &option, const parameter &wanted)
{
    option.type_name(wanted.value)->required(wanted.is_required);
    if (wanted.environment != nullptr) {
        option.envname(wanted.environment);
    }
    if (wanted.excluded != nullptr) {
        option.excludes(wanted.excluded);
    }
    if (wanted.needed != nullptr) {
        option.needs(wanted.needed);
    }
    if (wanted.check) {
        option.check(wanted.check);
    }
}

void command::flag(const parameter &wanted, bool &value)
{
    CLI::Option &option = *app.add_flag(wanted.name, value, wanted.help);
    if (wanted.excluded != nullptr) {
        option.excludes(wanted.excluded);
    }
}

void command::text(const parameter &wanted, std::string &value)
{
    CLI::Option &option = *app.add_option(wanted.name, value, wanted.help);
    describe(option, wanted);
    if (!value.empty()) {
        option.capture_default_str();
    }
}

void command::texts(const parameter &wanted, std::vector<std::string> &value)
{
    CLI::Option &option = *app.add_option(wanted.name, value, wanted.help);
    describe(option, wanted);
    option.allow_extra_args(false)->default_str(CLI::detail::join(value, " "));
}

void command::list(const parameter &wanted, std::vector<std::string> &value)
{
    CLI::Option &option = *app.add_option(wanted.name, value, wanted.help);
    describe(option, wanted);
    option.delimiter(',');
}

void command::words(const parameter &wanted, std::vector<std::string> &value)
{
    describe(*app.add_option(wanted.name, value, wanted.help), wanted);
}

template <typename T>
void command::ranged(const parameter &wanted, T &value, T min, T max)
{
    CLI::Option &option = *app.add_option(wanted.name, value, wanted.help);
    describe(option, wanted);
    // CLI::Range would take nan.
    const auto check = [min, max](const std::string &word) {
        T number{};
        const bool is_within = CLI::detail::lexical_cast(word, number) && min <= number && number <= max;
        return is_within ? "" : fmt::format("Value {} not in range {} to {}", word, min, max);
    };
    option.check(check)->capture_default_str();
}

void command::number(const parameter &wanted, unsigned &value, unsigned min, unsigned max)
{
    ranged(wanted, value, min, max);
}

void command::number(const parameter &wanted, int &value, int min, int max)
{
    ranged(wanted, value, min, max);
}

void command::number(const parameter &wanted, double &value, double min, double max)
{
    ranged(wanted, value, min, max);
}

void command::choice(const parameter &wanted, const std::vector<std::string> &words, unsigned &value)
{
    const auto take = [words, &value](const std::string &word) {
        value = static_cast<unsigned>(std::find(words.begin(), words.end(), word) - words.begin());
    };
    CLI::Option &option = *app.add_option_function<std::string>(wanted.name, take, wanted.help);
    describe(option, wanted);
    option.check(CLI::IsMember(words).description(""));
}

void command::exit_status_help(const char *text)
{
    app.footer(text);
}

command_line::command_line(const char *program, const char *description)
    : app(std::make_unique<CLI::App>(description, program))
{
    app->require_subcommand(1);
    app->formatter(std::make_shared<help_format>());
    app->footer("Exit status: 0 success, 1 refused or failed, 2 wrong usage, 3 no broker or no answer.");
}

command_line::~command_line() = default;

command command_line::add(const char *name, const char *description, std::function<exit_status()> run)
{
    CLI::App &added = *app->add_subcommand(name, description);
    added.group(group);
    added.callback([this, run = std::move(run)] { chosen = run; });
    return command(added);
}

void command_line::print_option(const char *name, const char *help, const std::vector<std::string> &words,
                                std::function<std::string(const std::string &)> text)
{
    const auto print = [text = std::move(text)](const std::string &value) {
        fputs(text(value).c_str(), stdout);
        throw CLI::Success();
    };
    CLI::Option &option =
        words.empty()
            ? *app->add_flag_callback(
                  name, [print] { print(""); }, help)
            : *app->add_option_function<std::string>(name, print, help)->check(CLI::IsMember(words));
    option.group(*help == '\0' ? "" : "Options"); // without help: for the installation
}

// The library takes a word that is no command for one that is too many.
void command_line::check_command(std::string_view word) const
{
    const std::vector<CLI::App *> all = app->get_subcommands([](const CLI::App *) { return true; });
    const CLI::App *nearest = nullptr;
    // From here on words are different ones.
    size_t nearest_distance = std::min<size_t>(word.size() / 2 + 1, 3);
    for (const CLI::App *const known : all) {
        const std::string name = known->get_name();
        if (name == word) {
            return;
        }
        const size_t found = name.starts_with(word) ? 0 : distance(word, name);
        if (found < nearest_distance) {
            nearest = known;
            nearest_distance = found;
        }
    }
    throw failure(STATUS_USAGE,
                  "'" + std::string(word) + "' is no command\n" +
                      (nearest == nullptr ? "Run 'diagctl --help' for those that there are."
                                          : "Did you mean 'diagctl " + nearest->get_name() + "'?"));
}

exit_status command_line::run(int argc, char **argv)
{
    std::vector<const char *> words(argv, argv + argc);
    if (argc > 1 && argv[1] == std::string_view("help")) {
        words.erase(words.begin() + 1);
        words.push_back("--help");
    }
    if (words.size() == 1) {
        throw failure(STATUS_USAGE, "no command is given\nRun 'diagctl --help' for those that there are.");
    }
    if (words[1][0] != '-') {
        check_command(words[1]);
    }
    try {
        app->parse(static_cast<int>(words.size()), words.data());
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() == 0) {
            app->exit(error);
            return STATUS_SUCCESS;
        }
        const std::vector<CLI::App *> given = app->get_subcommands();
        throw failure(STATUS_USAGE, std::string(error.what()) + "\nRun 'diagctl " +
                                        (given.empty() ? "" : given[0]->get_name() + " ") +
                                        "--help' for more information.");
    }
    return chosen();
}

std::string command_line::completion(const std::string &shell) const
{
    std::vector<completed_command> commands;
    for (const CLI::App *const added : app->get_subcommands({})) {
        commands.push_back(described(*added));
    }
    return completion_script(shell, commands);
}
