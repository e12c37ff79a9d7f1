#include "commands/action.h"

#include "broker/challenge.h"
#include "broker/signals.h"
#include "topics.h"

#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <random>

namespace
{

using std::chrono::duration_cast;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr seconds PATIENCE(1); // no node is waited for longer where all is well
constexpr int POLL_TIME_MS = 1000;

struct reason_help {
    const char *reason; // how it begins
    const char *help;
};
constexpr reason_help REASONS[] = {
    {"unknown command",
     "This card's daemon doesn't know the command: it is of another version than diagctl."},
    {"internal error",
     "The daemon couldn't do it; the card's system log says why. For another node, most often: the "
     "node's address on the fire network isn't known."},
    {"invalid input", "The daemon doesn't understand the request: it is of another version than diagctl."},
    {"invalid period value", "A period is a number of seconds from 0 to 65535."},
    {"invalid port identifier", "Use a port from A to H."},
    {"authentication failure", "The words don't answer the challenge. Is --words the table that this card's "
                               "daemon was built with? Another "
                               "client may also have answered the same challenge first: then try again."},
    {"node list is too large", "Name fewer nodes: one command reaches 99 cards at most."},
    {"client has no subscriptions", "The daemon has no subscription of this client: has it been restarted?"},
    {"can't reach remote node",
     "The node hasn't acknowledged for 10 s. Is it running, and connected to the fire network?"},
    {"failed nodes:",
     "No summary of these nodes has come, their address on the fire network isn't known, or they "
     "haven't acknowledged for 10 s. The other nodes have done it."},
};

struct {
    uint32_t client = 0; // drawn with the first request
    uint32_t last_transaction = 0;
    std::map<uint32_t, std::optional<std::string>> answers; // by transaction, of those not yet fetched
} requests;

std::string_view as_text(std::span<const uint8_t> payload)
{
    return {reinterpret_cast<const char *>(payload.data()), payload.size()};
}

void show_waiting(const std::string &what, seconds waited)
{
    const bool is_terminal = isatty(STDERR_FILENO) == 1;
    fprintf(stderr,
            is_terminal ? "\rdiagctl: waiting for %s: %lld s\033[K" : "diagctl: waiting for %s: %lld s\n",
            what.c_str(), static_cast<long long>(waited.count()));
}

void clear_waiting()
{
    if (isatty(STDERR_FILENO) == 1) {
        fputs("\r\033[K", stderr);
    }
}

exit_status report_no_answer(const broker_address &address, seconds waited)
{
    fprintf(stderr,
            "diagctl: no daemon has answered at %s:%d for %lld s\n"
            "Is diag running on that card, and may this client publish to %s?\n",
            address.host.c_str(), address.port, static_cast<long long>(waited.count()), REQUEST_TOPIC);
    return STATUS_NO_BROKER;
}

exit_status report_interrupted()
{
    fputs("diagctl: interrupted; the daemon may carry the command out all the same\n", stderr);
    return STATUS_FAILURE;
}

} // namespace

exit_status open_action(const broker_address &address, action_state &state, message_handler listen)
{
    const auto take = [&state, listen = std::move(listen)](
                          std::string_view topic, std::span<const uint8_t> payload, bool is_retained) {
        if (request_take_answer(topic, payload)) {
            return;
        }
        if (topic == CHALLENGE_TOPIC) {
            state.challenge = as_text(payload);
        }
        if (listen) {
            listen(topic, payload, is_retained);
        } else {
            network_apply(state.net, topic, payload, is_retained, current_moment());
        }
    };
    const exit_status opened =
        open_session(address, {LOCAL_NODE_TOPIC, NODE_TOPICS_FILTER, LISTS_FILTER, CHALLENGE_TOPIC}, take);
    if (opened == STATUS_SUCCESS && !state.net.local.is_published) {
        session_close();
        return report_no_daemon(address);
    }
    return opened;
}

bool request_take_answer(std::string_view topic, std::span<const uint8_t> payload)
{
    if (topic != RESPONSE_TOPIC) {
        return false;
    }
    const std::string_view text = as_text(payload);
    for (auto &[transaction, answer] : requests.answers) {
        const std::string start = std::to_string(requests.client) + ";" + std::to_string(transaction) + ";";
        if (!text.starts_with(start)) {
            continue;
        }
        const std::string_view result = text.substr(start.size());
        if (result == "ACK") {
            answer = "";
        } else if (result.starts_with("NACK")) {
            answer = result.size() > 5 ? result.substr(5) : "no reason given";
        }
        return true;
    }
    return false;
}

uint32_t request_send(const std::string &command, std::string &error)
{
    if (requests.client == 0) {
        std::random_device random;
        requests.client = std::uniform_int_distribution<uint32_t>(1)(random);
    }
    const uint32_t transaction = ++requests.last_transaction;
    const std::string text =
        std::to_string(requests.client) + ";" + std::to_string(transaction) + ";" + command;
    requests.answers[transaction] = std::nullopt;
    return session_publish(REQUEST_TOPIC, {reinterpret_cast<const uint8_t *>(text.data()), text.size()},
                           false, error)
               ? transaction
               : 0;
}

std::optional<std::string> request_answer(uint32_t transaction)
{
    const auto found = requests.answers.find(transaction);
    if (found == requests.answers.end() || !found->second) {
        return {};
    }
    return std::move(requests.answers.extract(found).mapped());
}

void request_forget(uint32_t transaction)
{
    requests.answers.erase(transaction);
}

exit_status request_run(const broker_address &address, const request &sent, bool *was_interrupted)
{
    std::string error;
    const uint32_t transaction = request_send(sent.command, error);
    if (transaction == 0) {
        return report_lost(address, error);
    }
    std::optional<std::string> answer;
    const auto start = steady_clock::now();
    seconds shown = PATIENCE;
    const auto is_answered = [&] {
        const seconds waited = duration_cast<seconds>(steady_clock::now() - start);
        if (!sent.waiting_for.empty() && waited > shown) {
            show_waiting(sent.waiting_for, waited);
            shown = waited;
        }
        answer = request_answer(transaction);
        return answer.has_value();
    };
    session_end end = session_wait(is_answered, sent.limit, error);
    if (end == session_end::INTERRUPTED && was_interrupted != nullptr) {
        *was_interrupted = true;
    }
    if (end == session_end::INTERRUPTED && sent.is_answer_needed_anyway) {
        fputs("diagctl: ending as soon as the node has answered or is given up; Ctrl-C again ends at once\n",
              stderr);
        const auto waited = duration_cast<std::chrono::milliseconds>(steady_clock::now() - start);
        end = session_wait(is_answered, sent.limit - waited, error);
    }
    if (shown > PATIENCE) {
        clear_waiting();
    }
    switch (end) {
    case session_end::DONE:
        return answer->empty() ? STATUS_SUCCESS : report_refused(*answer);
    case session_end::TIMEOUT:
        return report_no_answer(address, sent.limit);
    case session_end::INTERRUPTED:
        return report_interrupted();
    default:
        return report_lost(address, error);
    }
}

exit_status report_refused(const std::string &reason)
{
    fprintf(stderr, "diagctl: the daemon refuses: %s\n", reason.c_str());
    for (const reason_help &known : REASONS) {
        if (reason.starts_with(known.reason)) {
            fprintf(stderr, "%s\n", known.help);
        }
    }
    return STATUS_FAILURE;
}

exit_status confirm(const broker_address &address, const std::string &question, bool is_assumed)
{
    if (is_assumed) {
        return STATUS_SUCCESS;
    }
    printf("%s [y/N] ", question.c_str());
    fflush(stdout);
    std::string answer;
    std::string error;
    for (bool is_open = true; is_open && answer.find('\n') == std::string::npos;) {
        pollfd fds[] = {{session_socket(), session_events(), 0}, {STDIN_FILENO, POLLIN, 0}};
        if (poll(fds, std::size(fds), POLL_TIME_MS) == -1) {
            continue;
        }
        if (!session_serve(fds[0].revents, error)) {
            puts("");
            return report_lost(address, error);
        }
        char text[64];
        if (fds[1].revents != 0) {
            const ssize_t length = read(STDIN_FILENO, text, sizeof text);
            is_open = length > 0;
            answer.append(text, is_open ? static_cast<size_t>(length) : 0);
        }
    }
    if (answer == "y\n" || answer == "Y\n" || answer == "yes\n") {
        return STATUS_SUCCESS;
    }
    fputs("diagctl: not confirmed, nothing done; --yes does without asking\n", stderr);
    return STATUS_FAILURE;
}

void add_yes_option(CLI::App &command, bool &is_yes)
{
    command.add_flag("-y,--yes", is_yes, "Act without asking");
}
