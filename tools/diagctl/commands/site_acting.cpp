// The commands that act, with --site: each card is commanded through its own topics at the site.
#include "commands/site_session.h"
#include "screen/site_reports.h"
#include "topics.h"

#include <fmt/core.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include <cstdio>
#include <random>

namespace
{

using std::chrono::steady_clock;

constexpr const char *CARD_TOPIC_FORMAT = "cards/{}/{}"; // MAC, the card's own topic
constexpr std::chrono::seconds ANSWER_TIME(5);
constexpr std::chrono::milliseconds LOOK(100);

struct card_answer {
    std::string text; // empty: none
    std::chrono::duration<double, std::milli> taken{};
};

// The same command to several cards, and their answers.
class site_command
{
public:
    explicit site_command(const context &common)
        : client(std::random_device{}()),
          session(common, {}, [this](size_t, std::string_view topic, bytes payload, const site_changes &) {
              take(topic, as_text(payload));
          })
    {
    }

    site_session &looked() { return session; }

    // Gives the command to each card at the broker that knows it best: given at both, it would be carried out twice.
    std::map<mac_address, card_answer> run(const std::map<mac_address, std::string> &commands)
    {
        {
            const auto guard = session.lock();
            start = steady_clock::now();
            for (const auto &[mac, command] : commands) {
                topics[fmt::format(CARD_TOPIC_FORMAT, mac_text(mac), RESPONSE_TOPIC)] = mac;
                session.brokers().publish(session.cards().best(mac),
                                          fmt::format(CARD_TOPIC_FORMAT, mac_text(mac), REQUEST_TOPIC),
                                          fmt::format("{};1;{}", client, command));
            }
        }
        while (steady_clock::now() - start < ANSWER_TIME) {
            if (!session.wait(LOOK)) {
                throw failure(STATUS_FAILURE, "interrupted; cards may carry the command out all the same");
            }
            const auto guard = session.lock();
            if (answers.size() == commands.size()) {
                break;
            }
        }
        const auto guard = session.lock();
        return answers;
    }

private:
    void take(std::string_view topic, std::string_view text)
    {
        const auto found = topics.find(topic);
        const std::string head = fmt::format("{};1;", client);
        if (found != topics.end() && text.starts_with(head)) {
            answers.try_emplace(found->second, card_answer{std::string(text.substr(head.size())),
                                                           steady_clock::now() - start});
        }
    }

    uint32_t client;
    steady_clock::time_point start{};
    std::map<std::string, mac_address, std::less<>> topics; // of answers
    std::map<mac_address, card_answer> answers;
    site_session session;
};

void confirm(const std::string &question)
{
    fmt::print("{} [y/N] ", question);
    fflush(stdout);
    char answer[8] = "";
    if (fgets(answer, sizeof answer, stdin) == nullptr || (answer[0] != 'y' && answer[0] != 'Y')) {
        throw failure(STATUS_FAILURE, "not confirmed, nothing done; --yes does without asking");
    }
}

} // namespace

exit_status site_ping(const context &common, const std::string &node, bool is_json)
{
    site_command command(common);
    site_session &looked = command.looked();
    std::map<mac_address, std::string> asked;
    if (!node.empty()) {
        asked[looked.resolve(node)] = "noop";
    } else {
        const auto guard = looked.lock();
        for (const mac_address &mac : looked.cards().cards()) {
            if (looked.cards().is_connected(mac).value_or(true)) {
                asked[mac] = "noop";
            }
        }
    }
    const std::map<mac_address, card_answer> answers = command.run(asked);
    const auto guard = looked.lock();
    for (const auto &[mac, text] : asked) {
        const auto found = answers.find(mac);
        const bool is_answered = found != answers.end();
        if (is_json) {
            json object = {{"mac", mac_text(mac)}};
            object["answer_ms"] = is_answered ? json(found->second.taken.count()) : json();
            puts(json_text(object).c_str());
        } else if (is_answered) {
            fmt::print("card {} has answered in {:.1f} ms\n", node_text(looked.cards().net(mac), mac),
                       found->second.taken.count());
        } else {
            fmt::print("card {} has not answered for {} s\n", node_text(looked.cards().net(mac), mac),
                       ANSWER_TIME.count());
        }
    }
    if (answers.size() < asked.size()) {
        throw failure(STATUS_NO_BROKER, fmt::format("{} of {} cards have not answered\n"
                                                    "Does diag run there, and may this user command cards?",
                                                    asked.size() - answers.size(), asked.size()));
    }
    return STATUS_SUCCESS;
}

exit_status site_reset(const context &common, const std::string &node, int port, bool is_yes)
{
    site_command command(common);
    const mac_address mac = command.looked().resolve(node);
    const std::string what = fmt::format("port {} of card {}", port_text(port), mac_text(mac));
    if (!is_yes) {
        confirm(fmt::format("Reset the statistics of {}, and delete its performance records?", what));
    }
    const auto answers =
        command.run({{mac, fmt::format("reset-stats;{};{}", mac_text(mac), port_text(port))}});
    const auto found = answers.find(mac);
    if (found == answers.end()) {
        throw failure(STATUS_NO_BROKER, fmt::format("card {} has not answered for {} s\n"
                                                    "Does diag run there, and may this user command cards?",
                                                    mac_text(mac), ANSWER_TIME.count()));
    }
    if (found->second.text != "ACK") {
        throw failure(STATUS_FAILURE, "the card refuses: " + printable(found->second.text));
    }
    fmt::print("the statistics of {} have been reset\n", what);
    return STATUS_SUCCESS;
}
