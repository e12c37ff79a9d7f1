#include "subject.h"

#include "auth.h"
#include "broker/challenge.h"
#include "packet.h"
#include "topics.h"

#include <mosquitto.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace fuzz
{

namespace
{

// The faults that end the daemon by intent, by a message that is logged on their paths only.
constexpr std::string_view MEANT_TO_END[] = {
    "couldn't process reset-stats request",        // for a port that is not tracked
    "couldn't publish data on topic",              // topic data that no broker takes
    "couldn't check if pub/diag/",                 // a served filter that the matcher rejects
    "couldn't send subscribe/unsubscribe request", // to a fire address that is none
    "couldn't udpate port media in summary",       // a media code that does not exist
};

const word_table WORDS = {
#include "secrets.inc"
};

bool is_meant_to_end(const std::string &line)
{
    return std::ranges::any_of(
        MEANT_TO_END, [&line](std::string_view each) { return line.find(each) != std::string::npos; });
}

} // namespace

void subject::finish()
{
    if (!status_) {
        if (const char *const litter = find_litter(); litter != nullptr) {
            misuse(litter);
        }
        daemon().send_sigterm();
        run_for(sim::seconds(2));
        if (status_ != EXIT_SUCCESS) {
            misuse("SIGTERM does not end the daemon");
        }
    } else if (std::ranges::none_of(lines_, is_meant_to_end)) {
        misuse("the daemon has ended itself");
    }
}

void subject::publish(const std::string &topic, std::span<const uint8_t> payload, bool retain)
{
    const std::string name = topic.substr(0, topic.find('\0'));
    if (!name.empty() &&
        mosquitto_validate_utf8(name.data(), static_cast<int>(name.size())) == MOSQ_ERR_SUCCESS &&
        mosquitto_pub_topic_check(name.c_str()) == MOSQ_ERR_SUCCESS) {
        lone_card::publish(name, payload, retain);
    }
}

std::string subject::right_response() const
{
    return challenge_response(challenge_, WORDS).value_or("");
}

void subject::send(uint32_t, uint16_t, const sim::shared_bytes &datagram)
{
    if (datagram.size() > MAX_PACKET_SIZE) {
        misuse("a packet is sent that is too large");
    }
}

void subject::log(const char *line)
{
    static const bool is_shown = getenv("FUZZ_LOG") != nullptr;
    if (is_shown) {
        fprintf(stderr, "%s\n", line);
    }
    lines_.emplace_back(line);
}

void subject::ended(int status)
{
    status_ = status;
}

void subject::published(const sim::mqtt_message &message)
{
    if (message.is_from_daemon && topics().name(message.topic) == CHALLENGE_TOPIC) {
        challenge_ = message.payload.text();
    }
}

const char *subject::find_litter()
{
    if (daemon().find_unwatched() != -1) {
        return "a descriptor is open that nothing watches";
    }
    return daemon().find_leak() == 0 ? nullptr : "memory has leaked";
}

} // namespace fuzz
