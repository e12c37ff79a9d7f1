// A card without others, for whoever runs one daemon and plays the rest of the world: its broker answers at once, and
// what the daemon does goes to whoever overrides the hooks of machine.
#pragma once

#include "machine.h"
#include "mqtt_broker.h"
#include "process.h"

#include <span>
#include <string_view>

namespace sim
{

class lone_card : public machine, protected mqtt_broker::observer
{
public:
    static constexpr mac_address MAC = {0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E};

    lone_card();
    ~lone_card() { daemon_.kill(); }

    process &daemon() { return daemon_; }
    const process &daemon() const { return daemon_; }
    mqtt_broker &broker() override { return broker_; }
    timeline &clock() override { return clock_; }
    nanoseconds now() const { return clock_.now(); }
    const network_interface *find_interface(const char *) const override { return &interface_; }
    time_t wall_clock() const override;
    int process_id() const override { return 100; }
    const std::string *find_file(const char *path) const override;
    int failure_of(system_call) override { return 0; }

    // Starts the daemon's main and lets it run to its event loop or its end.
    void start(std::vector<std::string> options);

    // What happens to the daemon, which does all that it can do then.
    void publish(std::string_view topic, std::span<const uint8_t> payload, bool retain = false);
    void receive(uint32_t sender, std::span<const uint8_t> datagram);
    void run_for(nanoseconds time) { clock_.run_until(clock_.now() + time); }
    // Time passes without the daemon, which then catches up.
    void stall_for(nanoseconds time);

    // What the daemon does.
    void send(uint32_t, uint16_t, const shared_bytes &) override {}
    void consume(uint32_t, const shared_bytes &) override {}
    void log(const char *) override {}
    [[noreturn]] void misuse(const char *what) override;
    void ended(int) override {}

protected:
    void published(const mqtt_message &) override {}
    topic_table &topics() { return topics_; }

private:
    timeline clock_;
    topic_table topics_;
    network_interface interface_ = {1, true, MAC};
    mqtt_broker broker_;
    process daemon_;
};

} // namespace sim
