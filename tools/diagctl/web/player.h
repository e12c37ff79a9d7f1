// A recording, played: which messages come next, and the network as it was at any time of it.
#pragma once

#include "commands/recording_file.h"
#include "network/model.h"

#include <functional>

class player
{
public:
    // after: changes so far.
    using take_message = std::function<void(const recorded_message &message, const moment &when)>;
    using start_from = std::function<void(network state, uint64_t changes)>;

    player(recording played, const network &named, double wanted_speed);

    // Hands over what has come due; the time to the next message, or none while nothing comes.
    std::optional<std::chrono::milliseconds> play(const take_message &take);
    // Hands over a state from before that time and what came since.
    void seek(double position, const start_from &start, const take_message &take);
    void set_speed(double factor);
    void pause(bool is_wanted);

    double position() const; // in seconds
    double speed() const { return factor; }
    bool is_paused() const { return paused; }
    const recording &played() const { return file; }
    // The time that it was.
    moment time_of(double position) const;

private:
    // The network as the first messages left it.
    struct checkpoint {
        size_t messages;
        uint64_t changes;
        network net;
    };
    void hold(); // goes on from here

    recording file;
    std::vector<checkpoint> checkpoints;
    double factor;
    bool paused = false;
    size_t next = 0;
    double held_position = 0; // position at held_time
    std::chrono::steady_clock::time_point held_time;
};
