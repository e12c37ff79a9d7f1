// diagctl export --pm: performance records for databases, each once.
#include "clock.h"
#include "commands/exporting.h"
#include "commands/site_session.h"
#include "export/history.h"
#include "topics.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace
{

namespace fs = std::filesystem;

std::string records_filter()
{
    return std::string(DIAG_PREFIX) + "+/+/" + std::string(PM_PREFIX) + "+";
}

history collect(const context &common)
{
    if (common.is_site) {
        site_session looked(common, {records_filter()});
        const auto guard = looked.lock();
        return site_history(looked.cards());
    }
    network net = named_network(common);
    session broker(common.address());
    feed(broker, net);
    broker.subscribe({records_filter()});
    return card_history(net);
}

void leave_out(history &records, const std::function<bool(const record_series &, int64_t)> &is_left_out)
{
    for (auto &of_kind : records) {
        for (auto &entry : of_kind) {
            std::erase_if(entry.second.records,
                          [&](const auto &item) { return is_left_out(entry.second.series, item.first); });
        }
    }
}

// A database takes a sample of the future for the newest one, and what comes until then for too old.
void leave_out_by_age(history &records, unsigned min_age_hours)
{
    using std::chrono::system_clock;
    const int64_t now = system_clock::to_time_t(system_clock::now());
    const int64_t newest = now - std::chrono::seconds(std::chrono::hours(min_age_hours)).count();
    size_t future = 0;
    std::optional<mac_address> card;
    leave_out(records, [&](const record_series &series, int64_t time) {
        if (time > now) {
            future++;
            card = series.mac;
        }
        return time > newest || time <= 0;
    });
    if (card) {
        fmt::print(stderr,
                   "diagctl: {} record{} of the future left out: does the clock of card {} run ahead?\n",
                   future, future == 1 ? "" : "s", mac_text(*card));
    }
}

[[noreturn]] void report_file(const char *what, const fs::path &path, const std::string &problem)
{
    throw failure(STATUS_FAILURE, fmt::format("couldn't {} {}: {}", what, path.string(), problem));
}

// A descriptor that is closed.
class descriptor
{
public:
    descriptor(const fs::path &path, int flags) : fd(open(path.c_str(), flags | O_CLOEXEC))
    {
        if (fd == -1) {
            report_file("open", path, strerror(errno));
        }
    }
    ~descriptor() { close(fd); }
    descriptor(const descriptor &) = delete;
    descriptor &operator=(const descriptor &) = delete;
    int get() const { return fd; }

private:
    int fd;
};

// Takes the place of a file, whole or not at all, whenever the power fails.
class replacement
{
public:
    explicit replacement(const fs::path &replaced)
        : path(replaced), written(replaced.string() + ".new"), file(fopen(written.c_str(), "we"), fclose)
    {
        if (file == nullptr) {
            report_file("write", written, strerror(errno));
        }
    }
    void write(std::string_view text)
    {
        if (fwrite(text.data(), 1, text.size(), file.get()) != text.size()) {
            report_file("write", written, strerror(errno));
        }
    }
    void finish()
    {
        if (fflush(file.get()) != 0 || fsync(fileno(file.get())) != 0 || fclose(file.release()) != 0 ||
            rename(written.c_str(), path.c_str()) != 0) {
            report_file("write", written, strerror(errno));
        }
    }

private:
    fs::path path;
    fs::path written;
    std::unique_ptr<FILE, int (*)(FILE *)> file;
};

// Calls read with a file's content; false where there is none.
bool read_file(const fs::path &path, const std::function<void(std::istream &)> &read)
{
    std::ifstream file(path);
    if (!file) {
        if (errno != ENOENT) {
            report_file("read", path, strerror(errno));
        }
        return false;
    }
    try {
        read(file);
    } catch (const bad_history &error) {
        report_file(
            "read", path,
            fmt::format("{}\nNothing has been changed. Without that file what it has doesn't count as "
                        "written.",
                        error.what()));
    }
    return true;
}

// What has been written is known from the file, as long as it is there, and from another beside it, which goes second: when the
// power fails between the two, the next run finds the file.
exit_status add_to_file(history &records, const std::string &name)
{
    const fs::path path = fs::weakly_canonical(fs::absolute(name));
    if (fs::exists(path) && !fs::is_regular_file(path)) {
        report_file("add to", path, "it is no regular file");
    }
    const fs::path state = path.string() + ".state";
    const descriptor directory(path.parent_path(), O_RDONLY | O_DIRECTORY);
    flock(directory.get(), LOCK_EX); // another run waits

    written_records written;
    read_file(state, [&](std::istream &file) { written = written_records::parse(file); });
    const bool is_there = read_file(path, [&](std::istream &file) { note_history(file, written); });
    const size_t all = record_count(records);
    const history found = records;
    leave_out(records, [&](const record_series &series, int64_t time) { return written.has(series, time); });
    const size_t added = record_count(records);
    for (const auto &of_kind : found) {
        for (const auto &[labels, series] : of_kind) {
            for (const auto &[time, record] : series.records) {
                written.note(series.series, time);
            }
        }
    }
    if (added > 0 || !is_there) {
        replacement file(path);
        std::ifstream before(path);
        write_history(records, is_there ? &before : nullptr,
                      [&](std::string_view line) { file.write(line); });
        file.finish();
    }
    replacement state_file(state);
    state_file.write(written.text());
    state_file.finish();
    fsync(directory.get());
    fmt::print(stderr, "diagctl: {} records added to {}, {} had been written before\n", added, name,
               all - added);
    return STATUS_SUCCESS;
}

} // namespace

exit_status export_history(const context &common, const history_options &options)
{
    history records = collect(common);
    leave_out_by_age(records, options.min_age_hours);
    if (options.path != "-") {
        return add_to_file(records, options.path);
    }
    write_history(records, nullptr,
                  [](std::string_view line) { fwrite(line.data(), 1, line.size(), stdout); });
    return fflush(stdout) == 0 ? STATUS_SUCCESS : STATUS_FAILURE;
}
