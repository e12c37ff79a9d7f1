// What is planned, carried out: every kind of happening, and its end where it has one.
#include "common/text.h"
#include "topics.h"
#include "wire.h"
#include "world.h"

#include <algorithm>
#include <cerrno>

namespace sim
{

namespace
{

constexpr struct {
    system_call call;
    int error;
} FAILURES[] = {
    {system_call::READ, EINVAL},           {system_call::CLOCK_GETTIME, EINVAL},
    {system_call::TIMERFD_CREATE, EMFILE}, {system_call::TIMERFD_SETTIME, ENOMEM},
    {system_call::EPOLL_CTL, ENOSPC},      {system_call::EPOLL_WAIT, EINTR},
    {system_call::EPOLL_WAIT, EBADF},      {system_call::RECVFROM, EAGAIN},
    {system_call::RECVFROM, EINTR},        {system_call::RECVFROM, ENETDOWN},
    {system_call::SENDTO, ENETUNREACH},    {system_call::SENDTO, EINTR},
    {system_call::ALLOCATION, ENOMEM},
};

} // namespace

void world::happen(uint64_t index)
{
    const planned &item = (*plan_)[index];
    node &target = at(item.node);
    random_stream random(item.chance);
    tally_.happened[static_cast<size_t>(item.what)]++;
    if (item.what != happening::FACT && item.what != happening::REQUEST) {
        trace(item.node, "*** %s", name_of(item.what));
    }
    switch (item.what) {
    case happening::FACT:
        target.say(change_by_chance(target.told(), target.mac_text(), random));
        break;
    case happening::REQUEST:
        clients_[item.node]->ask_by_chance(random);
        break;
    case happening::CUT:
    case happening::LOSS:
    case happening::DUPLICATION:
    case happening::REORDERING:
        happen_to_network(item);
        break;
    case happening::BROKER_RESTART:
    case happening::BROKER_SLOW:
    case happening::ACKS_LATE:
    case happening::ACKS_LOST:
        happen_to_broker(item, target, random);
        break;
    default:
        happen_to_node(item, target, random);
        break;
    }
    if (item.length > nanoseconds(0)) {
        clock_.after<&world::mend>(item.length, *this, index);
    }
}

void world::happen_to_network(const planned &item)
{
    if (item.what == happening::CUT) {
        cut(item);
        return;
    }
    random_stream random(item.chance);
    // Datagrams that are under way when it ends are still part of it.
    fair_since_ = std::max(fair_since_, clock_.now() + item.length + seconds(6));
    const double share = random.chance(0.5) ? 0.05 : 0.6;
    if (item.what == happening::LOSS) {
        fire_.conditions().loss = share;
    } else if (item.what == happening::DUPLICATION) {
        fire_.conditions().duplication = share;
    } else {
        fire_.conditions().jitter = random.between(milliseconds(10), seconds(5));
    }
}

void world::happen_to_broker(const planned &item, node &target, random_stream &random)
{
    mqtt_broker::behaviour &conduct = target.broker().conduct();
    target.disturb_until(clock_.now() + item.length + seconds(6));
    switch (item.what) {
    case happening::BROKER_RESTART:
        watch().excuse(target, "the broker stops");
        target.stop_broker();
        break;
    case happening::BROKER_SLOW:
        watch().excuse(target, "a slow broker"); // an acknowledgement that takes a second comes too late
        conduct.latency = random.between(milliseconds(10), milliseconds(400));
        break;
    case happening::ACKS_LATE:
        watch().excuse(target, "late acknowledgements");
        conduct.ack_delay = random.between(milliseconds(100), milliseconds(2500));
        break;
    default:
        watch().excuse(target, "lost acknowledgements");
        conduct.ack_loss = random.chance(0.5) ? 0.3 : 1.0;
        break;
    }
}

void world::happen_to_node(const planned &item, node &target, random_stream &random)
{
    switch (item.what) {
    case happening::LEAVE:
        target.stop_daemon();
        break;
    case happening::KILL:
        target.kill_daemon();
        break;
    case happening::POWER_OFF:
        target.power_off();
        break;
    case happening::FREEZE:
        target.disturb_until(clock_.now() + item.length + seconds(6));
        watch().excuse(target, "no processor"); // it may miss all acknowledgements
        target.daemon().set_frozen(true);
        break;
    case happening::CLOCK_STEP:
        target.step_wall_clock(seconds(static_cast<int64_t>(random.below(172800)) - 86400));
        break;
    case happening::CALL_FAILS: {
        const auto &failure = FAILURES[random.below(std::size(FAILURES))];
        target.fail_next(failure.call, failure.error, random.below(20));
        break;
    }
    case happening::GARBAGE:
        garbage(target, random);
        break;
    case happening::STORM:
        storm(target, random);
        break;
    default:
        bad_input(target, random);
        break;
    }
}

void world::mend(uint64_t index)
{
    const planned &item = (*plan_)[index];
    node &target = at(item.node);
    trace(item.node, "*** %s is over", name_of(item.what));
    switch (item.what) {
    case happening::CUT: {
        const size_t link = item.chance % fire_.count_links();
        if (--cuts_[link] == 0) {
            set_ends(link, true);
        }
        break;
    }
    case happening::LOSS:
        fire_.conditions().loss = 0;
        break;
    case happening::DUPLICATION:
        fire_.conditions().duplication = 0;
        break;
    case happening::REORDERING:
        fire_.conditions().jitter = fire_network::weather().jitter;
        break;
    case happening::LEAVE:
        target.start_daemon();
        break;
    case happening::POWER_OFF:
        target.power_on();
        break;
    case happening::FREEZE:
        target.daemon().set_frozen(false);
        break;
    case happening::BROKER_RESTART:
        target.start_broker();
        break;
    default:
        target.broker().conduct() = {};
        break;
    }
}

void world::cut(const planned &item)
{
    const size_t link = item.chance % fire_.count_links();
    if (cuts_[link]++ == 0) {
        set_ends(link, false);
    }
}

// The cards at both ends of a link see it too, and that their ring is open.
void world::set_ends(size_t link, bool is_whole)
{
    fire_.set_link(link, is_whole);
    const auto [first, second] = fire_.ends(link);
    if (link < nodes_.size() && second < nodes_.size()) {
        change_link(first, 1, !is_whole);
        change_link(second, 0, !is_whole);
    }
    connectivity_changed();
}

void world::change_link(size_t index, int port, bool is_down)
{
    facts &told = at(index).told();
    told.ports[static_cast<size_t>(port)].is_link_down = is_down;
    at(index).say(link_message(told, port));
}

void world::storm(node &target, random_stream &random)
{
    for (unsigned count = 20 + random.below(200); count > 0; count--) {
        if (random.chance(0.5)) {
            target.say(change_by_chance(target.told(), target.mac_text(), random));
        } else {
            clients_[target.index()]->ask_by_chance(random);
        }
    }
    target.disturb_until(clock_.now() + seconds(10));
    watch().excuse(target, "a storm"); // of which its broker may not take all values in time
}

// Datagrams that every receiver has to drop.
void world::garbage(node &target, random_stream &random)
{
    for (unsigned count = 1 + random.below(30); count > 0; count--) {
        std::vector<uint8_t> bytes(wire::HEADER + random.below(40));
        std::ranges::generate(bytes, [&] { return static_cast<uint8_t>(random.next()); });
        switch (random.below(4)) {
        case 0:
            bytes.resize(random.below(static_cast<uint32_t>(wire::HEADER)));
            break;
        case 1:
            bytes.resize(wire::LARGEST + 1 + random.below(400));
            break;
        case 2:
            bytes[wire::TYPE] = static_cast<uint8_t>(random.chance(0.5) ? 0 : 13 + random.below(200));
            break;
        default:
            bytes[wire::LENGTH] = 1; // longer than the datagram
            break;
        }
        fire_.send((target.index() + 1) % size(), fire_network::address(target.index()),
                   {bytes.data(), bytes.size()});
    }
}

// Inputs that end a daemon by intent.
void world::bad_input(node &target, random_stream &random)
{
    watch().excuse(target, "an input that is meant to end it");
    const size_t other = (target.index() + 1) % size();
    switch (random.below(3)) {
    case 0:
        clients_[other]->ask_wrong_reset(target.index());
        break;
    case 1: {
        uint8_t bytes[] = "\x01\x06\0\0\0\0\0\0\0\x05"
                          "a/+\0x";
        std::ranges::copy(at(other).mac(), bytes + wire::MAC);
        fire_.send(other, fire_network::address(target.index()), {bytes, sizeof bytes - 1});
        break;
    }
    default: {
        const topic_id media = topics_.number(topic_text(PORT_FACT_FORMAT, "A", FACT_MEDIA).text);
        const uint8_t unknown = 7;
        const uint8_t known = target.told().ports[0].media;
        target.broker().publish(media, {&unknown, 1}, true);
        target.broker().publish(media, {&known, 1}, true);
        break;
    }
    }
}

} // namespace sim
