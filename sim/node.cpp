#include "node.h"

#include "common/text.h"
#include "topics.h"
#include "world.h"

#include <cstdio>
#include <cstring>

namespace sim
{

namespace
{

constexpr time_t WALL_START = 1'700'000'000;
constexpr seconds RESTART_DELAY = seconds(2);
constexpr seconds CHANGE_ARRIVES = seconds(3);
constexpr seconds DYNAMIC_ARRIVES = seconds(15);
constexpr seconds STATIC_ARRIVES = seconds(60);
constexpr size_t KEPT_LINES = 8;

const std::string CARD_ADDRESS = "0x0007";
const std::string REVISION = "image:1.2.3\n";
const std::string PRIAPP_REVISION = "application:4.5\n";
const std::string COMMAND_LINE = "quiet bootrev=\"boot:2.0 build-77\"\n";

mac_address make_mac(size_t index)
{
    const size_t number = index + 1;
    return {0x02, 0, 0, 0, static_cast<uint8_t>(number >> 8), static_cast<uint8_t>(number)};
}

std::string make_text(const mac_address &mac)
{
    char text[18];
    snprintf(text, sizeof text, "%02X-%02X-%02X-%02X-%02X-%02X", mac[0], mac[1], mac[2], mac[3], mac[4],
             mac[5]);
    return text;
}

} // namespace

node::node(world &where, size_t index)
    : world_(where), index_(index), eth0_{2, true, make_mac(index)}, mac_text_(make_text(eth0_.mac)),
      broker_(where.clock(), where.topics(), *this, where.random(purpose::BROKER, index)), daemon_(*this),
      random_(where.random(purpose::FACTS, index))
{
    for (size_t port = 0; port < RING_PORTS; port++) {
        told_.ports[port].is_tracked = true;
    }
    for (size_t which = 0; which < TOPIC_ITEMS; which++) {
        item_topics_[which] = where.topics().number(
            topic_text(NODE_TOPIC_FORMAT, mac_text_.c_str(), ITEM_DESCRIPTIONS[which].topic).text);
    }
}

timeline &node::clock()
{
    return world_.clock();
}

//
// Power and supervision
//

void node::power_on()
{
    is_on_ = true;
    world_.fire().set_power(index_, true);
    start_broker();
    start_daemon();
    world_.connectivity_changed();
}

void node::power_off()
{
    is_on_ = false;
    is_wanted_ = false;
    kill_daemon();
    stop_broker();
    world_.fire().set_power(index_, false);
    world_.connectivity_changed();
}

void node::start_broker()
{
    if (broker_.is_running() || !is_on_) {
        return;
    }
    broker_.start();
    for (const auto &[topic, payload] : world_.addresses_known_to(index_)) {
        broker_.publish(topic, payload, true);
    }
    for (const fact_message &message : all_messages(told_, mac_text_)) {
        broker_.publish(world_.topics().number(message.topic), message.payload, true);
    }
    for (size_t which = 0; which < ITEMS; which++) {
        change(static_cast<item>(which), STATIC_ARRIVES);
    }
}

void node::stop_broker()
{
    world_.watch().broker_stops(*this);
    disturb_until(world_.clock().now() + seconds(5));
    broker_.stop();
}

void node::start_daemon()
{
    is_wanted_ = true;
    if (daemon_.is_alive() || !is_on_) {
        return;
    }
    started_ = world_.clock().now();
    last_log_.clear();
    failure_.reset();
    world_.count().daemon_starts++;
    world_.trace(index_, "daemon starts");
    world_.watch().starts(*this);
    daemon_.start({"-n", std::to_string(number())});
}

void node::stop_daemon()
{
    is_wanted_ = false;
    if (daemon_.is_alive()) {
        world_.trace(index_, "SIGTERM");
        world_.watch().told_to_stop(*this);
        daemon_.send_sigterm();
    }
}

void node::kill_daemon()
{
    if (daemon_.is_alive()) {
        world_.trace(index_, "killed");
        daemon_.kill();
        world_.watch().killed(*this);
    }
    if (is_wanted_ && !is_restarting_) {
        is_restarting_ = true;
        world_.clock().after<&node::supervise>(RESTART_DELAY, *this);
    }
}

void node::ended(int status)
{
    world_.trace(index_, "daemon has ended with status %d", status);
    world_.count().daemon_ends++;
    world_.watch().ended(*this, status);
    if (is_wanted_ && status != 0 && !is_restarting_) {
        is_restarting_ = true;
        world_.clock().after<&node::supervise>(RESTART_DELAY, *this);
    }
}

void node::supervise(uint64_t)
{
    is_restarting_ = false;
    if (is_wanted_) {
        start_daemon();
    }
}

void node::disturb_until(nanoseconds end)
{
    disturbed_until_ = std::max(disturbed_until_, end);
    broker_.doubt_until(end);
}

//
// Facts
//

void node::change(item which, nanoseconds within)
{
    due_[static_cast<size_t>(which)] =
        std::max(due_[static_cast<size_t>(which)], world_.clock().now() + within);
}

void node::say(const fact_message &message)
{
    for (const item which : message.changes) {
        const bool is_static = ITEM_DESCRIPTIONS[static_cast<size_t>(which)].is_static ||
                               (which == item::RINGS && !message.is_stamped);
        change(which, message.is_stamped ? CHANGE_ARRIVES : is_static ? STATIC_ARRIVES : DYNAMIC_ARRIVES);
    }
    if (!is_on_ || !broker_.is_running()) {
        return; // it is told when the broker is back
    }
    world_.count().facts++;
    world_.trace(index_, "fact %s, %zu bytes", message.topic.c_str(), message.payload.size());
    broker_.publish(world_.topics().number(message.topic), message.payload, true);
}

void node::tick_stats(uint64_t port)
{
    say(stats_message(told_, static_cast<int>(port), random_));
    world_.clock().after<&node::tick_stats>(world_.stats_period(), *this, port);
}

void node::begin_stats()
{
    for (uint64_t port = 0; port < RING_PORTS; port++) {
        world_.clock().after<&node::tick_stats>(random_.between(nanoseconds(0), world_.stats_period()), *this,
                                                port);
    }
}

//
// What the daemon sees and does
//

time_t node::wall_clock() const
{
    return WALL_START +
           static_cast<time_t>(
               (std::chrono::duration_cast<seconds>(world_.clock().now()) + wall_offset_).count());
}

const network_interface *node::find_interface(const char *name) const
{
    static const network_interface fire = {3, true, {}};
    return strcmp(name, "eth0") == 0 ? &eth0_ : strcmp(name, "fire") == 0 ? &fire : nullptr;
}

const std::string *node::find_file(const char *path) const
{
    if (strcmp(path, "/REVISION") == 0) {
        return &REVISION;
    }
    if (strcmp(path, "/REVISION_PRIAPP") == 0) {
        return &PRIAPP_REVISION;
    }
    if (strcmp(path, "/proc/cmdline") == 0) {
        return &COMMAND_LINE;
    }
    return strcmp(path, "/card/address") == 0 ? &CARD_ADDRESS : nullptr;
}

void node::send(uint32_t address, uint16_t port, const shared_bytes &datagram)
{
    if (port != fire_network::PORT) {
        return; // nobody listens there
    }
    world_.count().datagrams++;
    world_.trace_bytes(index_, "sends", address, datagram);
    world_.watch().sends(*this, address, datagram.bytes());
    world_.fire().send(index_, address, datagram);
}

void node::consume(uint32_t sender, const shared_bytes &datagram)
{
    world_.count().received++;
    world_.watch().receives(*this, sender, datagram.bytes());
}

void node::log(const char *line)
{
    world_.count().log_lines++;
    world_.trace(index_, "log %s", line);
    if (last_log_.size() >= KEPT_LINES) {
        last_log_.erase(last_log_.begin());
    }
    last_log_.emplace_back(line);
    world_.watch().logs(*this, line);
}

void node::misuse(const char *what)
{
    world_.fail("own-memory-and-descriptors", index_, "%s", what);
}

int node::failure_of(system_call call)
{
    if (!failure_ || failure_->call != call || failure_->skipped-- > 0) {
        return 0;
    }
    const int error = failure_->error;
    failure_.reset();
    world_.trace(index_, "a call fails, as planned");
    disturb_until(world_.clock().now() + seconds(1));
    world_.watch().excuse(*this, "a call that failed");
    return error;
}

void node::published(const mqtt_message &message)
{
    if (message.is_from_daemon) {
        world_.count().publications++;
        world_.trace_message(index_, message);
        if (message.topic == topic(item::PORT_SUMMARY)) {
            change(item::PORT_SUMMARY, CHANGE_ARRIVES);
        }
    }
    world_.watch().published(*this, message);
}

} // namespace sim
