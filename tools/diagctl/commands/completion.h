// Completion for shells, from the program's own commands and options.
#pragma once

#include <string>
#include <vector>

struct described_word {
    std::string word;
    std::string help;
};

struct completed_option {
    described_word name;
    bool has_value;
};

struct completed_command {
    std::string name;
    std::string help;
    std::vector<std::string> arguments; // names of the positional ones
    std::vector<completed_option> options;
};

constexpr const char *COMPLETION_SHELLS[] = {"bash", "zsh", "fish"};

// A script that completes the commands, their options, the words that arguments may have, and the names of
// nodes.
std::string completion_script(const std::string &shell, const std::vector<completed_command> &commands);
