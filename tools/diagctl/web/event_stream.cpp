#include "web/event_stream.h"

#include <algorithm>

namespace
{

constexpr const char *RESET = "event: reset\ndata: {}\n\n";

} // namespace

void event_stream::append(std::string event)
{
    bytes += event.size();
    events.push_back(std::make_shared<const std::string>(std::move(event)));
    while (bytes > limit) {
        bytes -= events.front()->size();
        events.pop_front();
        first++;
    }
}

size_t event_stream::read(place &reader, char *buffer, size_t size) const
{
    size_t used = 0;
    while (used < size) {
        if (reader.current == nullptr || reader.offset == reader.current->size()) {
            const uint64_t end = first + events.size();
            if (reader.next < first) {
                reader = {end, std::make_shared<const std::string>(RESET)};
            } else if (reader.next < end) {
                reader = {reader.next + 1, events[static_cast<size_t>(reader.next - first)]};
            } else {
                break;
            }
        }
        const size_t part = std::min(size - used, reader.current->size() - reader.offset);
        std::copy_n(reader.current->data() + reader.offset, part, buffer + used);
        reader.offset += part;
        used += part;
    }
    return used;
}
