// diagctl replay: publishes a recording again, so that it can be looked at with every other command.
#include "broker/requests.h"
#include "broker/signals.h"
#include "commands/context.h"
#include "commands/recording_file.h"
#include "topics.h"

#include <fmt/core.h>

#include <algorithm>
#include <cstdio>

namespace
{

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// Answers at once where there is a daemon; nothing else tells whether there is one.
constexpr milliseconds DAEMON_ANSWER_TIME(1000);
constexpr size_t MAX_PENDING = 100; // messages on their way
// Whoever listens to these acts on them; at a site they stand behind cards/<MAC>/.
constexpr std::string_view NEVER_REPLAYED[] = {REQUEST_TOPIC, ACTIVATE_TOPIC, REMOTE_DOWNLOAD_TOPIC};

struct replay_options {
    std::string path;
    double speed = 1;
};

// False when a signal came.
bool refuse_daemon(session &broker, requests &asked)
{
    broker.subscribe({});
    const uint32_t transaction = asked.send("noop");
    const wait_end end =
        broker.wait([&] { return asked.answer(transaction).has_value(); }, DAEMON_ANSWER_TIME);
    if (end == wait_end::DONE) {
        throw failure(
            STATUS_FAILURE,
            fmt::format("a daemon runs at {}, a recording would mix with what it publishes\n"
                        "Start a broker for the recording, such as 'mosquitto -p 11885', and name it with "
                        "--host and --port.",
                        broker.address().text()));
    }
    return end != wait_end::INTERRUPTED;
}

// Waits until what is on its way has been acknowledged; false when a signal came.
bool deliver(session &broker)
{
    const wait_end end = broker.wait([&] { return broker.is_delivered(); }, LOCAL_ANSWER_TIME);
    if (end == wait_end::TIMEOUT) {
        broker.report_lost("it doesn't acknowledge what is published");
    }
    return end == wait_end::DONE;
}

// The number of messages that have been published before the end, or a signal.
size_t publish_all(session &broker, const std::vector<recorded_message> &messages, double speed,
                   bool &is_interrupted)
{
    const auto start = steady_clock::now();
    size_t published = 0;
    for (const recorded_message &message : messages) {
        const std::chrono::duration<double> time(speed > 0 ? message.time / speed : 0);
        const auto due = start + std::chrono::duration_cast<steady_clock::duration>(time);
        const auto left = std::chrono::ceil<milliseconds>(due - steady_clock::now());
        is_interrupted = left.count() > 0 && broker.wait([] { return false; }, left) == wait_end::INTERRUPTED;
        if (!is_interrupted) {
            broker.publish(message.topic, message.payload, message.is_retained);
            is_interrupted = ++published % MAX_PENDING == 0 && !deliver(broker);
        }
        if (is_interrupted) {
            return published;
        }
    }
    is_interrupted = !deliver(broker);
    return published;
}

exit_status run_replay(const context &common, const replay_options &options)
{
    recording recorded = read_recording(options.path);
    std::erase_if(recorded.messages, [](const recorded_message &message) {
        return std::any_of(std::begin(NEVER_REPLAYED), std::end(NEVER_REPLAYED),
                           [topic = std::string_view(message.topic)](std::string_view never) {
                               return topic.ends_with(never);
                           });
    });
    const signal_input signals;
    session broker(common.address(), &signals);
    requests asked(broker);
    if (!refuse_daemon(broker, asked)) {
        return STATUS_FAILURE;
    }
    fmt::print(stderr, "replaying {:.0f} s recorded from {} into {}, Ctrl-C ends\n", recorded.duration(),
               printable(recorded.start_text), common.address().text());
    bool is_interrupted = false;
    const size_t published = publish_all(broker, recorded.messages, options.speed, is_interrupted);
    fmt::print("replayed {} messages{}\n", published, is_interrupted ? ", interrupted" : "");
    return STATUS_SUCCESS;
}

} // namespace

void add_replay_command(command_line &line, context &common)
{
    auto [added, options] = add_command<replay_options>(
        line, common, "replay", "Publish a recording again, on a broker without a daemon.", run_replay);
    added.text({.name = "FILE", .help = "The recording", .is_required = true}, options->path);
    added.number({.name = "--speed",
                  .help = "So many times as fast as recorded; 0 doesn't wait at all",
                  .value = "FACTOR"},
                 options->speed, 0.0, 1e6);
    add_broker_options(added, common);
}
