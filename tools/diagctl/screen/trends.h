// What a live view remembers of the last minutes, for its sparklines.
#pragma once

#include "network/model.h"

#include <deque>

class trends
{
public:
    static constexpr size_t MINUTES = 10;
    static constexpr size_t MAX_RATES = 60;

    // Between one statistics message and the next, the latest last.
    struct port_rates {
        std::deque<double> good_frames; // each second
        std::deque<double> errored_frames;
    };

    // Takes note of a message that the network has taken in, and of what it has changed.
    void note(const network &net, std::string_view topic, const changes &items, const moment &now);

    // How much a node changed in each of the last minutes, the running one last.
    std::array<double, MINUTES> changes_of(const mac_address &mac, const moment &now) const;
    // Empty where no rate is known.
    const std::map<int, port_rates> &rates_of(const mac_address &mac) const;

private:
    struct minutes {
        int64_t latest = 0; // minute of the steady clock
        std::array<double, MINUTES> counts{};

        void move_to(int64_t minute);
    };

    std::map<mac_address, minutes> node_changes;
    std::map<mac_address, std::map<int, port_rates>> rates;
};
