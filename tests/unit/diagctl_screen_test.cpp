// What is shown of the network.
#include "diagctl_fixture.h"
#include "screen/reports.h"

namespace
{

using std::string;

string topic_of(int node, const string &name)
{
    return "pub/diag/" + mac_text({2, 0, 0, 0, 0, static_cast<uint8_t>(node)}) + "/" + name;
}

class diagctl_report : public diagctl
{
protected:
    diagctl_report() { detail = change_detail::RECORDS; }
    const port_records &records() { return net.nodes.at(LOCAL_MAC).ports.at(LUM_PORT_A); }
};

} // namespace

TEST_F(diagctl_report, rate_of_a_retained_message_or_over_a_wrap)
{
    const stats_field &good = stats_field_at(STATS_GOOD_FRAMES);
    const stats_field &errored = stats_field_at(STATS_ERRORED_FRAMES);
    retained(topic_of(1, "A/stats"), stats_of(0, 0, 0));
    of_node(LOCAL, "A/stats", stats_of(100, UINT32_MAX, 5));
    EXPECT_FALSE(field_rate(records(), good)) << "nobody knows when the retained one was published";
    now.steady += std::chrono::seconds(1);
    of_node(LOCAL, "A/stats", stats_of(103, 4, 6));
    EXPECT_EQ(field_rate(records(), good), 1.5);
    EXPECT_EQ(field_rate(records(), errored), 2.5);
    EXPECT_FALSE(field_rate(records(), stats_field_at(STATS_ERROR_RATIO_PPM)));
    EXPECT_FALSE(field_rate(records(), stats_field_at(STATS_LINK_DOWN_SECONDS)));
    of_node(LOCAL, "A/stats", "short");
    EXPECT_FALSE(field_rate(records(), good));
}

TEST_F(diagctl_report, changed_records_told_as_what_they_are_not)
{
    const string who = "node 02-00-00-00-00-01 port A ";
    const struct {
        const char *name;
        string payload;
        lines expected;
    } cases[] = {
        {"A/stats", stats_of(7, 0, 0), {who + "statistics good_frames 7"}},
        {"A/stats",
         stats_of(9, 1, 500),
         {who + "statistics good_frames +2, errored_frames +1, error_ratio_ppm 500"}},
        {"A/stats", stats_of(9, 1, 500), {}},
        {"A/stats", stats_of(2, 1, 400), {who + "statistics good_frames 2, error_ratio_ppm 400"}},
        {"A/stats", string(67, 'x'), {who + "malformed stats (67 bytes)"}},
        {"A/pm/period7", string(PM_RECORD_SIZE, '\0'), {who + "period7 all 0"}},
        {"A/pm/day1", string(PM_RECORD_SIZE - 1, '\0') + '\x05', {who + "day1 dsl_count_60 5"}},
        {"A/pm/day1", "", {}},
    };
    for (const auto &[name, payload, expected] : cases) {
        EXPECT_EQ(apply(topic_of(1, name), payload), expected) << name;
    }
}

TEST_F(diagctl_report, nodes_in_another_order_than_asked_for)
{
    apply("pub/diag/local_node", "02-00-00-00-00-03");
    const char *const colours[] = {R"({"A":"yellow"})", R"({"A":"red","B":"red"})", R"({"A":"green"})",
                                   R"({"A":"red","B":"yellow"})"};
    for (int i = 0; i < 4; i++) {
        apply(topic_of(i + 1, "port_summary"), colours[i]);
    }
    apply("pub/diag/net/fire/link_down", string("\x02\0\0\0\0\x04\x05\x01\x02\0\0\0\0\x02\x09\x03", 16));
    const auto order = [&](node_order wanted) {
        string numbers;
        for (const node *item : sorted_nodes(net, wanted)) {
            numbers += std::to_string(item->mac[5]);
        }
        return numbers;
    };
    EXPECT_EQ(order(node_order::MAC), "3124");
    EXPECT_EQ(order(node_order::NUMBER), "4213");
    EXPECT_EQ(order(node_order::FAULTS), "2413");
    EXPECT_EQ(order(node_order::CHANGE), "4321");
}

TEST_F(diagctl_report, node_that_has_left_shown_as_present)
{
    apply(topic_of(2, "card_addr"), "7", true);
    const node &left = net.nodes.at({2, 0, 0, 0, 0, 2});
    EXPECT_NE(text_of(node_lines(net, left)).find("has left the network"), string::npos);
    apply(topic_of(2, "port_summary"), R"({"B":"red"})");
    const string text = text_of(node_lines(net, left));
    EXPECT_EQ(text.find("has left"), string::npos);
    EXPECT_NE(text.find("card address      7\n"), string::npos) << text;
}

TEST_F(diagctl_report, name_missing_beside_its_address)
{
    net.names.add(REMOTE + " Cellar", "names");
    EXPECT_EQ(apply(topic_of(2, "port_summary"), R"({"A":"red"})")[0], "node Cellar " + REMOTE + " appeared");
    apply("pub/diag/net/fire/link_down", list_record("\x02", 2, 1));
    EXPECT_NE(text_of(node_table(net, sorted_nodes(net, node_order::MAC), now)).find("Cellar  " + REMOTE),
              string::npos);
    EXPECT_NE(text_of(lists_lines(net)).find("Cellar " + REMOTE + " (2) A"), string::npos);
}

TEST_F(diagctl_report, characters_cut_in_half)
{
    const struct {
        size_t width;
        const char *text;
    } cases[] = {{0, ""}, {1, "a"}, {2, "a▁"}, {3, "a▁█"}, {4, "a▁█b"}, {9, "a▁█b"}};
    for (const auto &[width, text] : cases) {
        screen_line line = {{text_style::PLAIN, "a▁"}, {text_style::RED, "█b"}};
        clip(line, width);
        EXPECT_EQ(text_of({line}), string(text) + "\n");
        EXPECT_EQ(length_of(line), std::min<size_t>(width, 4));
    }
}

TEST_F(diagctl_report, screen_keeps_to_its_size)
{
    announce_local();
    for (int i = 1; i <= 60; i++) {
        const string mac = mac_text({2, 0, 0, 0, 0, static_cast<uint8_t>(i)});
        of_node(mac, "port_summary", R"({"A":"green","B":"red","C":"yellow"})");
        events.push_back({now, "event " + mac});
    }
    const stats_target target = {{.is_local = true}, LUM_PORT_B, "local/B"};
    of_node(LOCAL, "B/stats", string(STATS_BLOCK_SIZE, 'x'));
    for (const auto &[width, height] :
         {std::pair<size_t, size_t>{80, 24}, {200, 100}, {40, 10}, {1, 1}, {0, 0}}) {
        const string screen = shown(width, height, &target);
        EXPECT_EQ(static_cast<size_t>(std::count(screen.begin(), screen.end(), '\n')), height);
        EXPECT_LE(widest, width);
        widest = 0;
    }
    const string screen = shown(80, 24, &target);
    EXPECT_NE(screen.find("of 60"), string::npos) << screen;
    EXPECT_NE(screen.find("event 02-00-00-00-00-3C"), string::npos)
        << "the newest event is in sight" << screen;
    EXPECT_NE(screen.find("A  B! C~"), string::npos) << "colours have marks" << screen;
    EXPECT_NE(shown(40, 24).find("A  B! C~"), string::npos) << "what tells most stays on a narrow terminal";
}

TEST_F(diagctl_report, sparklines_of_what_did_not_happen)
{
    announce_local();
    const auto bars = [&] {
        string text = shown(120, 30);
        return text.substr(text.find(LOCAL, text.find("LAST 10 MIN")), 80).find("_________-") != string::npos;
    };
    of_node(LOCAL, "CF_free_space", "5");
    of_node(LOCAL, "A/pm/last_period", "period3");
    EXPECT_FALSE(bars()) << "neither tells of a fault";
    of_node(LOCAL, "job_name", "NORTH");
    of_node(LOCAL, "M301", "1");
    EXPECT_TRUE(bars()) << shown(120, 30);
    now.steady += std::chrono::minutes(1);
    EXPECT_FALSE(bars()) << "a minute has passed";
    for (const int good : {10, 20, 20}) {
        of_node(LOCAL, "A/stats", stats_of(static_cast<uint64_t>(good), 0, 0));
    }
    const auto &known = recent.rates_of(LOCAL_MAC).at(LUM_PORT_A);
    EXPECT_EQ(known.good_frames, (std::deque<double>{10, 0})) << "nobody knows the rate of the first";
}

TEST_F(diagctl_report, records_of_a_day_for_output_of_any_width)
{
    const string bar = "█";
    string record(PM_RECORD_SIZE, '\0');
    record[PM_GOOD_FRAMES] = 1;
    for (unsigned period = 0; period < PM_PERIODS; period++) {
        retained(topic_of(1, "A/pm/period" + std::to_string(period)), record);
    }
    for (const auto &[width, bars] : {std::pair<size_t, size_t>{20, 32}, {200, 96}, {SIZE_MAX, 96}}) {
        const string text =
            text_of(pm_lines(net.nodes.at(LOCAL_MAC), LUM_PORT_A, pm_kind::PERIODS, {true, width}));
        const size_t first = text.find(bar);
        EXPECT_EQ(text.find("  max", first) - first, bars * bar.size()) << width << "\n" << text;
    }
}
