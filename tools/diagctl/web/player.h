// A recording, played into a model: what comes next, and what there was at any time of it.
#pragma once

#include "commands/recording_file.h"
#include "web/console.h"

class player
{
public:
    // The model knows nothing yet. From its start on the recording is told to the page, which has to stay.
    player(recording played, std::unique_ptr<console_model> empty, page_state &told, double wanted_speed);

    console_model &shown() { return *model; }
    // Plays what has come due; the time until it is to be called again.
    std::chrono::milliseconds play();
    // Goes on from there. The page looks anew.
    void seek(double position);
    void set_speed(double factor);
    void pause(bool is_wanted);

    double position() const; // in seconds
    double speed() const { return factor; }
    bool is_paused() const { return paused; }
    const recording &played() const { return file; }
    // The time that it was.
    moment time_of(double position) const;

private:
    // The model as the first messages left it.
    struct checkpoint {
        size_t messages;
        uint64_t changes;
        std::unique_ptr<const console_model> model;
    };
    void hold(); // goes on from here
    void play_message(size_t index);
    size_t messages_until(double position) const;

    recording file;
    page_state &page;
    std::unique_ptr<console_model> model;
    std::vector<checkpoint> checkpoints;
    double factor;
    bool paused = false;
    size_t next = 0;
    double held_position = 0; // position at held_time
    std::chrono::steady_clock::time_point held_time;
};
