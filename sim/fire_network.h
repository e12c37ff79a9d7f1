// The fire network between the cards: links that can be cut, and datagrams that come late, twice, in another order or
// not at all. Like a switched network that heals itself it carries everything between two cards as long as any way
// between them is whole.
#pragma once

#include "process.h"
#include "random.h"

#include <cstddef>
#include <string_view>
#include <vector>

namespace sim
{

enum class topology { RING, DOUBLE_RING, STAR };

class fire_network
{
public:
    struct weather {
        nanoseconds latency = microseconds(200);
        nanoseconds jitter =
            microseconds(300); // more than the distance of two datagrams puts them out of order
        double loss = 0;
        double duplication = 0;
    };
    class station
    {
    public:
        virtual void receive(const datagram &received) = 0;

    protected:
        ~station() = default;
    };

    fire_network(timeline &clock, random_stream random, topology shape, size_t stations);

    void attach(size_t index, station &attached) { stations_[index] = &attached; }
    size_t count_links() const { return links_.size(); }
    void set_link(size_t which, bool is_whole);
    void set_power(size_t which, bool is_on); // a card without power forwards nothing
    // The ends of a link; the second is the number of stations for the switch in the middle of a star.
    std::pair<size_t, size_t> ends(size_t which) const { return {links_[which].first, links_[which].second}; }
    bool are_connected(size_t a, size_t b) const { return part_[a] == part_[b]; }
    weather &conditions() { return weather_; }

    static constexpr uint16_t PORT = 50004;
    static uint32_t address(size_t which) { return 0x0A000001U + static_cast<uint32_t>(which); }
    void send(size_t from, uint32_t address, const shared_bytes &bytes);
    uint64_t count_lost() const { return lost_; }

private:
    struct link {
        size_t first;
        size_t second;
        bool is_whole = true;
    };
    void find_parts();
    size_t find_root(size_t member);
    void post(size_t to, uint32_t from, const shared_bytes &bytes);
    void deliver(uint64_t slot);

    timeline &clock_;
    random_stream random_;
    weather weather_;
    std::vector<station *> stations_;
    std::vector<link> links_;
    std::vector<bool> is_on_;
    std::vector<size_t> part_; // the stations that share one are connected
    struct in_flight {
        size_t to;
        datagram content;
    };
    std::vector<in_flight> flying_;
    std::vector<size_t> free_slots_;
    uint64_t lost_ = 0;
};

} // namespace sim
