// Commands to the card's daemon with their answers, under a client id that is drawn anew for each session.
#pragma once

#include "broker/session.h"

#include <map>
#include <optional>

constexpr std::chrono::seconds LOCAL_ANSWER_TIME(5);
// A node that doesn't answer is given up after 10 s.
constexpr std::chrono::seconds REMOTE_ANSWER_TIME(15);

struct request {
    std::string command; // such as "noop"
    std::chrono::seconds limit = LOCAL_ANSWER_TIME;
    std::string waiting_for = {}; // shown with the seconds that it takes, when it takes more than a second
    bool is_answer_needed_anyway = false; // the first signal doesn't end the wait, only the second
};

class requests
{
public:
    // Before the session's other handlers: they don't get the answers. Lives as long as the session is
    // served.
    explicit requests(session &broker_session);

    // Sends a command; the transaction's number.
    uint32_t send(const std::string &command);
    // The answer, once: "" for ACK, else the reason. Empty while it hasn't come.
    std::optional<std::string> answer(uint32_t transaction);
    // Gives an answer up that hasn't come.
    void forget(uint32_t transaction) { answers.erase(transaction); }

    // Sends and waits for an ACK; anything else throws what went wrong, and what to do. True when a signal
    // came meanwhile.
    bool run(const request &sent);

private:
    bool take_answer(std::string_view text);
    wait_end await(const request &sent, uint32_t transaction, std::optional<std::string> &found,
                   bool &was_interrupted);

    session &broker;
    uint32_t client;
    uint32_t last_transaction = 0;
    std::map<uint32_t, std::optional<std::string>> answers; // by transaction, of those not yet fetched
};
