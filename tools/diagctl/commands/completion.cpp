#include "commands/completion.h"

#include "network/payloads.h"

#include <fmt/core.h>

#include <algorithm>

namespace
{

// Each script asks the program for the names of nodes, with the file that the command line names.

constexpr const char *BASH_START = R"script(_diagctl() {
    local command='' word words with_value takes_node='' names=${DIAG_NAMES-} previous=''
    COMPREPLY=()
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        [[ $word == -* || -n $command ]] || command=$word
        [[ $previous != --names ]] || names=$word
        previous=$word
    done
    case $command in
)script";
constexpr const char *BASH_END = R"script(    *) return 0 ;;
    esac
    [[ " $with_value " != *" ${COMP_WORDS[COMP_CWORD-1]} "* ]] || return 0
    [[ -z $takes_node ]] || words+=" $(DIAG_NAMES=$names "${COMP_WORDS[0]}" --list-names 2>/dev/null || true)"
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "${COMP_WORDS[COMP_CWORD]}")
}
complete -o default -F _diagctl diagctl
)script";

constexpr const char *ZSH_START = R"script(#compdef diagctl
local command='' word takes_node='' names=${DIAG_NAMES-} previous=''
local -a found with_value
for word in "${(@)words[2,CURRENT-1]}"; do
    [[ $word == -* || -n $command ]] || command=$word
    [[ $previous != --names ]] || names=$word
    previous=$word
done
case $command in
)script";
constexpr const char *ZSH_END = R"script(esac
if (( ${with_value[(Ie)${words[CURRENT-1]}]} )); then
    _files
    return
fi
[[ -z $takes_node ]] || found+=(${(f)"$(DIAG_NAMES=$names ${words[1]} --list-names 2>/dev/null)"})
_describe 'diagctl' found || _files
)script";

constexpr const char *FISH_START =
    R"script(function __diagctl_names
    set -l words (commandline -opc)
    set -l at (contains -i -- --names $words); and set -fx DIAG_NAMES $words[(math $at + 1)]
    diagctl --list-names 2>/dev/null
end
complete -c diagctl -f -n __fish_use_subcommand -l help -d 'Print the help'
complete -c diagctl -f -n __fish_use_subcommand -l version -d 'Print the version'
)script";

// The words that an argument of this name may have.
std::vector<std::string> argument_words(const std::string &name)
{
    std::vector<std::string> words;
    if (name == "NODE" || name == "PLACE" || name == "NODES" || name == "FILTER") {
        words.emplace_back("local");
    } else if (name == "PORT") {
        for (int port = LUM_PORT_A; port <= LUM_PORT_CPU; port++) {
            words.push_back(port_text(port));
        }
    } else if (name == "STATE") {
        words = {"on", "off"};
    }
    return words;
}

// Those of all arguments of a command.
std::vector<std::string> argument_words(const completed_command &command)
{
    std::vector<std::string> all;
    for (const std::string &name : command.arguments) {
        const std::vector<std::string> words = argument_words(name);
        all.insert(all.end(), words.begin(), words.end());
    }
    return all;
}

bool takes_node(const completed_command &command)
{
    const std::vector<std::string> words = argument_words(command);
    return std::find(words.begin(), words.end(), "local") != words.end();
}

// Between apostrophes.
std::string quoted(const std::string &text)
{
    std::string result = "'";
    for (const char c : text) {
        result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return result + "'";
}

void append_word(std::string &words, const std::string &word)
{
    words += (words.empty() ? "" : " ") + word;
}

// A script of the shell's own start and end, between them a case for each command: the words that may follow it, and
// those of its options that take a value.
struct case_script {
    const char *start;
    const char
        *command; // with the command's name, its words, those with a value, and whether it takes a node
    const char *no_command; // with the commands
    const char *end;
    std::string (*written)(const described_word &word);
};

std::string script_of(const case_script &shell, const std::vector<completed_command> &commands)
{
    std::string script = shell.start;
    std::string names;
    for (const completed_command &command : commands) {
        std::string words;
        std::string with_value;
        for (const std::string &word : argument_words(command)) {
            append_word(words, shell.written({word, ""}));
        }
        for (const completed_option &option : command.options) {
            append_word(words, shell.written(option.name));
            if (option.has_value) {
                append_word(with_value, option.name.word);
            }
        }
        append_word(names, shell.written({command.name, command.help}));
        script += fmt::format(fmt::runtime(shell.command), command.name, words, with_value,
                              takes_node(command) ? "1" : "''");
    }
    return script + fmt::format(fmt::runtime(shell.no_command), names) + shell.end;
}

// A word with its explanation as _describe takes them.
std::string zsh_word(const described_word &word)
{
    std::string text = word.word;
    for (size_t i = 0; (i = text.find(':', i)) != std::string::npos; i += 2) {
        text.insert(i, "\\");
    }
    return quoted(word.help.empty() ? text : text + ":" + word.help);
}

constexpr case_script BASH = {
    .start = BASH_START,
    .command = "    {}) words='{}' with_value='{}' takes_node={} ;;\n",
    .no_command = "    '') words='{} --help --version' with_value='' ;;\n",
    .end = BASH_END,
    .written = [](const described_word &word) { return word.word; },
};
constexpr case_script ZSH = {
    .start = ZSH_START,
    .command = "{}) found=({}) with_value=({}) takes_node={} ;;\n",
    .no_command = "'') found=({} --help --version) ;;\n",
    .end = ZSH_END,
    .written = zsh_word,
};

std::string fish_script(const std::vector<completed_command> &commands)
{
    std::string script = FISH_START;
    for (const completed_command &command : commands) {
        script += fmt::format("complete -c diagctl -f -n __fish_use_subcommand -a {} -d {}\n", command.name,
                              quoted(command.help));
        const std::string start =
            fmt::format("complete -c diagctl -n '__fish_seen_subcommand_from {}'", command.name);
        for (const completed_option &option : command.options) {
            const bool is_long = option.name.word.starts_with("--");
            script += fmt::format("{} {} {}{} -d {}\n", start, is_long ? "-l" : "-s",
                                  option.name.word.substr(is_long ? 2 : 1), option.has_value ? " -r" : "",
                                  quoted(option.name.help));
        }
        for (const std::string &word : argument_words(command)) {
            script += fmt::format("{} -f -a {}\n", start, quoted(word));
        }
        if (takes_node(command)) {
            script += start + " -f -a '(__diagctl_names)'\n";
        }
    }
    return script;
}

} // namespace

std::string completion_script(const std::string &shell, const std::vector<completed_command> &commands)
{
    return shell == "bash"  ? script_of(BASH, commands)
           : shell == "zsh" ? script_of(ZSH, commands)
                            : fish_script(commands);
}
