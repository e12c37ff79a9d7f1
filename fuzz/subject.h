// The daemon that an input is played to: main and all modules on a card of the simulated platform.
//
// Besides what the sanitizers see, these abort the program: using a descriptor after its close, leaving one open that
// nothing watches, a read that would block, memory returned twice or by the wrong operator, memory that nobody holds
// any more, a packet that no receiver takes, a disorderly end on SIGTERM, and an end by the daemon's own decision for any
// reason but those that it is meant to end for.
#pragma once

#include "lone_card.h"

#include <optional>
#include <string>
#include <vector>

namespace fuzz
{

class subject : public sim::lone_card
{
public:
    static constexpr const char *OWN_TOPICS = "pub/diag/00-1A-2B-3C-4D-5E/";

    void start() { lone_card::start({"-n", "7"}); }
    // SIGTERM where it is still alive, and the checks at the end.
    void finish();
    // What memory or descriptors show that shouldn't be, null for nothing.
    const char *find_litter();
    // A message of another client, unless no broker takes its topic.
    void publish(const std::string &topic, std::span<const uint8_t> payload, bool retain);
    // The right response to the challenge that is published.
    std::string right_response() const;

    // sim::machine
    void send(uint32_t address, uint16_t port, const sim::shared_bytes &datagram) override;
    void log(const char *line) override;
    void ended(int status) override;

protected:
    void published(const sim::mqtt_message &message) override;
    std::vector<std::string> lines_;
    std::optional<int> status_;

private:
    std::string challenge_;
};

} // namespace fuzz
