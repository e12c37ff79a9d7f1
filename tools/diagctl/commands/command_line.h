// The command line: what the commands and their options are called, and what the library that reads them is
// told. That library is known here alone.
#pragma once

#include "failure.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace CLI
{
class App;
class Option;
} // namespace CLI

// What is wrong with a value; nothing where it is right.
using value_check = std::function<std::string(const std::string &)>;

struct parameter {
    const char *name; // "--sort", "-y,--yes" or, of a word that stands for itself, "NODE"
    const char *help;
    const char *value = ""; // what the help writes for the value of an option
    bool is_required = false;
    const char *environment = nullptr; // variable that counts where the option isn't given
    const char *excluded = nullptr;    // option that can't stand beside it
    const char *needed = nullptr;      // parameter without which it can't stand
    value_check check = {};
};

class command
{
public:
    explicit command(CLI::App &added) : app(added) {}

    void flag(const parameter &wanted, bool &value);
    void text(const parameter &wanted, std::string &value);
    // Several may be given; those that stand in value count where none is.
    void texts(const parameter &wanted, std::vector<std::string> &value);
    // Separated by blanks or commas.
    void list(const parameter &wanted, std::vector<std::string> &value);
    // All words that are left.
    void words(const parameter &wanted, std::vector<std::string> &value);
    void number(const parameter &wanted, unsigned &value, unsigned min, unsigned max);
    void number(const parameter &wanted, int &value, int min, int max);
    void number(const parameter &wanted, double &value, double min, double max);
    // One of the words; value is its place among them.
    void choice(const parameter &wanted, const std::vector<std::string> &words, unsigned &value);

    // What the help says of the exit status, where it isn't that of the other commands.
    void exit_status_help(const char *text);

private:
    void describe(CLI::Option &option, const parameter &wanted);
    template <typename T>
    void ranged(const parameter &wanted, T &value, T min, T max);

    CLI::App &app;
};

class command_line
{
public:
    command_line(const char *program, const char *description);
    ~command_line();
    command_line(const command_line &) = delete;
    command_line &operator=(const command_line &) = delete;

    // The commands that are added from here on stand under this title in the help.
    void start_group(const char *title) { group = title; }
    // Adds a command; run is called for the command that was given.
    command add(const char *name, const char *description, std::function<exit_status()> run);
    // An option that prints a text instead of running a command; value is what the user wrote behind it,
    // where it takes one of words.
    void print_option(const char *name, const char *help, const std::vector<std::string> &words,
                      std::function<std::string(const std::string &value)> text);

    // Throws STATUS_USAGE when the command line is wrong.
    exit_status run(int argc, char **argv);
    // Whether the command line was right, so that a command has run.
    bool has_run() const { return chosen != nullptr; }

    // A script that completes the commands, their options and the words that arguments may have; empty for an
    // unknown shell.
    std::string completion(const std::string &shell) const;

private:
    void check_command(std::string_view word) const;

    std::unique_ptr<CLI::App> app;
    std::string group;
    std::function<exit_status()> chosen;
};
