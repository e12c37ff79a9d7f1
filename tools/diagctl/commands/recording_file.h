// A recording's file, as replay and web read it.
#pragma once

#include "network/recording.h"

#include <chrono>

struct recording {
    std::chrono::system_clock::time_point start;
    std::string start_text; // as it stands in the file
    std::vector<recorded_message> messages;

    double duration() const { return messages.empty() ? 0 : messages.back().time; }
};

// All of it, so that a damaged file is refused before anything is done with it. Throws failure.
recording read_recording(const std::string &path);
