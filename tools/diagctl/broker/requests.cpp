#include "broker/requests.h"

#include "topics.h"

#include <fmt/core.h>
#include <unistd.h>

#include <cstdio>
#include <random>

namespace
{

using std::chrono::duration_cast;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr seconds PATIENCE(1); // no node is waited for longer where all is well

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
    {"authentication failure",
     "The words don't answer the challenge. Is --secrets the table that this card's "
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

// The seconds that a wait takes, on standard error: one line that goes on on a terminal.
class waiting_line
{
public:
    explicit waiting_line(const std::string &awaited) : what(awaited) {}
    ~waiting_line()
    {
        if (shown > PATIENCE && is_terminal) {
            fputs("\r\033[K", stderr);
        }
    }
    waiting_line(const waiting_line &) = delete;
    waiting_line &operator=(const waiting_line &) = delete;

    void show(seconds waited)
    {
        if (!what.empty() && waited > shown) {
            shown = waited;
            fmt::print(stderr, "{}diagctl: waiting for {}: {} s{}", is_terminal ? "\r" : "", what,
                       waited.count(), is_terminal ? "\033[K" : "\n");
        }
    }

private:
    const std::string &what;
    const bool is_terminal = isatty(STDERR_FILENO) == 1;
    seconds shown = PATIENCE;
};

[[noreturn]] void report_refused(const std::string &reason)
{
    std::string text = "the daemon refuses: " + reason;
    for (const reason_help &known : REASONS) {
        if (reason.starts_with(known.reason)) {
            text.append("\n").append(known.help);
        }
    }
    throw failure(STATUS_FAILURE, text);
}

uint32_t draw_client()
{
    std::random_device random;
    return std::uniform_int_distribution<uint32_t>(1)(random);
}

} // namespace

requests::requests(session &broker_session) : broker(broker_session), client(draw_client())
{
    broker.listen([this](std::string_view topic, std::span<const uint8_t> payload, bool) {
        return topic == RESPONSE_TOPIC &&
               take_answer({reinterpret_cast<const char *>(payload.data()), payload.size()});
    });
}

bool requests::take_answer(std::string_view text)
{
    for (auto &[transaction, answer] : answers) {
        const std::string start = fmt::format("{};{};", client, transaction);
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

uint32_t requests::send(const std::string &command)
{
    const uint32_t transaction = ++last_transaction;
    const std::string text = fmt::format("{};{};{}", client, transaction, command);
    answers[transaction] = std::nullopt;
    broker.publish(REQUEST_TOPIC, {reinterpret_cast<const uint8_t *>(text.data()), text.size()}, false);
    return transaction;
}

std::optional<std::string> requests::answer(uint32_t transaction)
{
    const auto found = answers.find(transaction);
    if (found == answers.end() || !found->second) {
        return {};
    }
    return std::move(answers.extract(found).mapped());
}

wait_end requests::await(const request &sent, uint32_t transaction, std::optional<std::string> &found,
                         bool &was_interrupted)
{
    const auto start = steady_clock::now();
    waiting_line line(sent.waiting_for);
    const auto is_answered = [&] {
        line.show(duration_cast<seconds>(steady_clock::now() - start));
        found = answer(transaction);
        return found.has_value();
    };
    const wait_end end = broker.wait(is_answered, sent.limit);
    was_interrupted = end == wait_end::INTERRUPTED;
    if (!was_interrupted || !sent.is_answer_needed_anyway) {
        return end;
    }
    fputs("diagctl: ending as soon as the node has answered or is given up; Ctrl-C again ends at once\n",
          stderr);
    return broker.wait(is_answered,
                       sent.limit - duration_cast<std::chrono::milliseconds>(steady_clock::now() - start));
}

bool requests::run(const request &sent)
{
    bool was_interrupted = false;
    std::optional<std::string> found;
    switch (await(sent, send(sent.command), found, was_interrupted)) {
    case wait_end::TIMEOUT:
        throw failure(STATUS_NO_BROKER,
                      fmt::format("no daemon has answered at {} for {} s\n"
                                  "Is diag running on that card, and may this client publish to {}?",
                                  broker.address().text(), sent.limit.count(), REQUEST_TOPIC));
    case wait_end::INTERRUPTED:
        throw failure(STATUS_FAILURE, "interrupted; the daemon may carry the command out all the same");
    case wait_end::DONE:
        break;
    }
    if (!found->empty()) {
        report_refused(*found);
    }
    return was_interrupted;
}
