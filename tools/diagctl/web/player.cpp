#include "web/player.h"

#include <algorithm>
#include <iterator>

namespace
{

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr size_t MAX_CHECKPOINTS = 20; // each is a network
constexpr size_t MIN_CHECKPOINT_DISTANCE = 5000;

} // namespace

player::player(recording played, const network &named, double wanted_speed)
    : file(std::move(played)), factor(wanted_speed), held_time(steady_clock::now())
{
    const size_t distance = std::max(MIN_CHECKPOINT_DISTANCE, file.messages.size() / MAX_CHECKPOINTS);
    network net = named;
    uint64_t changed = 0;
    for (size_t i = 0; i < file.messages.size(); i++) {
        if (i % distance == 0) {
            checkpoints.push_back({i, changed, net});
        }
        const recorded_message &message = file.messages[i];
        changed +=
            network_apply(net, message.topic, message.payload, message.time == 0, time_of(message.time))
                .size();
    }
    if (checkpoints.empty()) {
        checkpoints.push_back({0, 0, named});
    }
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

std::optional<milliseconds> player::play(const take_message &take)
{
    constexpr size_t MAX_MESSAGES = 2000; // then others have their turn
    const double now = position();
    for (size_t taken = 0; next < file.messages.size() && file.messages[next].time <= now; taken++) {
        if (taken == MAX_MESSAGES) {
            return milliseconds(0);
        }
        take(file.messages[next], time_of(file.messages[next].time));
        next++;
    }
    if (paused || next == file.messages.size() || factor <= 0) {
        return {};
    }
    const std::chrono::duration<double> left((file.messages[next].time - now) / factor);
    return std::chrono::ceil<milliseconds>(std::min(left, std::chrono::duration<double>(3600)));
}

void player::seek(double position, const start_from &start, const take_message &take)
{
    held_position = std::clamp(position, 0.0, file.duration());
    held_time = steady_clock::now();
    const auto later =
        std::upper_bound(file.messages.begin(), file.messages.end(), held_position,
                         [](double time, const recorded_message &message) { return time < message.time; });
    next = static_cast<size_t>(std::distance(file.messages.begin(), later));
    // The one before the last, so that the changes that led there are known.
    const auto after =
        std::upper_bound(checkpoints.begin(), checkpoints.end(), next,
                         [](size_t count, const checkpoint &item) { return count < item.messages; });
    const auto from =
        std::prev(after, std::min<std::ptrdiff_t>(2, std::distance(checkpoints.begin(), after)));
    start(from->net, from->changes);
    for (size_t i = from->messages; i < next; i++) {
        take(file.messages[i], time_of(file.messages[i].time));
    }
}
