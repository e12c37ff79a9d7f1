#include "common/bytes.h"
#include "screen/changes.h"
#include "screen/reports.h"

#include <gtest/gtest.h>

namespace
{

using lines = std::vector<std::string>;
using std::string;

string topic_of(int node, const string &name)
{
    char mac[MAC_STR_SIZE];
    snprintf(mac, sizeof mac, "02-00-00-00-00-%02X", node);
    return string("pub/diag/") + mac + "/" + name;
}

string stats_of(uint64_t good, uint32_t errored, uint32_t ratio)
{
    uint8_t block[STATS_BLOCK_SIZE] = {};
    store_be(block + STATS_GOOD_FRAMES, good);
    store_be(block + STATS_ERRORED_FRAMES, errored);
    store_be(block + STATS_ERROR_RATIO_PPM, ratio);
    return {std::begin(block), std::end(block)};
}

string text_of(const std::vector<screen_line> &shown)
{
    string text;
    for (const screen_line &line : shown) {
        for (const styled_text &part : line) {
            text += part.text;
        }
        text += '\n';
    }
    return text;
}

class diagctl_report : public testing::Test
{
protected:
    lines apply(const string &topic, const string &payload, bool is_retained = false)
    {
        lines texts;
        for (const change &item :
             network_apply(net, topic, {reinterpret_cast<const uint8_t *>(payload.data()), payload.size()},
                           is_retained, now, change_detail::RECORDS)) {
            texts.push_back(change_text(net, item));
        }
        return texts;
    }
    const port_records &records() { return net.nodes.at({2, 0, 0, 0, 0, 1}).ports.at(LUM_PORT_A); }
    void wait(int seconds) { now.steady += std::chrono::seconds(seconds); }

    network net;
    moment now{};
};

} // namespace

TEST_F(diagctl_report, rate_of_a_retained_message_or_over_a_wrap)
{
    const stats_field &good = stats_field_at(STATS_GOOD_FRAMES);
    const stats_field &errored = stats_field_at(STATS_ERRORED_FRAMES);
    apply(topic_of(1, "A/stats"), stats_of(0, 0, 0), true);
    wait(1);
    apply(topic_of(1, "A/stats"), stats_of(100, UINT32_MAX, 5));
    EXPECT_FALSE(field_rate(records(), good)) << "nobody knows when the retained one was published";
    wait(2);
    apply(topic_of(1, "A/stats"), stats_of(103, 4, 6));
    EXPECT_EQ(field_rate(records(), good), 1.5);
    EXPECT_EQ(field_rate(records(), errored), 2.5);
    EXPECT_FALSE(field_rate(records(), stats_field_at(STATS_ERROR_RATIO_PPM)));
    EXPECT_FALSE(field_rate(records(), stats_field_at(STATS_LINK_DOWN_SECONDS)));
    apply(topic_of(1, "A/stats"), "short");
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
        wait(1);
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
