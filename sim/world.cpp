#include "world.h"
#include "topics.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <charconv>
#include <cstdarg>

namespace sim
{

namespace
{

constexpr size_t FULL_ACQUAINTANCE = 64; // up to so many nodes each card knows every other's fire address
constexpr size_t NEIGHBOURS = 16;
constexpr size_t SHOWN_BYTES = 40;                 // of a message in a trace
constexpr nanoseconds SAMPLE_PERIOD = seconds(61); // no multiple of what the daemons do

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
    monitor_.add(make_statistics_checker(*this));
    monitor_.add(make_performance_checker(*this));
    monitor_.add(make_resources_checker(*this));
}

std::vector<std::pair<topic_id, shared_bytes>> world::addresses_known_to(size_t index)
{
    std::vector<std::pair<topic_id, shared_bytes>> known;
    for (const size_t peer : peers_[index]) {
        const in_addr address = {.s_addr = htonl(fire_network::address(peer))};
        char text[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &address, text, sizeof text);
        known.emplace_back(topics_.number(FIRE_IP_PREFIX + at(peer).mac_text() + FIRE_IP_SUFFIX),
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

size_t world::find_owner(std::string_view topic) const
{
    if (!topic.starts_with(DIAG_PREFIX) || topic.size() < OWN_TOPIC_PREFIX) {
        return size();
    }
    mac_address mac{};
    for (size_t i = 0; i < mac.size(); i++) {
        const char *const digits = topic.data() + DIAG_PREFIX.size() + 3 * i;
        std::from_chars(digits, digits + 2, mac[i], 16);
    }
    return find_node(mac);
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
        each->fail_none();
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
