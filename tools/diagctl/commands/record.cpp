// diagctl record: what is published on the broker, into a file.
#include "broker/signals.h"
#include "clock.h"
#include "commands/context.h"
#include "network/json.h"
#include "network/recording.h"
#include "topics.h"

#include <fmt/core.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace
{

using std::chrono::steady_clock;

struct record_options {
    std::string path;
    std::vector<std::string> filters = {DIAG_FILTER, LOCAL_FILTER};
    unsigned seconds = 0; // 0: until a signal
};

[[noreturn]] void report_file(const std::string &path, const char *what)
{
    throw failure(STATUS_FAILURE, fmt::format("couldn't {} {}: {}", what, path, strerror(errno)));
}

// The file that a recording goes to. A recording can't be made again: none is ever overwritten.
class recording_file
{
public:
    explicit recording_file(const std::string &wanted)
        : path(wanted), file(fopen(wanted.c_str(), "wxe"), fclose)
    {
        if (file == nullptr) {
            report_file(path, "create");
        }
    }
    // Each line reaches the file at once, so that whatever ends the recording leaves all of it.
    void write(const std::string &line)
    {
        if (fprintf(file.get(), "%s\n", line.c_str()) < 0 || fflush(file.get()) != 0) {
            report_file(path, "write");
        }
    }
    void close()
    {
        if (fclose(file.release()) != 0) {
            report_file(path, "write");
        }
    }

private:
    std::string path;
    std::unique_ptr<FILE, int (*)(FILE *)> file;
};

class recorder
{
public:
    recorder(const context &common, const record_options &wanted) : options(wanted), file(wanted.path)
    {
        file.write(recording_head(utc_text(current_moment().wall)));
        try {
            broker.emplace(common.address(), &signals, session::retain_flags::AS_PUBLISHED);
            broker->listen([this](std::string_view topic, bytes payload, bool is_retained) {
                take(std::string(topic), payload, is_retained);
                return true;
            });
            broker->subscribe(options.filters);
        } catch (const failure &) {
            remove(options.path.c_str());
            throw;
        }
    }

    exit_status run()
    {
        start = steady_clock::now();
        fmt::print(stderr, "recording {} into {}, Ctrl-C ends\n", broker->address().text(), options.path);
        const std::chrono::milliseconds limit =
            options.seconds == 0 ? session::FOREVER : std::chrono::seconds(options.seconds);
        try {
            broker->wait([] { return false; }, limit);
        } catch (const failure &lost) {
            fmt::print(stderr, "diagctl: {}\n", lost.what());
            report();
            return lost.status;
        }
        report();
        return STATUS_SUCCESS;
    }

private:
    void take(const std::string &topic, bytes payload, bool is_retained)
    {
        // The session listens to the responses by itself.
        if (std::any_of(options.filters.begin(), options.filters.end(),
                        [&](const std::string &filter) { return matches(filter, topic); })) {
            const std::chrono::duration<double> time =
                start ? steady_clock::now() - *start : steady_clock::duration();
            file.write(recording_line(time.count(), is_retained, topic, payload));
            (start ? messages : retained)++;
        }
    }

    void report()
    {
        file.close();
        const auto time = std::chrono::duration_cast<std::chrono::seconds>(steady_clock::now() - *start);
        fmt::print("recorded {} retained values and {} messages in {} s\n", retained, messages, time.count());
    }

    const record_options &options;
    const signal_input signals;
    recording_file file;
    std::optional<steady_clock::time_point> start; // none while the broker hands over what it has retained
    size_t retained = 0;
    size_t messages = 0;
    std::optional<session> broker;
};

std::string check_filter(const std::string &text)
{
    return is_filter(text) ? "" : "'" + text + "' is no topic filter";
}

} // namespace

void add_record_command(command_line &line, context &common)
{
    auto [added, options] = add_command<record_options>(
        line, common, "record",
        "Record what is published on the broker, and what it has retained, until Ctrl-C.",
        [](const context &known, const record_options &given) { return recorder(known, given).run(); });
    added.text({.name = "FILE", .help = "The file to create", .is_required = true}, options->path);
    added.texts({.name = "--filter",
                 .help = "Only topics that match this MQTT filter; several may be given",
                 .value = "FILTER",
                 .check = check_filter},
                options->filters);
    added.number(
        {.name = "--duration", .help = "End by itself after so many seconds; 0: don't", .value = "SECONDS"},
        options->seconds, 0, 31536000);
    add_broker_options(added, common);
}
