#include "fire_network.h"

#include <numeric>

namespace sim
{

namespace
{

constexpr uint32_t GROUP = 0xE016212CU; // 224.22.33.44

} // namespace

fire_network::fire_network(timeline &clock, random_stream random, topology shape, size_t stations)
    : clock_(clock), random_(random), stations_(stations), is_on_(stations + 1, true), part_(stations + 1)
{
    if (shape == topology::STAR) {
        for (size_t i = 0; i < stations; i++) {
            links_.push_back({i, stations});
        }
    } else {
        for (int rings = shape == topology::RING ? 1 : 2; rings > 0; rings--) {
            for (size_t i = 0; i < stations; i++) {
                links_.push_back({i, (i + 1) % stations});
            }
        }
    }
    find_parts();
}

void fire_network::set_link(size_t which, bool is_whole)
{
    links_[which].is_whole = is_whole;
    find_parts();
}

void fire_network::set_power(size_t which, bool is_on)
{
    is_on_[which] = is_on;
    find_parts();
}

size_t fire_network::find_root(size_t member)
{
    while (part_[member] != member) {
        member = part_[member] = part_[part_[member]];
    }
    return member;
}

void fire_network::find_parts()
{
    std::iota(part_.begin(), part_.end(), size_t{0});
    for (const link &each : links_) {
        if (each.is_whole && is_on_[each.first] && is_on_[each.second]) {
            part_[find_root(each.first)] = find_root(each.second);
        }
    }
    for (size_t i = 0; i < part_.size(); i++) {
        part_[i] = find_root(i);
    }
}

void fire_network::send(size_t from, uint32_t address, const shared_bytes &bytes)
{
    const uint32_t sender = fire_network::address(from);
    if (address == GROUP) {
        for (size_t to = 0; to < stations_.size(); to++) {
            if (to != from && are_connected(from, to)) {
                post(to, sender, bytes);
            }
        }
        return;
    }
    const size_t to = address - fire_network::address(0);
    if (to < stations_.size() && are_connected(from, to)) {
        post(to, sender, bytes);
    }
}

void fire_network::post(size_t to, uint32_t from, const shared_bytes &bytes)
{
    if (weather_.loss > 0 && random_.chance(weather_.loss)) {
        lost_++;
        return;
    }
    for (int copies = weather_.duplication > 0 && random_.chance(weather_.duplication) ? 2 : 1; copies > 0;
         copies--) {
        size_t slot;
        if (free_slots_.empty()) {
            slot = flying_.size();
            flying_.emplace_back();
        } else {
            slot = free_slots_.back();
            free_slots_.pop_back();
        }
        flying_[slot] = {to, {from, bytes}};
        clock_.after<&fire_network::deliver>(
            random_.between(weather_.latency, weather_.latency + weather_.jitter), *this, slot);
    }
}

void fire_network::deliver(uint64_t number)
{
    const auto slot = static_cast<size_t>(number);
    const in_flight arrived = std::move(flying_[slot]);
    flying_[slot] = {};
    free_slots_.push_back(slot);
    stations_[arrived.to]->receive(arrived.content);
}

} // namespace sim
