#include "utils.h"

#include "common/lumlog.h"
#include "common/netif.h"
#include "hwinfo/hwinfo.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string_view>
#include <utility>

namespace
{

constexpr const char *log_source = "utils";

constexpr long NSEC_PER_SEC = 1'000'000'000;
constexpr size_t LINE_SIZE = 256;

volatile sig_atomic_t terminated;
uint8_t found_mac[MAC_SIZE];

// A field of fixed width, padded with blanks and not terminated.
struct text_field {
    char *bytes;
    size_t size;

    void clear() const { memset(bytes, ' ', size); }
    void put_left(std::string_view text) const { memcpy(bytes, text.data(), std::min(text.size(), size)); }
    void put_right(std::string_view text) const
    {
        const size_t length = std::min(text.size(), size);
        memcpy(bytes + size - length, text.data(), length);
    }
};

using version_parser = int (*)(char *line, const text_field &name, const text_field &version);

// Blanks both fields, then lets parse fill them from the first line of the file.
int read_version(const char *path, version_parser parse, const text_field &name, const text_field &version)
{
    if (check_arguments(name.bytes != nullptr && version.bytes != nullptr, log_source) == -1) {
        return -1;
    }
    name.clear();
    version.clear();

    FILE *const file = fopen(path, "re");
    if (file == nullptr) {
        return log_failure("couldn't open file %s", path);
    }
    char line[LINE_SIZE];
    const bool is_read = fgets(line, sizeof line, file) != nullptr;
    static_cast<void>(fclose(file));
    if (!is_read) {
        return log_failure("couldn't read from file %s", path);
    }
    return parse(line, name, version);
}

// "NAME:VERSION"
int parse_revision(char *line, const text_field &name, const text_field &version)
{
    const std::string_view text = line;
    const size_t colon = text.find(':');
    if (colon != std::string_view::npos) {
        version.put_left(text.substr(colon + 1));
    }
    name.put_left(text.substr(0, colon));
    return 0;
}

// ... bootrev="NAME:VERSION TAIL" ...
int parse_kernel_command_line(char *line, const text_field &name, const text_field &version)
{
    constexpr std::string_view KEY = "bootrev=";
    constexpr std::string_view TOKEN_DELIMITERS = "\"\n ";

    std::string_view value = line;
    const size_t start = value.find(KEY);
    if (start == std::string_view::npos) {
        return log_failure("couldn't find bootrev string");
    }
    value.remove_prefix(start + KEY.size());
    const size_t quote = value.find('"');
    if (quote != std::string_view::npos) {
        value.remove_prefix(quote + 1);
    }

    const size_t colon = value.find(':');
    if (colon != std::string_view::npos) {
        std::string_view rest = value.substr(colon + 1);
        value = value.substr(0, colon);
        std::string_view tail = rest;
        const size_t blank = rest.rfind(' ');
        if (blank != std::string_view::npos) {
            tail = rest.substr(blank + 1);
            rest = rest.substr(0, blank);
        }
        version.put_left(rest);
        const size_t dash = tail.find('-');
        if (dash != std::string_view::npos) {
            tail.remove_prefix(dash + 1);
        }
        const size_t token = tail.find_first_not_of(TOKEN_DELIMITERS);
        if (token != std::string_view::npos) {
            tail.remove_prefix(token);
            tail = tail.substr(0, tail.find_first_of(TOKEN_DELIMITERS));
        }
        version.put_right(tail);
    }
    name.put_left(value);
    return 0;
}

} // namespace

void terminate()
{
    terminated = 1;
}

int is_terminated()
{
    return terminated == 1;
}

int get_time(timespec &now_out, log_place caller)
{
    if (clock_gettime(CLOCK_MONOTONIC, &now_out) == -1) {
        return log_failure_at(caller, "couldn't get time (errno %d)", errno);
    }
    return 0;
}

int timespec_cmp(const timespec *a, const timespec *b)
{
    if (check_arguments(a != nullptr && b != nullptr, log_source) == -1) {
        return 0;
    }
    if (a->tv_sec != b->tv_sec) {
        return a->tv_sec > b->tv_sec ? 1 : -1;
    }
    if (a->tv_nsec != b->tv_nsec) {
        return a->tv_nsec > b->tv_nsec ? 1 : -1;
    }
    return 0;
}

timespec timespec_diff(const timespec *a, const timespec *b)
{
    if (check_arguments(a != nullptr && b != nullptr, log_source) == -1) {
        return {-1, -1};
    }
    if (timespec_cmp(a, b) < 0) {
        std::swap(a, b);
    }
    timespec diff = {a->tv_sec - b->tv_sec, a->tv_nsec - b->tv_nsec};
    if (diff.tv_nsec < 0) {
        diff.tv_sec--;
        diff.tv_nsec += NSEC_PER_SEC;
    }
    return diff;
}

timespec timespec_sum(const timespec *a, const timespec *b)
{
    if (check_arguments(a != nullptr && b != nullptr, log_source) == -1) {
        return {-1, -1};
    }
    timespec sum = {a->tv_sec + b->tv_sec, a->tv_nsec + b->tv_nsec};
    if (sum.tv_nsec >= NSEC_PER_SEC) {
        sum.tv_sec++;
        sum.tv_nsec -= NSEC_PER_SEC;
    }
    return sum;
}

const uint8_t *find_mac_addr_in_topic(const char *topic)
{
    if (check_arguments(topic != nullptr, log_source) == -1) {
        return nullptr;
    }
    for (const char *slash = strchr(topic, '/'); slash != nullptr; slash = strchr(slash + 1, '/')) {
        unsigned int bytes[MAC_SIZE];
        // NOLINTNEXTLINE(cert-err34-c): two digits can't overflow
        const int converted = sscanf(slash + 1, "%2X-%2X-%2X-%2X-%2X-%2X", &bytes[0], &bytes[1], &bytes[2],
                                     &bytes[3], &bytes[4], &bytes[5]);
        if (converted == MAC_SIZE) {
            std::transform(std::begin(bytes), std::end(bytes), found_mac,
                           [](unsigned int byte) { return static_cast<uint8_t>(byte); });
            return found_mac;
        }
    }
    return nullptr;
}

int find_port_in_local_topic(const char *topic, int *port_out)
{
    if (check_arguments(topic != nullptr && port_out != nullptr, log_source) == -1) {
        return -1;
    }
    constexpr std::string_view PREFIX = "port/";
    std::string_view rest = topic;
    const size_t start = rest.find(PREFIX);
    if (start == std::string_view::npos) {
        return log_failure("couldn't find port in topic %s", topic);
    }
    rest.remove_prefix(start + PREFIX.size());
    if (rest.size() >= 2 && rest[0] >= 'A' && rest[0] <= 'H' && rest[1] == '/') {
        *port_out = rest[0] - 'A';
        return 0;
    }
    if (rest.starts_with("CPU/")) {
        *port_out = LUM_PORT_CPU;
        return 0;
    }
    return log_failure("invalid port identifier in topic %s", topic);
}

int get_eos_version(char *name, size_t name_size, char *version, size_t version_size)
{
    return read_version("/REVISION", parse_revision, {name, name_size}, {version, version_size});
}

int get_priapp_version(char *name, size_t name_size, char *version, size_t version_size)
{
    return read_version("/REVISION_PRIAPP", parse_revision, {name, name_size}, {version, version_size});
}

int get_eboot_version(char *name, size_t name_size, char *version, size_t version_size)
{
    return read_version("/proc/cmdline", parse_kernel_command_line, {name, name_size},
                        {version, version_size});
}
