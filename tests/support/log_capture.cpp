#include "log_capture.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace
{

std::vector<log_line> lines;

// The file that gathers the lines of all tests, open before any test takes the process's descriptors away. Not
// by open(), which belongs to the simulated platform.
int open_seen_messages()
{
    const char *const path = getenv("DIAG_SEEN_MESSAGES");
    return path == nullptr ? -1 : openat(AT_FDCWD, path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
}
const int seen_messages_fd = open_seen_messages();

[[gnu::format(printf, 2, 0)]] void keep_line(int priority, const char *format, va_list arguments)
{
    char *text = nullptr;
    if (vasprintf(&text, format, arguments) < 0) {
        abort();
    }
    lines.push_back({priority, text});
    free(text);
    if (seen_messages_fd != -1) {
        const std::string line = lines.back().text + '\n';
        if (write(seen_messages_fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
            abort();
        }
    }
}

} // namespace

// The linker sends every call of syslog here; with fortified headers calls go to __syslog_chk instead.
extern "C" {
[[gnu::format(printf, 2, 3)]] void __wrap_syslog(int priority, const char *format, ...);
[[gnu::format(printf, 3, 4)]] void __wrap___syslog_chk(int priority, int flag, const char *format, ...);

void __wrap_syslog(int priority, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    keep_line(priority, format, arguments);
    va_end(arguments);
}

void __wrap___syslog_chk(int priority, int, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    keep_line(priority, format, arguments);
    va_end(arguments);
}
}

const std::vector<log_line> &logged_lines()
{
    return lines;
}

void clear_log()
{
    lines.clear();
}

log_messages logged_messages()
{
    log_messages messages;
    for (const log_line &line : lines) {
        // "[ERROR] diag(1234) - broker:87 - text"
        size_t start = 0;
        for (int separators = 0; separators < 2; separators++) {
            start = line.text.find(" - ", start);
            if (start == std::string::npos) {
                abort();
            }
            start += 3;
        }
        messages.push_back(line.text.substr(start));
    }
    return messages;
}
