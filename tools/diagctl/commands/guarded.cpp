#include "commands/guarded.h"

#include "broker/challenge.h"
#include "topics.h"

#include <cstdio>

namespace
{

// The number that a reference stands for: the daemon takes numbers only. An error on standard error where that isn't
// known, or where the number would reach other cards as well.
std::optional<uint8_t> number_of(const network &net, const std::string &text)
{
    const std::optional<node_reference> reference = parse_node_reference(text);
    if (reference && reference->number) {
        return reference->number;
    }
    const node *const found = resolve_node(net, text);
    if (found == nullptr) {
        return {};
    }
    if (!found->number) {
        fprintf(stderr,
                "diagctl: the number of node %s isn't known here: give the number, this command takes it\n",
                text.c_str());
        return {};
    }
    const std::vector<const node *> sharing = find_nodes(net, {false, {}, found->number});
    if (sharing.size() > 1) {
        fprintf(stderr, "diagctl: node %s can't be reached alone, these cards share its number %u:\n",
                text.c_str(), *found->number);
        for (const node *candidate : sharing) {
            fprintf(stderr, "  %s\n", mac_text(candidate->mac).c_str());
        }
        fprintf(stderr, "Give the number where all of them are meant.\n");
        return {};
    }
    return found->number;
}

// The numbers in decimal, as the request has them; empty when one of the nodes can't be reached.
std::string node_list(const network &net, const std::vector<std::string> &nodes)
{
    std::string list;
    for (const std::string &text : nodes) {
        const std::optional<uint8_t> number = number_of(net, text);
        if (!number) {
            return "";
        }
        list += (list.empty() ? "" : " ") + std::to_string(*number);
    }
    return list;
}

exit_status act(const broker_address &address, const guarded_options &options, const action_state &state,
                const word_table &words, const std::string &request_start, const std::string &question,
                const std::string &done)
{
    const std::string list = node_list(state.net, options.nodes);
    if (list.empty()) {
        return STATUS_FAILURE;
    }
    const std::string nodes = (list.find(' ') == std::string::npos ? "node " : "nodes ") + list;
    exit_status status =
        confirm(address, question + " " + nodes + ", every card that has such a number?", options.is_yes);
    if (status != STATUS_SUCCESS) {
        return status;
    }
    // Only now: another client may have used the challenge up in the meantime.
    const std::optional<std::string> response = challenge_response(state.challenge, words);
    if (!response) {
        fprintf(stderr,
                state.challenge.empty() ? "diagctl: no challenge on the broker at %s:%d: %s is missing\n"
                                          "Is diag running on that card?\n"
                                        : "diagctl: the challenge on the broker at %s:%d is malformed: %s\n",
                address.host.c_str(), address.port,
                state.challenge.empty() ? CHALLENGE_TOPIC : state.challenge.c_str());
        return state.challenge.empty() ? STATUS_NO_BROKER : STATUS_FAILURE;
    }
    status = request_run(address, {.command = request_start + list + ";" + *response,
                                   .limit = REMOTE_ANSWER_TIME,
                                   .waiting_for = nodes});
    if (status == STATUS_SUCCESS) {
        printf("%s %s\n", done.c_str(), nodes.c_str());
    }
    return status;
}

std::string check_node(const std::string &text)
{
    return parse_node_reference(text)
               ? ""
               : "'" + text + "' is no node: use a node number from 1 to 255, a MAC address, or local";
}

} // namespace

void add_guarded_options(CLI::App &command, guarded_options &options)
{
    command.add_option("NODES", options.nodes, "Node numbers; every card that has one of them is meant")
        ->type_name("")
        ->delimiter(',')
        ->check(check_node)
        ->required();
    command.add_option("--words", options.words_file, "The word table that answers the daemon's challenge")
        ->type_name("FILE")
        ->envname("DIAG_WORDS")
        ->required();
    add_yes_option(command, options.is_yes);
}

exit_status guarded_run(const broker_address &address, const guarded_options &options,
                        const std::string &request_start, const std::string &question,
                        const std::string &done)
{
    std::string error;
    const std::optional<word_table> words = read_words(options.words_file, error);
    if (!words) {
        fprintf(stderr, "diagctl: %s is no word table: %s\n", options.words_file.c_str(), error.c_str());
        return STATUS_FAILURE;
    }
    action_state state;
    exit_status status = open_action(address, state);
    if (status == STATUS_SUCCESS) {
        status = act(address, options, state, *words, request_start, question, done);
        session_close();
    }
    return status;
}
