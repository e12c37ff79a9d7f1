// Recordings: what was published on a broker, and when, as JSON lines. Nothing here talks to a broker.
//
//     {"diagctl_recording":1,"started":"2024-05-01T08:15:03Z"}
//     {"time":0.0,"retained":true,"topic":"pub/diag/local_node","text":"02-00-00-00-00-01"}
//     {"time":2.503,"retained":true,"topic":"pub/diag/net/fire/miswired","hex":"00"}
//     {"time":9.117,"retained":true,"topic":"pub/diag/net/fire/miswired_links","text":""}
//
// time is in seconds since the start and never goes back; what the broker had retained then stands first, with
// time 0. A payload of printable text is text, any other hexadecimal. An empty one that is retained has removed
// the topic's value.
#pragma once

#include "network/payloads.h"

struct recorded_message {
    double time;
    bool is_retained;
    std::string topic;
    std::vector<uint8_t> payload;

    // Before the recording began.
    bool was_retained() const { return time == 0; }
};

// The payload as it is where it is printable, else in hexadecimal after "0x".
std::string payload_display(bytes payload);

// Lines without their end. started: UTC.
std::string recording_head(const std::string &started);
std::string recording_line(double time, bool is_retained, std::string_view topic, bytes payload);

// The start of a recording; empty when the line isn't a recording's first.
std::optional<std::string> parse_recording_head(const std::string &line);
// Empty when the line isn't a message of a recording.
std::optional<recorded_message> parse_recording_line(const std::string &line);
