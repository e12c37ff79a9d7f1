#include "web/player.h"

#include <algorithm>
#include <iterator>

namespace
{

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr size_t MAX_CHECKPOINTS = 20; // each is a model
constexpr size_t MIN_CHECKPOINT_DISTANCE = 5000;
constexpr milliseconds MAX_WAIT(1000);

} // namespace

player::player(recording played, std::unique_ptr<console_model> empty, page_state &told, double wanted_speed)
    : file(std::move(played)), page(told), model(std::move(empty)), factor(wanted_speed),
      held_time(steady_clock::now())
{
    page.rewind(0);
    // What there was before counts for each time. Checkpoints hold no more values together than the file has.
    const size_t first = messages_until(0);
    const size_t distance =
        std::max({MIN_CHECKPOINT_DISTANCE, file.messages.size() / MAX_CHECKPOINTS, first});
    for (size_t i = 0; i <= file.messages.size(); i++) {
        if (i == first) {
            model->pass(time_of(0));
        }
        if (i >= first && (i - first) % distance == 0) {
            checkpoints.push_back({i, page.changes(), model->clone()});
        }
        if (i < file.messages.size()) {
            play_message(i);
        }
    }
    seek(0);
}

size_t player::messages_until(double position) const
{
    const auto later =
        std::upper_bound(file.messages.begin(), file.messages.end(), position,
                         [](double time, const recorded_message &message) { return time < message.time; });
    return static_cast<size_t>(std::distance(file.messages.begin(), later));
}

void player::play_message(size_t index)
{
    const recorded_message &message = file.messages[index];
    model->play(message, time_of(message.time));
}

moment player::time_of(double position) const
{
    const std::chrono::duration<double> time(position);
    return {steady_clock::time_point(std::chrono::duration_cast<steady_clock::duration>(time)),
            file.start + std::chrono::duration_cast<std::chrono::system_clock::duration>(time)};
}

double player::position() const
{
    const std::chrono::duration<double> played = steady_clock::now() - held_time;
    const double reached = held_position + (paused ? 0 : played.count() * factor);
    return std::min(reached, file.duration());
}

void player::hold()
{
    held_position = position();
    held_time = steady_clock::now();
}

void player::set_speed(double wanted)
{
    hold();
    factor = wanted;
}

void player::pause(bool is_wanted)
{
    hold();
    paused = is_wanted;
}

milliseconds player::play()
{
    constexpr size_t MAX_MESSAGES = 2000; // then others have their turn
    const double now = position();
    for (size_t taken = 0; next < file.messages.size() && file.messages[next].time <= now; taken++) {
        if (taken == MAX_MESSAGES) {
            return milliseconds(0);
        }
        play_message(next);
        next++;
    }
    model->pass(time_of(now));
    if (paused || next == file.messages.size() || factor <= 0) {
        return MAX_WAIT;
    }
    const std::chrono::duration<double> left((file.messages[next].time - now) / factor);
    return std::chrono::ceil<milliseconds>(std::min<std::chrono::duration<double>>(left, MAX_WAIT));
}

void player::seek(double position)
{
    held_position = std::clamp(position, 0.0, file.duration());
    held_time = steady_clock::now();
    next = messages_until(held_position);
    // From the one before the last, so that the changes that led there are known.
    const auto after =
        std::upper_bound(checkpoints.begin(), checkpoints.end(), next,
                         [](size_t count, const checkpoint &item) { return count < item.messages; });
    const auto from =
        std::prev(after, std::min<std::ptrdiff_t>(2, std::distance(checkpoints.begin(), after)));
    page.rewind(from->changes);
    model = from->model->clone();
    for (size_t i = from->messages; i < next; i++) {
        play_message(i);
    }
    model->pass(time_of(held_position));
    model->show_anew();
}
