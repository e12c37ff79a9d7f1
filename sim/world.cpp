#include "world.h"

#include "remote.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <cerrno>
#include <cstdarg>

namespace sim
{

namespace
{

constexpr size_t FULL_ACQUAINTANCE = 64; // up to so many nodes each card knows every other's fire address
constexpr size_t NEIGHBOURS = 16;
constexpr size_t SHOWN_BYTES = 40;                 // of a message in a trace
constexpr nanoseconds SAMPLE_PERIOD = seconds(61); // no multiple of what the daemons do

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

double in_seconds(nanoseconds time)
{
    return static_cast<double>(time.count()) / 1e9;
}

} // namespace

world::world(const settings &chosen, FILE *trace, const reporter &out)
    : settings_(chosen), fire_(clock_, random_stream(chosen.seed, static_cast<uint64_t>(purpose::NETWORK)),
                               chosen.shape, chosen.nodes),
      cuts_(fire_.count_links()), trace_(trace), out_(out)
{
    random_stream random = this->random(purpose::ADDRESSES);
    for (size_t i = 0; i < chosen.nodes; i++) {
        nodes_.push_back(std::make_unique<node>(*this, i));
        clients_.push_back(std::make_unique<client_group>(*this, *nodes_.back()));
        fire_.attach(i, *nodes_.back());
        std::vector<size_t> &peers = peers_.emplace_back();
        for (size_t j = 1; j < std::min(chosen.nodes, FULL_ACQUAINTANCE); j++) {
            const bool is_near = chosen.nodes <= FULL_ACQUAINTANCE || j < NEIGHBOURS;
            const size_t peer =
                is_near ? (i + j) % chosen.nodes : random.below(static_cast<uint32_t>(chosen.nodes));
            if (peer != i && std::ranges::find(peers, peer) == peers.end()) {
                peers.push_back(peer);
            }
        }
    }
    monitor_.add(make_packets_checker(*this));
    monitor_.add(make_payloads_checker(*this));
    monitor_.add(make_ends_checker(*this));
    monitor_.add(make_requests_checker(*this));
    monitor_.add(make_subscriptions_checker(*this));
    monitor_.add(make_topics_checker(*this));
    monitor_.add(make_resources_checker(*this));
}

std::vector<std::pair<topic_id, shared_bytes>> world::addresses_known_to(size_t index)
{
    std::vector<std::pair<topic_id, shared_bytes>> known;
    for (const size_t peer : peers_[index]) {
        const in_addr address = {.s_addr = htonl(fire_network::address(peer))};
        char text[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &address, text, sizeof text);
        known.emplace_back(topics_.number("local/diag/node/" + at(peer).mac_text() + "/fire_ip"),
                           shared_bytes(text));
    }
    return known;
}

size_t world::find_node(std::span<const uint8_t> mac) const
{
    const size_t index = (size_t{mac[4]} << 8 | mac[5]) - 1;
    return index < nodes_.size() && std::ranges::equal(nodes_[index]->mac(), mac.first(6)) ? index
                                                                                           : nodes_.size();
}

//
// The run
//

void world::run(const std::vector<planned> &plan)
{
    plan_ = &plan;
    random_stream random = this->random(purpose::PLAN);
    for (const auto &each : nodes_) {
        clock_.run_until(clock_.now() +
                         random.between(nanoseconds(0), seconds(2)) / static_cast<int64_t>(nodes_.size()));
        each->power_on();
        each->begin_stats();
    }
    const nanoseconds start = clock_.now();
    for (size_t i = 0; i < plan.size(); i++) {
        clock_.at<&world::happen>(start + plan[i].when, *this, i);
    }
    for (nanoseconds round = start; round < start + settings_.length; round += ROUND) {
        clock_.at<&world::calm>(round + TURBULENCE, *this, 0);
        clock_.at<&world::calm>(round + ROUND - milliseconds(1), *this, 1);
    }
    clock_.after<&world::sample>(SAMPLE_PERIOD, *this);
    clock_.run_until(start + settings_.length);
    tally_.events = clock_.events();
    tally_.lost = fire_.count_lost();
}

void world::sample(uint64_t)
{
    tally_.checks++;
    monitor_.sample();
    tally_.events = clock_.events();
    out_.progress(clock_.now(), tally_);
    clock_.after<&world::sample>(SAMPLE_PERIOD, *this);
}

void world::calm(uint64_t is_end)
{
    if (is_end != 0) {
        tally_.checks++;
        monitor_.calm();
        return;
    }
    for (const auto &each : nodes_) {
        each->daemon().fail_none();
    }
}

//
// What is planned
//

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
        target.daemon().fail_next(failure.call, failure.error, random.below(20));
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
}

// Datagrams that every receiver has to drop.
void world::garbage(node &target, random_stream &random)
{
    for (unsigned count = 1 + random.below(30); count > 0; count--) {
        std::vector<uint8_t> bytes(HEADER_SIZE + random.below(40));
        std::ranges::generate(bytes, [&] { return static_cast<uint8_t>(random.next()); });
        switch (random.below(4)) {
        case 0:
            bytes.resize(random.below(HEADER_SIZE));
            break;
        case 1:
            bytes.resize(MAX_PACKET_SIZE + 1 + random.below(400));
            break;
        case 2:
            bytes[PACKET_OFFSET_TYPE] = static_cast<uint8_t>(random.chance(0.5) ? 0 : 13 + random.below(200));
            break;
        default:
            bytes[PACKET_OFFSET_LENGTH] = 1; // longer than the datagram
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
        std::ranges::copy(at(other).mac(), bytes + PACKET_OFFSET_SOURCE_MAC);
        fire_.send(other, fire_network::address(target.index()), {bytes, sizeof bytes - 1});
        break;
    }
    default: {
        const topic_id media = topics_.number("local/diag/port/A/media");
        const uint8_t unknown = 7;
        const uint8_t known = target.told().ports[0].media;
        target.broker().publish(media, {&unknown, 1}, true);
        target.broker().publish(media, {&known, 1}, true);
        break;
    }
    }
}

//
// Trace and violations
//

void world::trace(size_t index, const char *format, ...)
{
    if (!is_traced()) {
        return;
    }
    fprintf(trace_, "%17.9f node %-4zu ", in_seconds(clock_.now()), index + 1);
    va_list arguments;
    va_start(arguments, format);
    vfprintf(trace_, format, arguments);
    va_end(arguments);
    fputc('\n', trace_);
}

void world::trace_bytes(size_t index, const char *what, uint32_t address, const shared_bytes &datagram)
{
    if (!is_traced()) {
        return;
    }
    fprintf(trace_, "%17.9f node %-4zu %s to %u.%u.%u.%u:", in_seconds(clock_.now()), index + 1, what,
            address >> 24, address >> 16 & 255, address >> 8 & 255, address & 255);
    for (const uint8_t byte : datagram.bytes()) {
        fprintf(trace_, " %02X", byte);
    }
    fputc('\n', trace_);
}

void world::trace_message(size_t index, const mqtt_message &message)
{
    if (!is_traced()) {
        return;
    }
    std::string start(message.payload.text().substr(0, SHOWN_BYTES));
    std::ranges::replace_if(
        start, [](unsigned char each) { return isprint(each) == 0; }, '.');
    trace(index, "publishes%s %s, %zu bytes: %s", message.is_retained ? "" : " (not retained)",
          topics_.name(message.topic).c_str(), message.payload.size(), start.c_str());
}

void world::report(const char *invariant, int64_t index, int64_t other, const char *format, va_list arguments)
{
    violation found{};
    snprintf(found.invariant, sizeof found.invariant, "%s", invariant);
    vsnprintf(found.text, sizeof found.text, format, arguments);
    found.when = clock_.now();
    found.nodes[0] = index;
    found.nodes[1] = other;
    trace(static_cast<size_t>(index), "VIOLATION of %s: %s", invariant, found.text);
    out_.violated(found, tally_);
    abort();
}

void world::fail(const char *invariant, size_t index, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    report(invariant, static_cast<int64_t>(index), -1, format, arguments);
}

void world::fail(const char *invariant, size_t index, size_t other, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    report(invariant, static_cast<int64_t>(index), static_cast<int64_t>(other), format, arguments);
}

} // namespace sim
