#include "commands/completion.h"

#include "network/model.h"

namespace
{

constexpr const char *SCRIPT_START = R"(_diagctl() {
    local command='' word words with_value
    COMPREPLY=()
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        [[ $word == -* || -n $command ]] || command=$word
    done
    case $command in
)";
constexpr const char *SCRIPT_END = R"(    *) return 0 ;;
    esac
    [[ " $with_value " != *" ${COMP_WORDS[COMP_CWORD-1]} "* ]] || return 0
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "${COMP_WORDS[COMP_CWORD]}")
}
complete -o default -F _diagctl diagctl
)";

void append_word(std::string &words, const std::string &word)
{
    words += (words.empty() ? "" : " ") + word;
}

// The words that an argument of this name may have.
std::string argument_words(const std::string &name)
{
    if (name == "NODE") {
        return "local";
    }
    std::string words;
    if (name == "PORT") {
        for (int port = LUM_PORT_A; port <= LUM_PORT_CPU; port++) {
            append_word(words, port_text(port));
        }
    }
    return words;
}

} // namespace

std::string bash_completion(const CLI::App &app)
{
    std::string script = SCRIPT_START;
    std::string commands;
    for (const CLI::App *const command : app.get_subcommands({})) {
        std::string words;
        std::string with_value;
        for (const CLI::Option *const option : command->get_options()) {
            if (option->nonpositional()) {
                append_word(words, option->get_name());
                if (option->get_items_expected_max() > 0) {
                    append_word(with_value, option->get_name());
                }
            } else if (const std::string more = argument_words(option->get_name(true)); !more.empty()) {
                append_word(words, more);
            }
        }
        append_word(commands, command->get_name());
        script.append("    ").append(command->get_name()).append(") words='").append(words);
        script.append("' with_value='").append(with_value).append("' ;;\n");
    }
    return script + "    '') words='" + commands + " --help' with_value='' ;;\n" + SCRIPT_END;
}
