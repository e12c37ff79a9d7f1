// Tracking of ports, their statistics, down times and status.
#include "packet.h"
#include "ports.h"
#include "summary_record.h"

using namespace card;

namespace
{

using registry = stats_node;
using statistics = stats_node;
using colour_of_a_port = stats_node;

lines with_prefix(const std::string &prefix, const lines &texts)
{
    lines result;
    for (const std::string &text : texts) {
        result.push_back(prefix + text);
    }
    return result;
}

const lines DATA_TOPICS_OF_B =
    with_prefix("local/diag/port/B/", {"media", "link_down", "grnd", "stats", "status"});

// The 106 topics of a port in the order in which they are cleared.
lines topics_of_b()
{
    lines names = {"stats", "pm/last_period"};
    for (int i = 0; i < 96; i++) {
        names.push_back("pm/period" + std::to_string(i));
    }
    names.emplace_back("pm/last_day");
    for (int i = 0; i < 7; i++) {
        names.push_back("pm/day" + std::to_string(i));
    }
    return with_prefix(published_topic(""), names);
}

//
// Registry
//

TEST_F(registry, takes_only_the_exact_names_of_fire_types_and_only_once)
{
    for (const char *type :
         {"Fire", "FIRE", "fire ", " fire", "fire\n", "fires", "fir", "firespurs", "eth", ""}) {
        track(type);
    }
    EXPECT_EQ(take_requests(), lines());
    bring_up();
    take_requests();
    track("fire");
    track("firespur");
    EXPECT_EQ(take_requests(), lines());
}

TEST_F(registry, subscribes_in_order_and_reads_a_type_up_to_its_nul)
{
    track(std::string("fire\0spur", 9));
    lines expected = with_prefix("SUBSCRIBE ", DATA_TOPICS_OF_B);
    expected.emplace_back("PUBLISH local/diag/network_style7");
    EXPECT_EQ(take_requests(), expected);
}

TEST_F(registry, tells_the_summary_the_type_of_a_new_port)
{
    track("fire", "B");
    track("firespur", "C");
    track("firespur", "CPU");
    track("firespur", "B"); // known by then
    advance(3s);
    const std::string summary = take_datagrams().at(0).bytes;
    const size_t static_ports = HEADER_SIZE + (SUMMARY_INFO_PORTS_STATIC + 1) * SUMMARY_SECTION_HEADER_SIZE;
    EXPECT_EQ(hex(summary.substr(static_ports + SUMMARY_FIRE_PORTS, 2)), "02 04");
}

TEST_F(registry, goes_on_after_a_port_without_a_name)
{
    track("fire", "Z");
    track("fire", "b");
    EXPECT_EQ(take_log(), lines({"utils: invalid port identifier in topic local/diag/port/Z/type",
                                 "stats: couldn't find port identifier in topic local/diag/port/Z/type",
                                 "utils: invalid port identifier in topic local/diag/port/b/type",
                                 "stats: couldn't find port identifier in topic local/diag/port/b/type"}));
}

TEST_F(registry, clears_all_106_topics_and_the_summary_of_a_port_that_has_gone)
{
    for (const std::string &topic : topics_of_b()) {
        publish(topic, "of an earlier run");
    }
    bring_up();
    media(0);
    link_down(1);
    ground(1);
    take_published();
    take_requests();

    track("eth");

    messages expected;
    for (const std::string &topic : topics_of_b()) {
        expected.push_back({topic, ""});
    }
    expected.push_back({PORT_SUMMARY, "{}"});
    expected.push_back({"pub/diag/net/fire/link_down", std::string(1, '\0')});
    expected.push_back({"pub/diag/net/fire/grnd_list", std::string(1, '\0')});
    expected.push_back({PORT_SUMMARY, "{}"});
    expected.push_back({PORT_MEDIA, "{}"});
    expected.push_back({"local/diag/network_style7", std::string(1, '\0')});
    EXPECT_EQ(take_published(), expected);
    const lines requests = take_requests();
    EXPECT_EQ(lines(requests.begin(), requests.begin() + 5), with_prefix("UNSUBSCRIBE ", DATA_TOPICS_OF_B));
    stats();
    EXPECT_EQ(take_published(), messages());
}

TEST_F(registry, starts_from_zero_when_a_port_comes_back)
{
    bring_up();
    link_down(1);
    stats({{"good_frames", 1000}});
    untrack();
    bring_up();
    link_down(1);
    stats({{"good_frames", 5}});
    EXPECT_EQ(stat("good_frames"), 5U);
    EXPECT_EQ(stat("link_down_count"), 1U);
}

//
// Statistics
//

// Where the fields stand is written out here, so that a slip in the table can't hide.
TEST_F(statistics, layouts_are_those_that_others_use)
{
    bring_up();
    link_down(1);
    advance(3s);
    link_down(0);
    uint8_t payload[66];
    memset(payload, 0xFF, sizeof payload); // also the fields that are not read
    store_host(payload, uint64_t{1});
    store_host(payload + 8, uint64_t{258});
    store_host(payload + 32, uint32_t{2});
    for (const uint32_t offset : {40U, 44U, 48U, 52U}) {
        store_host(payload + offset, offset);
    }
    store_host(payload + 56, uint32_t{100});
    store_host(payload + 64, uint16_t{7});
    tell("stats", {payload, payload + sizeof payload});
    EXPECT_EQ(hex(held("stats")), "00 00 00 00 00 00 00 01 00 00 00 00 00 00 01 02 "
                                  "00 00 00 03 00 00 00 01 00 00 00 00 00 00 00 00 "
                                  "00 00 00 02 00 00 1E 0C 00 00 00 28 00 00 00 2C "
                                  "00 00 00 30 00 00 00 34 00 00 00 64 00 00 00 00 "
                                  "00 07");
}

TEST_F(statistics, first_payload_is_where_copied_counters_start)
{
    track();
    media(1);
    const counters first = {{"count64_0", 1},    {"good_frames", 2}, {"errored_frames", 3}, {"count32_40", 4},
                            {"count32_44", 5},   {"count32_48", 6},  {"count32_52", 7},     {"value32_56", 8},
                            {"dsl_count_60", 9}, {"value16_64", 10}};
    stats(first);
    for (const auto &[name, value] : first) {
        const bool is_published = name == "value32_56" || name == "dsl_count_60" || name == "value16_64";
        EXPECT_EQ(stat(name), is_published ? value : 0) << name;
    }
    EXPECT_EQ(stat("error_ratio_ppm"), 0U);
}

TEST_F(statistics, differences_survive_counters_that_wrap)
{
    track();
    stats({{"count64_0", UINT64_MAX},
           {"good_frames", UINT64_MAX - 1},
           {"errored_frames", UINT32_MAX},
           {"count32_52", UINT32_MAX}});
    stats({{"count64_0", 1}, {"good_frames", 998'998}, {"errored_frames", 999}, {"count32_52", 0}});
    EXPECT_EQ(stat("count64_0"), 2U);
    EXPECT_EQ(stat("good_frames"), 999'000U);
    EXPECT_EQ(stat("errored_frames"), 1000U);
    EXPECT_EQ(stat("count32_52"), 1U);
    EXPECT_EQ(stat("error_ratio_ppm"), 1000U);
}

TEST_F(statistics, error_ratio_is_rounded_in_single_precision)
{
    const struct {
        uint64_t good;
        uint32_t errored;
        uint32_t ratio;
        const char *colour;
    } cases[] = {
        {0, 0, 0, "green"},
        {9995, 5, 500, "green"},
        {1'998'999, 1001, 501, "red"}, // 500.5
        {999'000, 1000, 1000, "red"},
        {0, 1, 1'000'000, "red"},
        {2'213'341, 1259, 569, "red"},                  // 568 in double precision
        {UINT64_MAX - 9998, 10'000, UINT32_MAX, "red"}, // the sum wraps to 1
    };
    for (const auto &[good, errored, ratio, expected_colour] : cases) {
        bring_up();
        stats({{"good_frames", good}, {"errored_frames", errored}});
        EXPECT_EQ(stat("error_ratio_ppm"), ratio) << good << ' ' << errored;
        EXPECT_EQ(colour(), expected_colour) << good << ' ' << errored;
        untrack();
    }
}

TEST_F(statistics, dsl_increments_add_up_on_dsl_only)
{
    bring_up();
    const counters increment = {{"dsl_count_60", 0xC0000000}};
    stats(increment);
    media(0);
    stats(increment);
    EXPECT_EQ(stat("dsl_count_60"), 0U);
    EXPECT_EQ(colour(), "green");
    media(1);
    stats(increment);
    EXPECT_EQ(stat("dsl_count_60"), 0xC0000000U);
    EXPECT_EQ(colour(), "red");
    stats(increment);
    EXPECT_EQ(stat("dsl_count_60"), 0x80000000U);
    media(2);
    stats(increment);
    EXPECT_EQ(stat("dsl_count_60"), 0x80000000U);
}

TEST_F(statistics, down_time_is_summed_exactly_and_rounded_once)
{
    const struct {
        std::vector<duration> intervals;
        uint32_t seconds;
    } cases[] = {
        {{499'999'999ns}, 0}, {{500ms}, 1},       {{1'499'999'999ns}, 1}, {{2600ms}, 3},
        {{250ms, 250ms}, 1},  {{400ms, 99ms}, 0}, {{1s, 2s}, 3},
    };
    for (const auto &[intervals, seconds] : cases) {
        bring_up();
        for (const duration interval : intervals) {
            link_down(1);
            erps(8);
            advance(interval);
            link_down(0);
            erps(0);
            advance(10s);
        }
        stats();
        EXPECT_EQ(down_figures("stats"), down({intervals.size(), seconds, intervals.size(), seconds}));
        untrack();
    }
}

TEST_F(statistics, repeated_down_reports_are_one_interval_that_grows)
{
    bring_up();
    for (int i = 0; i < 3; i++) {
        link_down(1);
        erps(UINT32_MAX);
        advance(1s);
    }
    stats();
    advance(4s);
    stats();
    EXPECT_EQ(down_figures("stats"), down({1, 7, 1, 7}));
}

TEST_F(statistics, unknown_state_of_a_new_port_is_no_event)
{
    track();
    advance(10s);
    link_down(0);
    erps(0);
    stats();
    EXPECT_EQ(down_figures("stats"), down({0, 0, 0, 0}));
    untrack();
    track();
    link_down(1);
    erps(1);
    stats();
    EXPECT_EQ(down_figures("stats"), down({1, 0, 1, 0}));
}

TEST_F(statistics, only_1_is_down_and_erps_is_up_without_bits_but_bit_2)
{
    const struct {
        const char *topic;
        std::string payload;
        bool is_fault;
    } cases[] = {
        {"link_down", byte(2), false},
        {"link_down", byte(255), false},
        {"link_down", byte(1), true},
        {"status", erps_payload(4, 0xFF), false},
        {"status", erps_payload(0, 0xFF), false},
        {"status", erps_payload(5), true},
        {"status", erps_payload(0x80000000), true},
    };
    for (const auto &[topic, payload, is_fault] : cases) {
        bring_up();
        tell(topic, payload);
        stats();
        EXPECT_EQ(colour(), is_fault ? "red" : "green") << topic << ' ' << hex(payload);
        untrack();
    }
    bring_up();
    take_published();
    ground(2);
    EXPECT_EQ(take_published(), messages());
    ground(1);
    EXPECT_EQ(take_published(),
              messages({{"pub/diag/net/fire/grnd_list", bytes("00 1A 2B 3C 4D 5E 07 02")}}));
}

TEST_F(statistics, messages_of_other_lengths_change_nothing)
{
    bring_up();
    const std::string before = held("stats");
    take_published();
    const struct {
        const char *topic;
        size_t length;
        std::string complaint;
    } cases[] = {
        {"stats", 65, "invalid statistics length (65, should be 66)"},
        {"stats", 67, "invalid statistics length (67, should be 66)"},
        {"link_down", 2, "invalid link status length (2, should be 1)"},
        {"grnd", 2, "invalid ground fault length (2, should be 1)"},
        {"media", 2, "invalid media type length (2, should be 1)"},
    };
    for (const auto &[topic, length, complaint] : cases) {
        tell(topic, std::string(length, '\1'));
        EXPECT_EQ(take_log(), lines({"stats: " + complaint}));
    }
    tell("status", std::string(91, '\1'));
    const std::string complaint = "published ERPS port status data has wrong length (91, should be 92)";
    EXPECT_EQ(take_log(), lines({"stats: " + complaint, "summary.c: " + complaint}));
    for (const char *topic : {"media", "link_down", "grnd", "stats", "status"}) {
        tell(topic, "");
    }
    EXPECT_EQ(take_published(), messages());
    stats();
    EXPECT_EQ(held("stats"), before);
}

//
// Status
//

TEST_F(colour_of_a_port, is_red_until_link_and_ring_port_are_up)
{
    track();
    stats();
    EXPECT_EQ(colour(), "red");
    link_down(0);
    EXPECT_EQ(colour(), "red");
    erps(0);
    EXPECT_EQ(colour(), "red"); // ring protection alone changes no status
    stats();
    EXPECT_EQ(colour(), "green");
    take_published();
    erps(8);
    EXPECT_EQ(take_published(), messages());
    stats();
    EXPECT_EQ(colour(), "red");
}

TEST_F(colour_of_a_port, is_red_for_an_event_without_time_and_for_time_without_an_event)
{
    tick_at(TEN_O_CLOCK);
    for (void (*const report)(int) :
         {+[](int down) { link_down(down); }, +[](int down) { erps(down == 1 ? 8 : 0); }}) {
        bring_up();
        report(1);
        report(0);
        stats();
        EXPECT_EQ(colour(), "red");
        tick();
        report(1);
        tick();
        advance(2s);
        report(0);
        stats();
        EXPECT_EQ(colour(), "red");
        tick();
        EXPECT_EQ(colour(), "yellow");
        untrack();
    }
}

TEST_F(colour_of_a_port, stays_green_past_a_problem_that_nobody_saw)
{
    bring_up();
    erps(8);
    erps(0); // noticed by nobody before the period is closed
    tick_at(TEN_O_CLOCK);
    EXPECT_EQ(pm("period0", "erps_down_count"), 1U);
    stats();
    EXPECT_EQ(colour(), "green");
}

TEST_F(colour_of_a_port, of_the_cpu_port_leaves_the_summary_alone)
{
    bring_up("CPU");
    media(0, "CPU");
    link_down(1, "CPU");
    ground(1, "CPU");
    stats({{"good_frames", 3}}, "CPU");
    EXPECT_EQ(stat("good_frames", "CPU"), 3U);
    EXPECT_EQ(stat("link_down_count", "CPU"), 1U);
    EXPECT_EQ(retained(PORT_SUMMARY), "{}");
    EXPECT_EQ(retained(PORT_MEDIA), "{}");
    EXPECT_EQ(hex(retained("pub/diag/net/fire/link_down")), "00");
    tick_at(TEN_O_CLOCK);
    EXPECT_EQ(pm("period0", "good_frames", "CPU"), 3U);
    untrack("CPU");
}

} // namespace
