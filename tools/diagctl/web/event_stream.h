// Events for any number of readers, kept once for all of them. What is kept is bounded: a reader that falls behind is told to
// look anew instead of getting what it has missed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

class event_stream
{
public:
    explicit event_stream(size_t max_bytes) : limit(max_bytes) {}

    // Where a reader stands.
    struct place {
        uint64_t next;                              // the event that it gets next
        std::shared_ptr<const std::string> current; // the one it is getting
        size_t offset = 0;                          // in that one
    };
    // At the end: what is appended from now on is read.
    place join() const { return {first + events.size(), nullptr}; }

    void append(std::string event);
    // The next bytes for a reader; 0: it has all.
    size_t read(place &reader, char *buffer, size_t size) const;

private:
    size_t limit;
    size_t bytes = 0;
    uint64_t first = 0; // number of the oldest event that is kept
    std::deque<std::shared_ptr<const std::string>> events;
};
