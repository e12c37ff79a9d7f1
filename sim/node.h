// One card of the network: its broker, its processes' facts, the daemon and the supervision that starts it again.
#pragma once

#include "facts.h"
#include "fire_network.h"
#include "machine.h"
#include "mqtt_broker.h"
#include "process.h"
#include "random.h"

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

namespace sim
{

class world;

class node final : public machine, private mqtt_broker::observer, public fire_network::station
{
public:
    node(world &where, size_t index);

    size_t index() const { return index_; }
    uint8_t number() const { return static_cast<uint8_t>(index_ % 250 + 1); }
    const mac_address &mac() const { return eth0_.mac; }
    const std::string &mac_text() const { return mac_text_; }
    process &daemon() { return daemon_; }
    const process &daemon() const { return daemon_; }
    mqtt_broker &broker() override { return broker_; }
    const mqtt_broker &broker() const { return broker_; }
    facts &told() { return told_; }
    const facts &told() const { return told_; }
    topic_id topic(item which) const { return item_topics_[static_cast<size_t>(which)]; }

    // Power, and what the supervision is told.
    void power_on();
    void power_off();
    void start_daemon();
    void stop_daemon(); // by SIGTERM, not started again
    void kill_daemon(); // as the kernel does; started again
    void stop_broker();
    void start_broker();
    bool is_on() const { return is_on_; }
    bool is_wanted() const { return is_wanted_; } // the supervision starts it again

    void say(const fact_message &message);
    void begin_stats(); // of the ring ports, for ever
    void step_wall_clock(seconds step) { wall_offset_ += step; }
    // How long ago this life of the daemon began; only while it is alive.
    nanoseconds started() const { return started_; }
    // Until when its broker, its processor or its clients made it slower than it would be.
    nanoseconds disturbed_until() const { return disturbed_until_; }
    // That, or until its daemon started.
    nanoseconds unsettled_until() const { return std::max(started_, disturbed_until_); }
    void disturb_until(nanoseconds end);
    // When others have to know an item by, once they can hear it.
    nanoseconds due(item which) const { return due_[static_cast<size_t>(which)]; }
    void change(item which, nanoseconds within);
    const std::vector<std::string> &last_log() const { return last_log_; }
    // The daemon's call-th from now of these calls fails with this error, if it lives so long.
    void fail_next(system_call call, int error, unsigned skipped) { failure_ = {call, error, skipped}; }
    void fail_none() { failure_.reset(); }

    // machine
    timeline &clock() override;
    time_t wall_clock() const override;
    const network_interface *find_interface(const char *name) const override;
    int process_id() const override { return static_cast<int>(100 + index_); }
    const std::string *find_file(const char *path) const override;
    int failure_of(system_call call) override;
    void send(uint32_t address, uint16_t port, const shared_bytes &datagram) override;
    void consume(uint32_t sender, const shared_bytes &datagram) override;
    void log(const char *line) override;
    void misuse(const char *what) override;
    void ended(int status) override;
    // fire_network::station
    void receive(const datagram &received) override { daemon_.receive(received); }

private:
    void published(const mqtt_message &message) override;
    void supervise(uint64_t);
    void tick_stats(uint64_t port);

    world &world_;
    size_t index_;
    network_interface eth0_;
    std::string mac_text_;
    mqtt_broker broker_;
    process daemon_;
    facts told_;
    random_stream random_;
    bool is_on_ = false;
    bool is_wanted_ = false;
    bool is_restarting_ = false;
    nanoseconds started_{};
    nanoseconds disturbed_until_{};
    seconds wall_offset_{};
    std::array<nanoseconds, ITEMS> due_{};
    struct failure {
        system_call call;
        int error;
        unsigned skipped;
    };
    std::optional<failure> failure_;
    std::vector<std::string> last_log_; // of this life
    std::array<topic_id, TOPIC_ITEMS> item_topics_{};
};

} // namespace sim
