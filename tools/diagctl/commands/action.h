// What the acting commands have in common: a session that knows the network and the daemon's challenge, commands to
// the daemon with their answers, and the question before something is changed.
#pragma once

#include "commands/command.h"

#include <chrono>

constexpr std::chrono::seconds LOCAL_ANSWER_TIME(5);
// A node that doesn't answer is given up after 10 s.
constexpr std::chrono::seconds REMOTE_ANSWER_TIME(15);

// The network as the broker tells it, and the challenge in force, empty while there is none; kept up to date while the
// session is served.
struct action_state {
    network net;
    std::string challenge;
};

// Opens the session and takes in the network; on failure says why on standard error. listen is called for every
// message that isn't an answer and may be empty.
exit_status open_action(const broker_address &address, action_state &state, message_handler listen = {});

// Passes a message of a session of one's own on; true when it is an answer to a command of this process.
bool request_take_answer(std::string_view topic, std::span<const uint8_t> payload);

// Sends a command such as "noop" to the daemon, under a client id that this process has drawn. The transaction's
// number, 0 with the reason in error.
uint32_t request_send(const std::string &command, std::string &error);

// The answer, once: "" for ACK, else the reason. Empty while it hasn't come.
std::optional<std::string> request_answer(uint32_t transaction);

// Gives an answer up that hasn't come.
void request_forget(uint32_t transaction);

struct request {
    std::string command;
    std::chrono::seconds limit = LOCAL_ANSWER_TIME;
    std::string waiting_for = {}; // shown with the seconds that it takes, when it takes more than a second
    bool is_answer_needed_anyway = false; // the first signal doesn't end the wait, only the second
};

// Sends it and waits for the answer. STATUS_SUCCESS for ACK; otherwise what went wrong, and what to do, has been said
// on standard error. was_interrupted, where given, tells that a signal came.
exit_status request_run(const broker_address &address, const request &sent, bool *was_interrupted = nullptr);

// Says what the reason of a NACK means and what to do.
exit_status report_refused(const std::string &reason);

// Asks on standard output and reads the answer from standard input, while the session is served. STATUS_SUCCESS for
// yes, or without asking where is_assumed.
exit_status confirm(const broker_address &address, const std::string &question, bool is_assumed);

// Adds --yes.
void add_yes_option(CLI::App &command, bool &is_yes);
