// diagctl record: what is published on the broker, into a file.
#include "broker/signals.h"
#include "commands/command.h"
#include "network/recording.h"
#include "screen/text.h"
#include "topics.h"

#include <mosquitto.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace
{

using std::chrono::steady_clock;

struct {
    std::string path;
    std::vector<std::string> filters = {DIAG_FILTER, LOCAL_FILTER};
    unsigned seconds = 0; // 0: until a signal
    FILE *file = nullptr;
    bool is_running = false; // false while the broker hands over what it has retained
    bool is_failed = false;
    steady_clock::time_point start;
    size_t retained = 0;
    size_t messages = 0;
} record;

void write_line(const std::string &line)
{
    // Each line reaches the file at once, so that whatever ends the recording leaves all of it.
    if (fprintf(record.file, "%s\n", line.c_str()) < 0 || fflush(record.file) != 0) {
        record.is_failed = true;
    }
}

void take_message(std::string_view topic, std::span<const uint8_t> payload, bool is_retained)
{
    // The session listens to the responses by itself.
    bool is_wanted = false;
    for (const std::string &filter : record.filters) {
        bool is_match = false;
        is_wanted = is_wanted || (mosquitto_topic_matches_sub(filter.c_str(), std::string(topic).c_str(),
                                                              &is_match) == MOSQ_ERR_SUCCESS &&
                                  is_match);
    }
    if (!is_wanted || record.is_failed) {
        return;
    }
    const std::chrono::duration<double> time = steady_clock::now() - record.start;
    write_line(recording_line(record.is_running ? time.count() : 0, is_retained, topic, payload));
    (record.is_running ? record.messages : record.retained)++;
}

exit_status report_file(const char *what)
{
    fprintf(stderr, "diagctl: couldn't %s %s: %s\n", what, record.path.c_str(), strerror(errno));
    return STATUS_FAILURE;
}

exit_status record_messages(const broker_address &address)
{
    record.is_running = true;
    record.start = steady_clock::now();
    fprintf(stderr, "recording %s:%d into %s, Ctrl-C ends\n", address.host.c_str(), address.port,
            record.path.c_str());
    std::string error;
    const auto limit = record.seconds == 0 ? std::chrono::seconds(std::chrono::years(10))
                                           : std::chrono::seconds(record.seconds);
    const session_end end = session_wait([] { return record.is_failed; }, limit, error);
    if (end == session_end::LOST) {
        report_lost(address, error);
    }
    if (record.is_failed) {
        return report_file("write");
    }
    printf("recorded %zu retained values and %zu messages in %lld s\n", record.retained, record.messages,
           static_cast<long long>(
               std::chrono::duration_cast<std::chrono::seconds>(steady_clock::now() - record.start).count()));
    return end == session_end::LOST ? STATUS_NO_BROKER : STATUS_SUCCESS;
}

exit_status run_record(const broker_address &address)
{
    if (signals_open() == -1) {
        return report_file("watch for signals for");
    }
    // A recording can't be made again: none is ever overwritten.
    record.file = fopen(record.path.c_str(), "wxe");
    if (record.file == nullptr) {
        return report_file("create");
    }
    write_line(recording_head(utc_text(std::chrono::system_clock::now())));
    session_keep_retain_flags();
    exit_status status = open_session(address, record.filters, take_message);
    if (status == STATUS_SUCCESS) {
        status = record_messages(address);
        session_close();
    } else {
        remove(record.path.c_str());
    }
    if (fclose(record.file) != 0 && status == STATUS_SUCCESS) {
        status = report_file("write");
    }
    return status;
}

std::string check_filter(const std::string &text)
{
    return mosquitto_sub_topic_check(text.c_str()) == MOSQ_ERR_SUCCESS ? ""
                                                                       : "'" + text + "' is no topic filter";
}

} // namespace

void add_record_command(CLI::App &app, command_context &context)
{
    CLI::App *const command =
        add_command(app, context, "record",
                    "Record what is published on the broker, and what it has retained, until Ctrl-C.",
                    [&context] { return run_record(context.address); });
    command->add_option("FILE", record.path, "The file to create")->type_name("")->required();
    command
        ->add_option("--filter", record.filters,
                     "Only topics that match this MQTT filter; several may be given")
        ->type_name("FILTER")
        ->check(check_filter)
        ->allow_extra_args(false)
        ->capture_default_str();
    command->add_option("--duration", record.seconds, "End by itself after so many seconds")
        ->type_name("SECONDS")
        ->check(CLI::Range(1U, 31536000U));
}
