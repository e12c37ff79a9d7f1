#include "commands/acting.h"

#include "broker/words.h"
#include "clock.h"
#include "screen/terminal.h"
#include "topics.h"

#include <fmt/core.h>
#include <unistd.h>

#include <cstdio>

namespace
{

// The number that a reference stands for: the daemon takes numbers only. Throws where that isn't known, or where the number
// would reach other cards as well.
uint8_t number_of(const network &net, const std::string &text)
{
    const node_reference reference = parse_node(text, net.names);
    if (reference.number) {
        return *reference.number;
    }
    const node &found = resolve_node(net, text);
    if (!found.number) {
        throw failure(
            STATUS_FAILURE,
            fmt::format("the number of node {} isn't known here: give the number, this command takes it",
                        text));
    }
    const std::vector<const node *> sharing = find_nodes(net, {.number = found.number});
    if (sharing.size() > 1) {
        std::string reason = fmt::format(
            "node {} can't be reached alone, these cards share its number {}:", text, *found.number);
        for (const node *candidate : sharing) {
            reason += "\n  " + node_text(net, candidate->mac);
        }
        throw failure(STATUS_FAILURE, reason + "\nGive the number where all of them are meant.");
    }
    return *found.number;
}

// In decimal, as the request has them.
std::string number_list(const network &net, const std::vector<std::string> &nodes)
{
    std::string list;
    for (const std::string &text : nodes) {
        list += fmt::format("{}{}", list.empty() ? "" : " ", number_of(net, text));
    }
    return list;
}

std::string response_of(const acting &card, const broker_address &address, const word_table &words)
{
    if (card.challenge().empty()) {
        throw failure(STATUS_NO_BROKER, fmt::format("no challenge on the broker at {}: {} is missing\n"
                                                    "Is diag running on that card?",
                                                    address.text(), CHALLENGE_TOPIC));
    }
    const std::optional<std::string> response = challenge_response(card.challenge(), words);
    if (!response) {
        throw failure(STATUS_FAILURE, fmt::format("the challenge on the broker at {} is malformed: {}",
                                                  address.text(), printable(card.challenge())));
    }
    return *response;
}

} // namespace

acting::acting(const context &common, const signal_input *signals, listener listen)
    : model(named_network(common)), connection(common.address(), signals), asked(connection)
{
    connection.listen(
        [this, listen = std::move(listen)](std::string_view topic, bytes payload, bool is_retained) {
            if (topic == CHALLENGE_TOPIC) {
                last_challenge = as_text(payload);
            }
            const changes items = network_apply(model, topic, payload, is_retained, current_moment(),
                                                listen ? change_detail::RECORDS : change_detail::NETWORK);
            if (listen) {
                listen(topic, payload, is_retained, items);
            }
            return true;
        });
    connection.subscribe({LOCAL_NODE_TOPIC, NODE_TOPICS_FILTER, LISTS_FILTER, CHALLENGE_TOPIC});
    if (!model.local.is_published) {
        report_no_daemon(common.address());
    }
}

void acting::confirm(const std::string &question, bool is_assumed)
{
    if (is_assumed) {
        return;
    }
    fmt::print("{} [y/N] ", terminal_text(question, STDOUT_FILENO));
    fflush(stdout);
    std::string answer;
    bool is_open = true;
    wait_input keyboard = {STDIN_FILENO, [&] {
                               char text[64];
                               const ssize_t length = read(STDIN_FILENO, text, sizeof text);
                               is_open = length > 0;
                               answer.append(text, is_open ? static_cast<size_t>(length) : 0);
                           }};
    connection.wait([&] { return !is_open || answer.find('\n') != std::string::npos; }, session::FOREVER,
                    {&keyboard, 1});
    if (answer != "y\n" && answer != "Y\n" && answer != "yes\n") {
        throw failure(STATUS_FAILURE, "not confirmed, nothing done; --yes does without asking");
    }
}

void add_yes_option(command &added, bool &is_yes)
{
    added.flag({.name = "-y,--yes", .help = "Act without asking"}, is_yes);
}

void add_guarded_options(command &added, context &common, guarded_options &options)
{
    added.list({.name = "NODES",
                .help = "Node numbers; every card that has one of them is meant",
                .is_required = true},
               options.nodes);
    added.text({.name = "--secrets,--words",
                .help = "The word table that answers the daemon's challenge",
                .value = "FILE",
                .environment = "DIAG_WORDS"},
               options.secrets_file);
    add_yes_option(added, options.is_yes);
    add_broker_options(added, common);
}

exit_status run_guarded(const context &common, const guarded_options &options,
                        const std::string &request_start, const std::string &question,
                        const std::string &done)
{
    const word_table words = find_words(options.secrets_file);
    acting card(common);
    const std::string list = number_list(card.net(), options.nodes);
    const std::string nodes = (list.find(' ') == std::string::npos ? "node " : "nodes ") + list;
    card.confirm(fmt::format("{} {}, every card that has such a number?", question, nodes), options.is_yes);
    // Only now: another client may have used the challenge up in the meantime.
    card.daemon().run(
        {.command = fmt::format("{}{};{}", request_start, list, response_of(card, common.address(), words)),
         .limit = REMOTE_ANSWER_TIME,
         .waiting_for = nodes});
    fmt::print("{} {}\n", done, nodes);
    return STATUS_SUCCESS;
}
