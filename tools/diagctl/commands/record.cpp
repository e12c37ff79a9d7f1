// diagctl record: what is published on the broker, into a file.
#include "broker/signals.h"
#include "clock.h"
#include "commands/site_events.h"
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
    std::vector<std::string> filters; // empty: the usual ones
    unsigned seconds = 0;             // 0: until a signal
};

std::vector<std::string> filters_of(const record_options &options, const std::vector<std::string> &usual)
{
    return options.filters.empty() ? usual : options.filters;
}

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

// What is recorded, of any broker.
class recording_writer
{
public:
    recording_writer(const record_options &wanted, std::vector<std::string> of_filters)
        : path(wanted.path), filters(std::move(of_filters)), file(wanted.path)
    {
        file.write(recording_head(utc_text(current_moment().wall)));
    }

    const std::vector<std::string> &wanted() const { return filters; }
    bool is_wanted(const std::string &topic) const
    {
        return std::any_of(filters.begin(), filters.end(),
                           [&](const std::string &filter) { return matches(filter, topic); });
    }
    void write(const std::string &topic, bytes payload, bool is_retained)
    {
        const std::chrono::duration<double> time =
            start ? steady_clock::now() - *start : steady_clock::duration();
        file.write(recording_line(time.count(), is_retained, topic, payload));
        (start ? messages : retained)++;
    }
    // What comes from here on takes time.
    void begin(const std::string &from)
    {
        start = steady_clock::now();
        fmt::print(stderr, "recording {} into {}, Ctrl-C ends\n", from, path);
    }
    bool has_begun() const { return start.has_value(); }
    void discard() const { remove(path.c_str()); }
    void report()
    {
        file.close();
        const auto time = std::chrono::duration_cast<std::chrono::seconds>(steady_clock::now() - *start);
        fmt::print("recorded {} retained values and {} messages in {} s\n", retained, messages, time.count());
    }

private:
    std::string path;
    std::vector<std::string> filters;
    recording_file file;
    std::optional<steady_clock::time_point> start; // none while the broker hands over what it has retained
    size_t retained = 0;
    size_t messages = 0;
};

std::chrono::milliseconds limit_of(const record_options &options)
{
    return options.seconds == 0 ? session::FOREVER : std::chrono::seconds(options.seconds);
}

class recorder
{
public:
    recorder(const context &common, const record_options &wanted)
        : options(wanted), writer(wanted, filters_of(wanted, {DIAG_FILTER, LOCAL_FILTER}))
    {
        try {
            broker.emplace(common.address(), &signals, session::retain_flags::AS_PUBLISHED);
            broker->listen([this](std::string_view topic, bytes payload, bool is_retained) {
                // The session listens to the responses by itself.
                if (const std::string text(topic); writer.is_wanted(text)) {
                    writer.write(text, payload, is_retained);
                }
                return true;
            });
            broker->subscribe(writer.wanted());
        } catch (const failure &) {
            writer.discard();
            throw;
        }
    }

    exit_status run()
    {
        writer.begin(broker->address().text());
        try {
            broker->wait([] { return false; }, limit_of(options));
        } catch (const failure &lost) {
            fmt::print(stderr, "diagctl: {}\n", lost.what());
            writer.report();
            return lost.status;
        }
        writer.report();
        return STATUS_SUCCESS;
    }

private:
    const record_options &options;
    const signal_input signals;
    recording_writer writer;
    std::optional<session> broker;
};

// Records what the brokers of a site have as one: each value once, of each card what the broker has that knows it best.
class site_recorder
{
public:
    site_recorder(const context &common, const record_options &wanted)
        : options(wanted), writer(wanted, filters_of(wanted, {DIAG_FILTER, VIEWS_FILTER})),
          retained(common.hosts.size()), told(common.hosts.size())
    {
        try {
            looked.emplace(
                common, writer.wanted(),
                [this](size_t broker, std::string_view topic, bytes payload, const site_changes &items) {
                    take(broker, std::string(topic), payload, items.is_retained);
                });
        } catch (const failure &) {
            writer.discard();
            throw;
        }
    }

    exit_status run()
    {
        const auto end = steady_clock::now() + limit_of(options);
        begin();
        for (bool is_over = false; !is_over && steady_clock::now() < end;) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - steady_clock::now());
            is_over = !looked->wait(std::min(left, LOOK));
            const auto guard = looked->lock();
            if (!compare_presence()) {
                fmt::print(stderr, "diagctl: all brokers are lost\n");
                writer.report();
                return STATUS_NO_BROKER;
            }
        }
        const auto guard = looked->lock();
        is_ended = true;
        writer.report();
        return STATUS_SUCCESS;
    }

private:
    static constexpr std::chrono::milliseconds LOOK{1000};

    // What was retained when each broker had told everything.
    void begin()
    {
        const auto guard = looked->lock();
        const site &all = looked->cards();
        for (size_t broker = 0; broker < retained.size(); broker++) {
            for (const auto &[topic, payload] : retained[broker]) {
                const std::optional<mac_address> card = site_topic_card(topic);
                if (card ? all.best(*card) == broker : broker == 0) {
                    writer.write(topic, payload, true);
                }
            }
            retained[broker].clear();
        }
        std::string from;
        for (size_t broker = 0; broker < looked->brokers().count(); broker++) {
            from += (from.empty() ? "" : ", ") + looked->brokers().address(broker).text();
        }
        compare_presence();
        writer.begin(from);
    }

    // False when no broker is there any more. Whether a card is connected is a matter of all brokers.
    bool compare_presence()
    {
        const site &all = looked->cards();
        const site_brokers &brokers = looked->brokers();
        bool is_any_there = false;
        for (size_t broker = 0; broker < brokers.count(); broker++) {
            is_any_there = is_any_there || brokers.state_of(broker) == site_brokers::state::THERE;
        }
        for (const mac_address &mac : all.cards()) {
            const std::optional<bool> is_connected = all.is_connected(mac);
            if (is_any_there && is_connected && connected[mac] != is_connected) {
                connected[mac] = is_connected;
                const std::string topic = site_bridge_topic(mac);
                if (writer.is_wanted(topic)) {
                    const uint8_t text = *is_connected ? '1' : '0';
                    writer.write(topic, {&text, 1}, true);
                }
            }
        }
        return is_any_there;
    }

    // Under the session's lock.
    void take(size_t broker, const std::string &topic, bytes payload, bool is_retained)
    {
        const std::optional<mac_address> card = site_topic_card(topic);
        if (is_ended || !writer.is_wanted(topic) || (card && topic == site_bridge_topic(*card))) {
            return;
        }
        if (!writer.has_begun()) {
            retained[broker][topic].assign(payload.begin(), payload.end());
        } else if (!is_retained &&
                   told.is_new(broker, topic + " " + std::string(as_text(payload)), steady_clock::now())) {
            // A broker that comes back tells what the other has told. Commands and answers alone aren't retained.
            writer.write(topic, payload, topic.find("/command/") == std::string::npos);
        }
    }

    const record_options &options;
    recording_writer writer;
    std::vector<std::map<std::string, std::vector<uint8_t>>>
        retained; // by broker, until the recording begins
    told_once told;
    std::map<mac_address, std::optional<bool>> connected;
    bool is_ended = false;
    std::optional<site_session> looked;
};

exit_status run_record(const context &common, const record_options &options)
{
    return common.is_site ? site_recorder(common, options).run() : recorder(common, options).run();
}

std::string check_filter(const std::string &text)
{
    return is_filter(text) ? "" : "'" + text + "' is no topic filter";
}

} // namespace

void add_record_command(command_line &line, context &common)
{
    auto [added, options] = add_command<record_options>(
        line, common, "record",
        "Record what is published on the broker, and what it has retained, until Ctrl-C.", run_record);
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
    add_site_options(added, common);
}
