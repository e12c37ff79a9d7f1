#include "lone_card.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace sim
{

namespace
{

constexpr time_t WALL_START = 1'700'000'000;
constexpr nanoseconds START = seconds(1000); // of the system; the daemon starts later
constexpr nanoseconds START_LIMIT = seconds(10);
constexpr nanoseconds START_STEP = milliseconds(50); // what a start that has to repeat something waits

} // namespace

lone_card::lone_card() : broker_(clock_, topics_, *this, random_stream(0)), daemon_(*this)
{
    broker_.conduct().latency = {};
    broker_.start();
    clock_.run_until(START);
}

time_t lone_card::wall_clock() const
{
    return WALL_START + static_cast<time_t>((clock_.now() - START) / seconds(1));
}

const std::string *lone_card::find_file(const char *path) const
{
    static const std::string address = "0x0007";
    static const std::string any = "bootrev=\"name:1.2.3\"\n";
    return strcmp(path, "/card/address") == 0 ? &address : &any;
}

void lone_card::start(std::vector<std::string> options)
{
    const nanoseconds limit = clock_.now() + START_LIMIT;
    daemon_.start(std::move(options));
    for (run_for({}); daemon_.is_alive() && !daemon_.is_serving() && clock_.now() < limit;) {
        run_for(START_STEP);
    }
}

void lone_card::publish(std::string_view topic, std::span<const uint8_t> payload, bool retain)
{
    broker_.publish(topics_.number(topic), {payload.data(), payload.size()}, retain);
    run_for({});
}

void lone_card::receive(uint32_t sender, std::span<const uint8_t> datagram)
{
    daemon_.receive({sender, {datagram.data(), datagram.size()}});
    run_for({});
}

void lone_card::stall_for(nanoseconds time)
{
    daemon_.set_frozen(true);
    run_for(time);
    daemon_.set_frozen(false);
    run_for({});
}

void lone_card::misuse(const char *what)
{
    fprintf(stderr, "%s\n", what);
    abort();
}

} // namespace sim
