#include "common/lumlog.h"

#include <strings.h>
#include <sys/types.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace
{

struct facility_row {
    const char *rc_key;
    const char *component;
    int syslog_facility;
};

// The components of the whole platform share one rc file; this program logs as three of them only.
constexpr std::array<facility_row, LUMLOG_FACILITIES> FACILITIES = {{
    {"LUMLOG_BOOT", "boot", LOG_LOCAL4},         {"LUMLOG_SYSTEM", "system", LOG_LOCAL4},
    {"LUMLOG_CONFIG", "config", LOG_LOCAL4},     {"LUMLOG_LUMLOG", "lumlog", LOG_LOCAL4},
    {"LUMLOG_WATCHDOG", "watchdog", LOG_LOCAL4}, {"LUMLOG_CLOCK", "clock", LOG_LOCAL4},
    {"LUMLOG_HWINFO", "hwinfo", LOG_LOCAL4},     {"LUMLOG_FPGA", "fpga", LOG_LOCAL4},
    {"LUMLOG_SWITCH", "switch", LOG_LOCAL5},     {"LUMLOG_PORT", "port", LOG_LOCAL5},
    {"LUMLOG_MEDIA", "media", LOG_LOCAL5},       {"LUMLOG_GROUND", "ground", LOG_LOCAL5},
    {"LUMLOG_ERPS", "erps", LOG_LOCAL5},         {"LUMLOG_RING", "ring", LOG_LOCAL5},
    {"LUMLOG_NODE", "node", LOG_LOCAL5},         {"LUMLOG_GATEWAY", "gateway", LOG_LOCAL6},
    {"LUMLOG_ACTIVATE", "activate", LOG_LOCAL6}, {"LUMLOG_DIAG", "diag", LOG_LOCAL7},
    {"LUMLOG_DOWNLOAD", "download", LOG_LOCAL6}, {"LUMLOG_STORAGE", "storage", LOG_LOCAL6},
    {"LUMLOG_TEST", "test", LOG_LOCAL6},
}};

constexpr bool has_key(int facility, std::string_view key)
{
    return FACILITIES[static_cast<size_t>(facility)].rc_key == key;
}
static_assert(has_key(LUMLOG_LUMLOG, "LUMLOG_LUMLOG") && has_key(LUMLOG_HWINFO, "LUMLOG_HWINFO") &&
              has_key(LUMLOG_DIAG, "LUMLOG_DIAG"));

struct level_row {
    const char *name;
    int level;
};

// The first row whose name starts the text wins: "warn" also serves "warning".
constexpr std::array<level_row, 11> RC_LEVELS = {{
    {"alert", LOG_ALERT},
    {"crit", LOG_CRIT},
    {"debug", LOG_DEBUG},
    {"emerg", LOG_EMERG},
    {"err", LOG_ERR},
    {"error", LOG_ERR},
    {"info", LOG_INFO},
    {"notice", LOG_NOTICE},
    {"panic", LOG_EMERG},
    {"warn", LOG_WARNING},
    {"warning", LOG_WARNING},
}};

constexpr std::array<level_row, 4> PRINTED_LEVELS = {{
    {"CRITICAL", LOG_CRIT},
    {"ERROR", LOG_ERR},
    {"INFO", LOG_INFO},
    {"DEBUG", LOG_DEBUG},
}};

struct {
    bool is_initialized;
    pid_t pid;
    std::array<int, LUMLOG_FACILITIES> thresholds;
    FILE *rc_file;
    char *rc_line;
    size_t rc_line_capacity;
} state;

// Callers log inside library calls whose outcome is still in errno.
class errno_guard
{
public:
    errno_guard() : kept_(errno) {}
    ~errno_guard() { errno = kept_; }
    errno_guard(const errno_guard &) = delete;
    errno_guard &operator=(const errno_guard &) = delete;

private:
    int kept_;
};

void apply_rc_line(const char *key, const char *value)
{
    for (size_t facility = 0; facility < FACILITIES.size(); facility++) {
        if (strcasecmp(FACILITIES[facility].rc_key, key) != 0) {
            continue;
        }
        for (const level_row &row : RC_LEVELS) {
            if (strncasecmp(row.name, value, strlen(row.name)) == 0) {
                state.thresholds[facility] = row.level;
                return;
            }
        }
        return;
    }
}

const char *printed_level(int level)
{
    for (const level_row &row : PRINTED_LEVELS) {
        if (row.level == level) {
            return row.name;
        }
    }
    return nullptr;
}

} // namespace

void lumlog_init(int level)
{
    state.thresholds.fill(level);
    state.pid = getpid();
    state.is_initialized = true;
}

int get_next_rcline(char **key, char **value)
{
    if (state.rc_file == nullptr) {
        const char *const path = getenv("LUMLOG_RC");
        if (path == nullptr) {
            return -1;
        }
        state.rc_file = fopen(path, "re");
        if (state.rc_file == nullptr) {
            return -1;
        }
    }
    while (getline(&state.rc_line, &state.rc_line_capacity, state.rc_file) != -1) {
        char *const comment = strchr(state.rc_line, '#');
        if (comment != nullptr) {
            *comment = '\0';
        }
        char *rest = nullptr;
        char *const first = strtok_r(state.rc_line, ".", &rest);
        char *const second = first != nullptr ? strtok_r(nullptr, ".", &rest) : nullptr;
        if (second != nullptr) {
            *key = first;
            *value = second;
            return 0;
        }
    }
    free(state.rc_line);
    state.rc_line = nullptr;
    state.rc_line_capacity = 0;
    static_cast<void>(fclose(state.rc_file));
    state.rc_file = nullptr;
    return -1;
}

void lumlog(int level, int facility, const char *file, int line, const char *format, ...)
{
    const errno_guard guard;
    if (!state.is_initialized) {
        lumlog_init(LUMLOG_ERROR);
        char *key = nullptr;
        char *value = nullptr;
        while (get_next_rcline(&key, &value) == 0) {
            apply_rc_line(key, value);
        }
    }
    if (facility < 0 || facility >= LUMLOG_FACILITIES) {
        lumlog(LUMLOG_ERROR, LUMLOG_LUMLOG, file, line, "invalid component: %d", facility);
        return;
    }
    const size_t row = static_cast<size_t>(facility);
    if (level > state.thresholds[row]) {
        return;
    }
    const char *const level_name = printed_level(level);
    if (level_name == nullptr) {
        lumlog(LUMLOG_ERROR, LUMLOG_LUMLOG, file, line, "invalid priority level: %d", level);
        return;
    }

    const char *const component = FACILITIES[row].component;
    const int priority = level | FACILITIES[row].syslog_facility;
    char *message = nullptr;
    va_list arguments;
    va_start(arguments, format);
    const int length = vasprintf(&message, format, arguments);
    va_end(arguments);
    if (length == -1) {
        syslog(priority, "[%s] %s - %s:%d - [couldn't allocate message]", level_name, component, file, line);
        return;
    }
    syslog(priority, "[%s] %s(%d) - %s:%d - %s", level_name, component, static_cast<int>(state.pid), file,
           line, message);
    free(message);
}
