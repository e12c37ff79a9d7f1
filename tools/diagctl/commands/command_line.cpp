#include "commands/command_line.h"

#include "commands/completion.h"

#include <CLI/CLI.hpp>

#include <cstdio>

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
    option.allow_extra_args(false)->capture_default_str();
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
    option.check(CLI::Range(min, max).description(""))->capture_default_str();
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

command_line::command_line(const char *program, const char *description)
    : app(std::make_unique<CLI::App>(description, program))
{
    app->require_subcommand(1);
    app->footer("Exit status: 0 success, 1 refused or failed, 2 wrong usage, 3 no broker or no answer.");
}

command_line::~command_line() = default;

command command_line::add(const char *name, const char *description, std::function<exit_status()> run)
{
    CLI::App &added = *app->add_subcommand(name, description);
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

exit_status command_line::run(int argc, char **argv)
{
    try {
        app->parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app->exit(error) == 0 ? STATUS_SUCCESS : STATUS_USAGE;
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
