// A card whose port processes speak and whose ports clients read. Without a port, everything is about port B.
#pragma once

#include "card.h"
#include "common/bytes.h"
#include "records.h"

#include <array>
#include <cstring>
#include <string_view>
#include <utility>

namespace card
{

inline constexpr time_t TEN_O_CLOCK = 1'704'103'200; // 2024-01-01 10:00:00 UTC

// "stats", "pm/period3"
inline std::string published_topic(const std::string &name, const std::string &port = "B")
{
    return OWN_TOPIC + "/" + port + "/" + name;
}

inline const std::string PORT_SUMMARY = OWN_TOPIC + "/port_summary";
inline const std::string PORT_MEDIA = OWN_TOPIC + "/port_media";

//
// What the port processes publish
//

// Not retained: a port that is tracked again starts without it.
inline void tell(const std::string &name, const std::string &payload, const std::string &port = "B")
{
    publish("local/diag/port/" + port + "/" + name, payload, false);
}

inline std::string byte(int value)
{
    return {static_cast<char>(value)};
}

// A number as the card's processes write it.
template <typename Number>
std::string host_bytes(Number value)
{
    return {reinterpret_cast<const char *>(&value), sizeof value};
}

// A statistics payload with these fields, and 0 in the others.
using counters = std::vector<std::pair<std::string_view, uint64_t>>;
inline std::string stats_payload(const counters &values)
{
    uint8_t block[STATS_BLOCK_SIZE] = {};
    for (const auto &[name, value] : values) {
        for (const stats_field &field : STATS_FIELDS) {
            if (field.name == name) {
                store_host(block + field.offset, field.width, value);
            }
        }
    }
    return {block, block + sizeof block};
}

// A ring protection status with this state, and filler in all other bytes.
inline std::string erps_payload(uint32_t state, uint8_t filler = 0)
{
    std::string payload(ERPS_STATUS_SIZE, static_cast<char>(filler));
    return payload.replace(ERPS_STATUS_STATE, sizeof state, host_bytes(state));
}

inline void track(const std::string &type = "fire", const std::string &port = "B")
{
    tell("type", type, port);
}

inline void untrack(const std::string &port = "B")
{
    tell("type", "", port);
}

inline void link_down(int value, const std::string &port = "B")
{
    tell("link_down", byte(value), port);
}

inline void ground(int value, const std::string &port = "B")
{
    tell("grnd", byte(value), port);
}

inline void media(int code, const std::string &port = "B")
{
    tell("media", byte(code), port);
}

inline void erps(uint32_t state, const std::string &port = "B")
{
    tell("status", erps_payload(state), port);
}

inline void stats(const counters &values = {}, const std::string &port = "B")
{
    tell("stats", stats_payload(values), port);
}

// Makes the port tracked and green, with counters that are all 0 as its start.
inline void bring_up(const std::string &port = "B")
{
    track("fire", port);
    link_down(0, port);
    erps(0, port);
    stats({}, port);
}

//
// What clients find
//

inline std::string held(const std::string &name, const std::string &port = "B")
{
    return retained(published_topic(name, port));
}

template <typename Fields>
uint64_t read_field(const Fields &fields, const std::string &record, std::string_view name)
{
    for (const auto &field : fields) {
        if (field.name == name && field.offset + field.width <= record.size()) {
            return load_be(reinterpret_cast<const uint8_t *>(record.data()) + field.offset, field.width);
        }
    }
    ADD_FAILURE() << "no " << name << " in " << record.size() << " bytes";
    return 0;
}

inline uint64_t stat(std::string_view name, const std::string &port = "B")
{
    return read_field(STATS_FIELDS, held("stats", port), name);
}

// "period3", "day0"
inline uint64_t pm(const std::string &slot, std::string_view name, const std::string &port = "B")
{
    return read_field(PM_FIELDS, held("pm/" + slot, port), name);
}

// Times and seconds with the link down, and with the ring port down, in "stats" or "pm/day0".
using down = std::array<uint64_t, 4>;
inline down down_figures(const std::string &name)
{
    const auto read = [record = held(name), is_pm = name != "stats"](std::string_view field) {
        return is_pm ? read_field(PM_FIELDS, record, field) : read_field(STATS_FIELDS, record, field);
    };
    return {read("link_down_count"), read("link_down_seconds"), read("erps_down_count"),
            read("erps_down_seconds")};
}

// "none" for a port without one.
inline std::string colour(const std::string &port = "B")
{
    const std::string summary = retained(PORT_SUMMARY);
    const std::string key = "\"" + port + "\":\"";
    const size_t found = summary.find(key);
    if (found == std::string::npos) {
        return "none";
    }
    const size_t start = found + key.size();
    return summary.substr(start, summary.find('"', start) - start);
}

//
// The quarter hours
//

class stats_node : public started_node
{
public:
    // Sets the wall clock so that the timer of the periods next expires at this time, and lets it expire.
    void tick_at(time_t wall_time)
    {
        set_wall_clock(wall_time - static_cast<time_t>((expiry_ - now()) / 1s));
        wall_ = wall_time - PERIOD;
        delay_ = PERIOD;
        tick();
    }
    // Lets it expire as it is armed, and expects it to be armed for the next quarter hour, beyond the one that
    // is less than 30 s away.
    void tick()
    {
        advance(expiry_ - now());
        wall_ += delay_;
        const time_t past_boundary = wall_ % PERIOD;
        delay_ = (past_boundary > PERIOD - 30 ? 2 : 1) * PERIOD - past_boundary;
        expiry_ = now() + std::chrono::seconds(delay_);
        EXPECT_TRUE(has_timer(std::chrono::seconds(delay_))) << delay_;
    }
    void ticks(unsigned count)
    {
        for (unsigned i = 0; i < count; i++) {
            tick();
        }
    }

protected:
    void SetUp() override
    {
        started_node::SetUp();
        expiry_ = now() + 30s;
        EXPECT_TRUE(has_timer(30s));
    }

private:
    static constexpr time_t PERIOD = 900;

    duration expiry_{};
    time_t wall_ = 0;  // at the last expiry
    time_t delay_ = 0; // from it to the next
};

} // namespace card
