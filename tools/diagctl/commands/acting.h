// What the commands that act have in common: a session that knows the network and the daemon's challenge, and
// the question before something is changed.
#pragma once

#include "broker/requests.h"
#include "commands/context.h"

class acting
{
public:
    // Takes in the network; throws when no daemon has announced itself. listen is called for every message,
    // after the model has taken it in, with what it has changed.
    using listener =
        std::function<void(std::string_view topic, bytes payload, bool is_retained, const changes &items)>;
    explicit acting(const context &common, const signal_input *signals = nullptr, listener listen = {});

    const network &net() const { return model; }
    const std::string &challenge() const { return last_challenge; } // in force; empty while there is none
    session &broker() { return connection; }
    requests &daemon() { return asked; }

    // Asks on standard output and reads the answer from standard input, while the session is served. Throws
    // unless it is yes, or is_assumed.
    void confirm(const std::string &question, bool is_assumed);

private:
    network model;
    std::string last_challenge;
    session connection;
    requests asked;
};

void add_yes_option(command &added, bool &is_yes);

// activate and remote-download change the state of whole nodes, named by number, and have to answer the
// daemon's challenge.
struct guarded_options {
    std::vector<std::string> nodes; // as the user wrote them
    std::string secrets_file;
    bool is_yes = false;
};

void add_guarded_options(command &added, context &common, guarded_options &options);

// The whole of such a command: request_start is the request up to the node list, such as "activate;".
// question and done are completed with the nodes.
exit_status run_guarded(const context &common, const guarded_options &options,
                        const std::string &request_start, const std::string &question,
                        const std::string &done);
