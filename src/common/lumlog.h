// The platform's logging library. A line in syslog reads
//
//     [ERROR] diag(1234) - remote:NNN - packet is too small (3 bytes), ignoring
//
// level name, component, process id, source file, line, text. Each component has a threshold, at first 3
// (error); the file that the environment variable LUMLOG_RC names changes it with lines KEY.level, '#'
// starting a comment:
//
//     LUMLOG_DIAG.debug
#pragma once

// Levels are syslog's priorities; only 2, 3, 6 and 7 can be logged at.
constexpr int LUMLOG_ERROR = 3;

// The components whose messages this program logs.
enum lumlog_facility {
    LUMLOG_LUMLOG = 3,
    LUMLOG_HWINFO = 6,
    LUMLOG_DIAG = 17,
    LUMLOG_FACILITIES = 21,
};

// Formats like printf and hands the line to syslog when the component's threshold lets the level pass. The
// first call of the process reads the rc file. A level or facility that does not exist is itself reported.
[[gnu::format(printf, 5, 6)]] void lumlog(int level, int facility, const char *file, int line,
                                          const char *format, ...);

// Sets every threshold to level and notes the process id; lumlog calls it on its first use.
void lumlog_init(int level);

// The next usable line of the rc file, split at its dots: 0 with key and value set, pointing into a buffer
// that lives until the next call; -1 when there is no file or no line left, the file being closed then.
[[nodiscard]] int get_next_rcline(char **key, char **value);

// Logs an error of the daemon, or of another component of this program. Each source file names itself in a
// constant log_source.
#define log_error(...) log_component_error(LUMLOG_DIAG, __VA_ARGS__)
#define log_component_error(facility, ...) lumlog(LUMLOG_ERROR, facility, log_source, __LINE__, __VA_ARGS__)

// The same, and -1, which the function that has failed returns.
#define log_failure(...) (log_error(__VA_ARGS__), -1)
#define log_component_failure(facility, ...) (log_component_error(facility, __VA_ARGS__), -1)

// What modules share logs for its caller, which passes its log_source; the compiler adds the line.
struct log_place {
    log_place(const char *source_name, int source_line = __builtin_LINE())
        : source(source_name), line(source_line)
    {
    }
    const char *source;
    int line;
};
#define log_failure_at(place, ...)                                                                           \
    (lumlog(LUMLOG_ERROR, LUMLOG_DIAG, (place).source, (place).line, __VA_ARGS__), -1)

// The first step of a function that needs its pointers: 0, or -1 after logging that one is missing.
[[nodiscard]] inline int check_arguments(bool are_given, log_place caller)
{
    return are_given ? 0 : log_failure_at(caller, "NULL pointer received as argument");
}
