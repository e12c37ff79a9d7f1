#include "commands/recording_file.h"

#include "failure.h"

#include <fmt/core.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>

namespace
{

[[noreturn]] void report_file(const std::string &path, const std::string &problem)
{
    throw failure(STATUS_FAILURE, fmt::format("couldn't replay {}: {}", path, problem));
}

std::optional<std::chrono::system_clock::time_point> parse_utc(const std::string &text)
{
    tm time{};
    const char *const end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &time);
    return end != nullptr && *end == '\0'
               ? std::optional(std::chrono::system_clock::from_time_t(timegm(&time)))
               : std::nullopt;
}

} // namespace

recording read_recording(const std::string &path)
{
    std::ifstream stream(path);
    if (!stream) {
        report_file(path, strerror(errno));
    }
    std::string line;
    std::getline(stream, line);
    const std::optional<std::string> head = parse_recording_head(line);
    const auto start = head ? parse_utc(*head) : std::nullopt;
    if (!start) {
        report_file(path, "it isn't a recording of this version of diagctl");
    }
    recording result = {*start, *head, {}};
    for (size_t number = 2; std::getline(stream, line); number++) {
        std::optional<recorded_message> message = parse_recording_line(line);
        if (message && message->time < result.duration()) {
            report_file(path, fmt::format("line {} is earlier than the one before it", number));
        }
        if (message) {
            result.messages.push_back(std::move(*message));
        } else if (stream.eof()) {
            // Without an end: the recording was cut off while this line was written.
            fmt::print(stderr, "diagctl: the last line of {} is incomplete and left out\n", path);
        } else {
            report_file(path, fmt::format("line {} isn't a message of a recording", number));
        }
    }
    return result;
}
