// Performance records as OpenMetrics, each once and with the time at which it was closed, for databases that take what has
// been before. Nothing here talks to a broker or opens a file.
#pragma once

#include "network/site.h"

#include <array>
#include <functional>
#include <iosfwd>
#include <stdexcept>
#include <tuple>

struct record_series {
    mac_address mac;
    int port;
    pm_kind kind;
    bool operator<(const record_series &other) const
    {
        return std::tie(mac, port, kind) < std::tie(other.mac, other.port, other.kind);
    }
};

// Which records have been written, also those that the cards have forgotten meanwhile.
class written_records
{
public:
    bool has(const record_series &series, int64_t time) const;
    // Of each series the latest that were noted are kept, more than a card has at a time.
    void note(const record_series &series, int64_t time);

    std::string text() const;
    // Throws bad_history.
    static written_records parse(std::istream &text);

private:
    std::map<record_series, std::vector<int64_t>> times; // noted last stands last
};

// Text that hasn't been written here: what is wrong with it.
struct bad_history : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct history_series {
    record_series series;
    std::map<int64_t, pm_record> records; // by closing time, in seconds since 1970 UTC
};
// By pm_kind, and by the labels of their metrics: the order in which they are written.
using history = std::array<std::map<std::string, history_series>, 2>;

history card_history(const network &net);
// With the network's label; what any broker has of a card.
history site_history(const site &all);

size_t record_count(const history &records);

// Notes the records of a text that write_history() has written; throws bad_history.
void note_history(std::istream &text, written_records &noted);
// Records, and what such a text has, whose records are others. Lines with their ends.
void write_history(const history &records, std::istream *before,
                   const std::function<void(std::string_view)> &write);
