// The service tools of one card: they ask the daemon for things, rightly and wrongly.
#pragma once

#include "monitor.h"
#include "random.h"

#include <array>
#include <string>

namespace sim
{

class client_group
{
public:
    client_group(world &where, node &card) : world_(where), card_(card) {}

    void ask_by_chance(random_stream &random);
    // One that ends a daemon: a reset of a port that the target doesn't track.
    void ask_wrong_reset(size_t target);

private:
    void ask(client_request request, const std::string &text);
    std::string draw_list(random_stream &random, client_request &request);
    void ask_targets(random_stream &random, client_request request);
    void ask_subscription(random_stream &random, client_request request, bool adds);
    void ask_other(random_stream &random, client_request request);
    std::string draw_filter(random_stream &random, size_t target) const;
    size_t draw_peer(random_stream &random) const;

    world &world_;
    node &card_;
    uint32_t transactions_ = 0;
    std::array<uint32_t, 3> returns_{}; // a client that has said goodbye comes back with another number
    nanoseconds last_challenge_use_ = seconds(-100);
    std::string used_challenge_; // and the right response to it
    std::string used_response_;
};

} // namespace sim
