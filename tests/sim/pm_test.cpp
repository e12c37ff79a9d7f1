// Performance-monitoring periods and days, and resets.
#include "packets.h"
#include "ports.h"
#include "stats.h"

using namespace card;

namespace
{

class periods : public stats_node
{
protected:
    // Port B is up and has counted nothing when a period starts, at ten o'clock.
    void SetUp() override
    {
        stats_node::SetUp();
        tick_at(TEN_O_CLOCK);
        bring_up();
    }
};

using resets = periods;

// Each tick is also checked for how it arms the timer.
TEST_F(periods, tick_less_than_30_s_from_a_quarter_hour_closes_a_period)
{
    const struct {
        int hour;
        int minute;
        int second;
        bool closes;
    } cases[] = {
        {10, 7, 20, false},  {10, 14, 29, false}, {10, 14, 30, false}, {10, 14, 31, true},
        {10, 14, 59, true},  {10, 15, 0, true},   {10, 15, 29, true},  {10, 15, 30, false},
        {10, 15, 31, false}, {10, 59, 30, false}, {10, 59, 31, true},  {23, 59, 59, true},
        {0, 0, 29, true},    {0, 0, 30, false},
    };
    for (const auto &[hour, minute, second, closes] : cases) {
        take_published();
        tick_at(TEN_O_CLOCK + (hour - 10) * 3600 + minute * 60 + second);
        EXPECT_EQ(!take_published().empty(), closes) << hour << ':' << minute << ':' << second;
    }
}

TEST_F(periods, record_has_the_layout_that_clients_read)
{
    link_down(1);
    advance(3s);
    link_down(0);
    stats({{"good_frames", 258}, {"errored_frames", 2}});
    take_published();
    tick();
    EXPECT_EQ(take_published(), messages({{published_topic("pm/period0"),
                                           bytes("00 00 00 00 65 92 90 A4 00 00 00 00 00 00 00 00"
                                                 "00 00 00 00 00 00 01 02 00 00 00 00 00 00 00 02"
                                                 "00 00 00 01 00 00 00 03 00 00 00 00 00 00 00 00"
                                                 "00 00 1E 0C 00 00 00 00")},
                                          {published_topic("pm/last_period"), "period0"}}));
}

TEST_F(periods, differences_survive_counters_that_wrap)
{
    media(1);
    stats({{"count64_0", UINT64_MAX}, {"errored_frames", UINT32_MAX}, {"dsl_count_60", UINT32_MAX}});
    tick();
    stats({{"count64_0", 1}, {"errored_frames", 1}, {"dsl_count_60", 5}});
    tick();
    EXPECT_EQ(pm("period0", "count64_0"), UINT64_MAX);
    EXPECT_EQ(pm("period0", "errored_frames"), UINT32_MAX);
    EXPECT_EQ(pm("period0", "dsl_count_60"), UINT32_MAX);
    EXPECT_EQ(pm("period1", "count64_0"), 2U);
    EXPECT_EQ(pm("period1", "errored_frames"), 2U);
    EXPECT_EQ(pm("period1", "dsl_count_60"), 5U);
    stats({{"dsl_count_60", 5}});
    media(0);
    tick();
    EXPECT_EQ(pm("period2", "dsl_count_60"), 0U); // not a DSL port any more
}

TEST_F(periods, first_period_of_a_port_starts_at_its_first_payload)
{
    advance(5min);
    track("fire", "C");
    advance(5min);
    stats({{"good_frames", 1000}}, "C");
    stats({{"good_frames", 1010}}, "C");
    track("fire", "D"); // says nothing before the boundary
    tick();
    EXPECT_EQ(pm("period0", "good_frames", "C"), 10U);
    EXPECT_EQ(pm("period0", "good_frames", "D"), 0U);
    stats({{"good_frames", 1030}}, "C");
    stats({{"good_frames", 5000}}, "D");
    tick();
    EXPECT_EQ(pm("period1", "good_frames", "C"), 20U);
    EXPECT_EQ(pm("period1", "good_frames", "D"), 0U);
}

TEST_F(periods, down_time_is_cut_at_the_boundary)
{
    advance(10min);
    link_down(1);
    advance(2min);
    erps(1);
    tick();
    advance(100s);
    link_down(0);
    erps(0);
    EXPECT_EQ(colour(), "red"); // with seconds in the running period
    tick();
    EXPECT_EQ(colour(), "yellow");
    EXPECT_EQ(down_figures("pm/period0"), down({1, 300, 1, 180}));
    EXPECT_EQ(down_figures("pm/period1"), down({0, 100, 0, 100}));
}

TEST_F(periods, missed_boundary_leaves_the_period_open)
{
    stats({{"good_frames", 1}});
    tick_at(TEN_O_CLOCK + 22 * 60); // set forwards by 7 minutes
    EXPECT_EQ(held("pm/period0"), "");
    stats({{"good_frames", 3}});
    tick();
    EXPECT_EQ(pm("period0", "good_frames"), 3U);
    EXPECT_EQ(pm("period0", "time"), uint64_t{TEN_O_CLOCK + 30 * 60});
    stats({{"good_frames", 6}});
    tick_at(TEN_O_CLOCK + 40 * 60); // set backwards by 5 minutes
    stats({{"good_frames", 10}});
    tick();
    EXPECT_EQ(pm("period1", "good_frames"), 7U);
    EXPECT_EQ(pm("period1", "time"), uint64_t{TEN_O_CLOCK + 45 * 60});
    tick_at(TEN_O_CLOCK + 59 * 60 + 40); // set backwards by 20 seconds: the boundary of eleven o'clock
    EXPECT_EQ(pm("period2", "time"), uint64_t{TEN_O_CLOCK + 59 * 60 + 40});
    tick();
    EXPECT_EQ(pm("period3", "time"), uint64_t{TEN_O_CLOCK + 75 * 60});
}

TEST_F(periods, slots_wrap_after_a_day_and_days_after_a_week)
{
    for (int day = 0; day < 8; day++) {
        for (int period = 0; period < 96; period++) {
            const std::string last_day = held("pm/last_day");
            EXPECT_EQ(last_day, day == 0 ? "" : "day" + std::to_string((day - 1) % 7));
            tick();
            EXPECT_EQ(held("pm/last_period"), "period" + std::to_string(period));
        }
    }
    EXPECT_EQ(held("pm/last_day"), "day0");
    EXPECT_EQ(pm("day0", "time"), uint64_t{TEN_O_CLOCK + 8 * 86400});
    EXPECT_EQ(pm("day1", "time"), uint64_t{TEN_O_CLOCK + 2 * 86400});
}

TEST_F(periods, quarter_hour_and_day_close_when_the_time_has_outgrown_32_bits)
{
    constexpr time_t NEW_YEAR_2040 = 2'208'988'800;
    tick_at(NEW_YEAR_2040);
    EXPECT_EQ(pm("period0", "time"), uint64_t{NEW_YEAR_2040});
    ticks(95);
    EXPECT_EQ(held("pm/last_day"), "day0");
    EXPECT_EQ(pm("day0", "time"), uint64_t{NEW_YEAR_2040 + 95 * 900});
}

TEST_F(periods, day_adds_up_its_periods_and_takes_the_present_error_ratio)
{
    media(1);
    for (uint64_t period = 1; period <= 96; period++) {
        if (period % 32 == 0) {
            link_down(1);
            erps(1);
            advance(2s);
            link_down(0);
            erps(0);
        }
        stats({{"count64_0", period << 60},
               {"good_frames", period << 33},
               {"errored_frames", period << 31},
               {"dsl_count_60", 0x10000000}});
        tick();
    }
    EXPECT_EQ(pm("day0", "count64_0"), 0U); // 96 << 60, modulo 2^64
    EXPECT_EQ(pm("day0", "good_frames"), uint64_t{96} << 33);
    EXPECT_EQ(pm("day0", "errored_frames"), uint64_t{96} << 31);
    EXPECT_EQ(down_figures("pm/day0"), down({3, 6, 3, 6}));
    EXPECT_EQ(pm("day0", "dsl_count_60"), 0U); // 96 << 28, modulo 2^32
    EXPECT_EQ(pm("day0", "error_ratio_ppm"), stat("error_ratio_ppm"));
}

TEST_F(periods, missed_boundary_starts_the_day_anew)
{
    stats({{"good_frames", 7}});
    ticks(10);
    tick_at(TEN_O_CLOCK + 7 * 60);
    ticks(95);
    EXPECT_EQ(held("pm/last_day"), "");
    tick();
    EXPECT_EQ(held("pm/last_period"), "period9");
    EXPECT_EQ(held("pm/last_day"), "day0");
    EXPECT_EQ(pm("day0", "good_frames"), 0U); // its slot has been closed again since
    ticks(96);
    EXPECT_EQ(held("pm/last_day"), "day1");
}

TEST_F(periods, yellow_lasts_while_the_problem_is_among_the_other_95)
{
    link_down(1);
    link_down(0);
    EXPECT_EQ(colour(), "red");
    for (int period = 0; period < 95; period++) {
        tick();
        EXPECT_EQ(colour(), "yellow") << period;
    }
    tick();
    EXPECT_EQ(colour(), "green");
}

//
// Resets
//

void reset(int port)
{
    receive_packet(PACKET_RESET_STATS, byte(port));
}

TEST_F(resets, port_that_is_up_starts_again_from_zero)
{
    link_down(1);
    advance(2s);
    link_down(0);
    erps(1);
    advance(2s);
    erps(0);
    media(1);
    const counters values = {{"count64_0", 1},  {"good_frames", 2}, {"errored_frames", 3},
                             {"count32_40", 4}, {"count32_44", 5},  {"count32_48", 6},
                             {"count32_52", 7}, {"value32_56", 8},  {"dsl_count_60", 9},
                             {"value16_64", 10}};
    stats(values);
    const uint64_t ratio = stat("error_ratio_ppm");
    tick();
    tick();
    EXPECT_EQ(colour(), "red"); // for the error ratio
    reset(1);
    for (const stats_field &field : STATS_FIELDS) {
        const std::string_view name = field.name;
        const uint64_t expected = name == "value32_56"        ? 8
                                  : name == "value16_64"      ? 10
                                  : name == "error_ratio_ppm" ? ratio
                                                              : 0;
        EXPECT_EQ(stat(name), expected) << name;
    }
    for (const char *slot : {"period0", "period1", "last_period"}) {
        EXPECT_EQ(held(std::string("pm/") + slot), "");
    }
    media(0);
    stats(values);
    EXPECT_EQ(stat("error_ratio_ppm"), 0U); // no frame since
    EXPECT_EQ(colour(), "green");
    stats({{"good_frames", 12}});
    tick();
    EXPECT_EQ(held("pm/last_period"), "period0");
    EXPECT_EQ(pm("period0", "good_frames"), 10U);
}

TEST_F(resets, history_is_forgotten)
{
    ticks(97);
    link_down(1);
    link_down(0);
    tick();
    tick_at(TEN_O_CLOCK + 7 * 60); // no boundary: the day begins in the midst of the slots
    EXPECT_EQ(colour(), "yellow");
    receive_packet(PACKET_RESET_ALL_STATS, "");
    EXPECT_EQ(colour(), "green");
    EXPECT_EQ(held("pm/last_day"), "");
    stats({{"good_frames", 5}});
    ticks(95);
    EXPECT_EQ(held("pm/last_day"), "");
    tick();
    EXPECT_EQ(held("pm/last_day"), "day0");
    EXPECT_EQ(pm("day0", "link_down_count"), 0U);
    EXPECT_EQ(pm("day0", "good_frames"), 5U);
}

TEST_F(resets, port_that_is_down_starts_down)
{
    link_down(1);
    erps(1);
    advance(4s);
    stats();
    advance(3s);
    reset(1);
    EXPECT_EQ(down_figures("stats"), down({1, 3, 1, 3})); // 3 s had not been added by then
    link_down(0);
    erps(0);
    stats();
    EXPECT_EQ(colour(), "red");
    tick();
    EXPECT_EQ(down_figures("pm/period0"), down({1, 3, 1, 3}));
}

TEST_F(resets, before_the_first_payload_it_still_starts_the_counters)
{
    track("fire", "C");
    reset(2);
    stats({{"good_frames", 1000}}, "C");
    EXPECT_EQ(stat("good_frames", "C"), 0U);
}

TEST_F(resets, port_that_is_not_tracked_ends_the_daemon)
{
    for (const auto &[port, name] :
         {std::pair(0, "A"), {2, "C"}, {8, "CPU"}, {9, "9"}, {-1, "-1"}, {-128, "-128"}}) {
        reset(port);
        EXPECT_EQ(exit_status(), 1);
        EXPECT_EQ(take_log().at(0), std::string("stats: statistics reset: port ") + name + " does not exist");
        start_node();
    }
}

TEST_F(resets, of_all_go_past_a_port_that_fails_and_keeps_its_history)
{
    for (const char *port : {"A", "C"}) {
        bring_up(port);
        link_down(1, port);
        stats({{"good_frames", 5}}, port);
    }
    tick();
    fail(system_call::CLOCK_GETTIME, EIO);
    EXPECT_EQ(as_daemon(stats_reset_all), -1);
    EXPECT_EQ(take_log(), lines({"stats: couldn't get current time (errno 5)",
                                 "stats: couldn't update port C's link down time",
                                 "stats: couldn't reset statistics of port C"}));
    EXPECT_EQ(held("pm/period0", "A"), "");
    EXPECT_NE(held("pm/period0", "C"), "");
    tick();
    EXPECT_EQ(held("pm/last_period", "A"), "period0");
    EXPECT_EQ(held("pm/last_period", "C"), "period1");
}

} // namespace
