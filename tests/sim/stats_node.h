// A node as the card's port processes feed it and as clients see its ports. Without a port, everything is
// about port B.
#pragma once

#include "common/bytes.h"
#include "platform.h"
#include "records.h"

#include <array>
#include <cstring>
#include <string_view>
#include <utility>

namespace sim
{

inline constexpr time_t TEN_O_CLOCK = 1'704'103'200; // 2024-01-01 10:00:00 UTC

inline std::string local_topic(const std::string &name, const std::string &port = "B")
{
    return "local/diag/port/" + port + "/" + name;
}

// "stats", "pm/period3"
inline std::string published_topic(const std::string &name, const std::string &port = "B")
{
    return "pub/diag/" + LOCAL_MAC_TEXT + "/" + port + "/" + name;
}

inline const std::string PORT_SUMMARY = "pub/diag/" + LOCAL_MAC_TEXT + "/port_summary";
inline const std::string PORT_MEDIA = "pub/diag/" + LOCAL_MAC_TEXT + "/port_media";

//
// What the port processes publish
//

// Not retained: a port that is tracked again starts without it.
inline void tell(const std::string &name, const std::string &payload, const std::string &port = "B")
{
    publish(local_topic(name, port), payload, false);
}

inline std::string byte(int value)
{
    return {static_cast<char>(value)};
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
    uint8_t payload[ERPS_STATUS_SIZE];
    memset(payload, filler, sizeof payload);
    store_host(payload + ERPS_STATUS_STATE, state);
    return {payload, payload + sizeof payload};
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

// Empty when the broker holds nothing.
inline std::string held(const std::string &name, const std::string &port = "B")
{
    const auto found = retained().find(published_topic(name, port));
    return found == retained().end() ? "" : found->second;
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

// Times and seconds with the link down, and with the ring port down.
using down_figures = std::array<uint64_t, 4>;
template <typename Fields>
down_figures read_down_figures(const Fields &fields, const std::string &record)
{
    return {read_field(fields, record, "link_down_count"), read_field(fields, record, "link_down_seconds"),
            read_field(fields, record, "erps_down_count"), read_field(fields, record, "erps_down_seconds")};
}

inline down_figures stat_down()
{
    return read_down_figures(STATS_FIELDS, held("stats"));
}

inline down_figures pm_down(const std::string &slot)
{
    return read_down_figures(PM_FIELDS, held("pm/" + slot));
}

// "none" for a port without one.
inline std::string colour(const std::string &port = "B")
{
    const std::string &summary = retained()[PORT_SUMMARY];
    const std::string key = "\"" + port + "\":\"";
    const size_t found = summary.find(key);
    if (found == std::string::npos) {
        return "none";
    }
    const size_t start = found + key.size();
    return summary.substr(start, summary.find('"', start) - start);
}

//
// The node
//

class stats_node : public node
{
public:
    // Sets the wall clock so that the PM timer next expires at this time, and lets it expire.
    void tick_at(time_t wall_time)
    {
        set_wall_clock(wall_time - static_cast<time_t>((pm_expiry - now()) / 1s));
        wall = wall_time - PM_PERIOD;
        delay = PM_PERIOD;
        tick();
    }
    // Lets it expire as it is armed, and expects it to be armed for the next quarter hour, beyond the one that
    // is less than 30 s away.
    void tick()
    {
        advance(pm_expiry - now());
        wall += delay;
        const time_t past_boundary = wall % PM_PERIOD;
        delay = (past_boundary > PM_PERIOD - 30 ? 2 : 1) * PM_PERIOD - past_boundary;
        pm_expiry = now() + std::chrono::seconds(delay);
        EXPECT_TRUE(!is_running() || find_timer(std::chrono::seconds(delay)) == pm_timer) << delay;
    }
    void ticks(unsigned count)
    {
        for (unsigned i = 0; i < count; i++) {
            tick();
        }
    }

    int pm_timer = -1;

protected:
    void SetUp() override
    {
        start_node(7);
        pm_timer = find_timer(30s);
        pm_expiry = now() + 30s;
    }

private:
    static constexpr time_t PM_PERIOD = 900;

    duration pm_expiry{};
    time_t wall = 0;  // at the last expiry
    time_t delay = 0; // from it to the next
};

} // namespace sim
