// diagctl replay: publishes a recording again, so that it can be looked at with every other command.
#include "broker/signals.h"
#include "commands/action.h"
#include "network/recording.h"
#include "topics.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

namespace
{

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// Answers at once where there is a daemon; nothing else tells whether there is one.
constexpr milliseconds DAEMON_ANSWER_TIME(1000);
constexpr size_t MAX_PENDING = 100; // messages on their way
// Whoever listens to these acts on them.
constexpr std::array<std::string_view, 3> NEVER_REPLAYED = {REQUEST_TOPIC, ACTIVATE_TOPIC,
                                                            REMOTE_DOWNLOAD_TOPIC};

struct {
    std::string path;
    double speed = 1;
} replay;

enum class step {
    GO_ON,
    INTERRUPTED,
    LOST,
};

step step_after(session_end end)
{
    return end == session_end::INTERRUPTED ? step::INTERRUPTED
           : end == session_end::LOST      ? step::LOST
                                           : step::GO_ON;
}

exit_status report_file(const char *problem)
{
    fprintf(stderr, "diagctl: couldn't replay %s: %s\n", replay.path.c_str(), problem);
    return STATUS_FAILURE;
}

// All of it, so that a damaged file is refused before anything is published.
exit_status read_recording(std::string &started, std::vector<recorded_message> &messages)
{
    std::ifstream file(replay.path);
    if (!file) {
        return report_file(strerror(errno));
    }
    std::string line;
    std::getline(file, line);
    const std::optional<std::string> head = parse_recording_head(line);
    if (!head) {
        return report_file("it isn't a recording of this version of diagctl");
    }
    started = *head;
    for (size_t number = 2; std::getline(file, line); number++) {
        std::optional<recorded_message> message = parse_recording_line(line);
        if (message) {
            messages.push_back(std::move(*message));
        } else if (file.eof()) {
            // Without an end: the recording was cut off while this line was written.
            fprintf(stderr, "diagctl: the last line of %s is incomplete and left out\n", replay.path.c_str());
        } else {
            return report_file(
                ("line " + std::to_string(number) + " isn't a message of a recording").c_str());
        }
    }
    return STATUS_SUCCESS;
}

exit_status refuse_daemon(const broker_address &address)
{
    std::string error;
    const uint32_t transaction = request_send("noop", error);
    std::optional<std::string> answer;
    const auto is_answered = [&] {
        answer = request_answer(transaction);
        return answer.has_value();
    };
    const session_end end =
        transaction == 0 ? session_end::LOST : session_wait(is_answered, DAEMON_ANSWER_TIME, error);
    if (end == session_end::LOST) {
        return report_lost(address, error);
    }
    if (end == session_end::DONE) {
        fprintf(stderr,
                "diagctl: a daemon runs at %s:%d, a recording would mix with what it publishes\n"
                "Start a broker for the recording, such as 'mosquitto -p 11885', and name it with --host and "
                "--port.\n",
                address.host.c_str(), address.port);
        return STATUS_FAILURE;
    }
    return end == session_end::INTERRUPTED ? STATUS_FAILURE : STATUS_SUCCESS;
}

step publish(const recorded_message &message, steady_clock::time_point due, std::string &error)
{
    const auto never = [] { return false; };
    step result = step::GO_ON;
    const auto left = std::chrono::ceil<milliseconds>(due - steady_clock::now());
    if (left.count() > 0) {
        result = step_after(session_wait(never, left, error));
    }
    if (result == step::GO_ON &&
        !session_publish(message.topic, message.payload, message.is_retained, error)) {
        result = step::LOST;
    }
    return result;
}

step deliver(std::string &error)
{
    const session_end end = session_wait(session_is_delivered, LOCAL_ANSWER_TIME, error);
    if (end == session_end::TIMEOUT) {
        error = "it doesn't acknowledge what is published";
        return step::LOST;
    }
    return step_after(end);
}

exit_status publish_all(const broker_address &address, const std::vector<recorded_message> &messages)
{
    const auto start = steady_clock::now();
    std::string error;
    step result = step::GO_ON;
    size_t published = 0;
    for (const recorded_message &message : messages) {
        if (std::find(NEVER_REPLAYED.begin(), NEVER_REPLAYED.end(), message.topic) != NEVER_REPLAYED.end()) {
            continue;
        }
        const std::chrono::duration<double> time(replay.speed > 0 ? message.time / replay.speed : 0);
        result = publish(message, start + std::chrono::duration_cast<steady_clock::duration>(time), error);
        if (result == step::GO_ON && ++published % MAX_PENDING == 0) {
            result = deliver(error);
        }
        if (result != step::GO_ON) {
            break;
        }
    }
    if (result == step::GO_ON) {
        result = deliver(error);
    }
    if (result == step::LOST) {
        return report_lost(address, error);
    }
    printf("replayed %zu messages%s\n", published, result == step::INTERRUPTED ? ", interrupted" : "");
    return STATUS_SUCCESS;
}

exit_status run_replay(const broker_address &address)
{
    std::string started;
    std::vector<recorded_message> messages;
    exit_status status = read_recording(started, messages);
    if (status != STATUS_SUCCESS) {
        return status;
    }
    if (signals_open() == -1) {
        return report_file(strerror(errno));
    }
    status = open_session(address, {}, [](std::string_view topic, std::span<const uint8_t> payload, bool) {
        request_take_answer(topic, payload);
    });
    if (status != STATUS_SUCCESS) {
        return status;
    }
    status = refuse_daemon(address);
    if (status == STATUS_SUCCESS) {
        const double time = messages.empty() ? 0 : messages.back().time;
        fprintf(stderr, "replaying %.0f s recorded from %s into %s:%d, Ctrl-C ends\n", time, started.c_str(),
                address.host.c_str(), address.port);
        status = publish_all(address, messages);
    }
    session_close();
    return status;
}

} // namespace

void add_replay_command(CLI::App &app, command_context &context)
{
    CLI::App *const command =
        add_command(app, context, "replay", "Publish a recording again, on a broker without a daemon.",
                    [&context] { return run_replay(context.address); });
    command->add_option("FILE", replay.path, "The recording")->type_name("")->required();
    command->add_option("--speed", replay.speed, "So many times as fast as recorded; 0 doesn't wait at all")
        ->type_name("FACTOR")
        ->check(CLI::Range(0.0, 1e6))
        ->capture_default_str();
}
