// What diagctl computes beside the model: answers to challenges, names, recordings, explanations, metrics.
#include "broker/words.h"
#include "clock.h"
#include "explain/messages.h"
#include "export/metrics.h"
#include "failure.h"
#include "network/recording.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>

namespace
{

word_table numbered_words()
{
    word_table words;
    for (size_t i = 0; i < words.size(); i++) {
        words[i] = "word-" + std::to_string(i);
    }
    return words;
}

std::vector<uint8_t> raw(std::string_view text)
{
    return {text.begin(), text.end()};
}

TEST(challenge, answered_with_other_words_or_in_another_order)
{
    const word_table words = numbered_words();
    // MD5 of "word-17word-4word-99", "word-0word-126".
    EXPECT_EQ(challenge_response("1;17 4 99", words), "721e90d10a78f3b7e06f203691bb15c9");
    EXPECT_EQ(challenge_response("1;0 126", words), "7df7b6afcfc7e89b5aee88e7b6c56606");
    for (const char *malformed : {"", "1;", "2;1 2", "1;127 1", "1;1  2", "1;x", "1;-1", "1;01 2", "17 4"}) {
        EXPECT_FALSE(challenge_response(malformed, words)) << malformed;
    }
}

std::string complaint_of(const std::string &path)
{
    try {
        read_words(path);
        return "";
    } catch (const failure &error) {
        const std::string text = error.what();
        return text.substr(text.find(": ") + 2);
    }
}

TEST(word_file, of_the_wrong_form_taken)
{
    const std::string path = testing::TempDir() + "diagctl-words";
    const auto read = [&](size_t lines, const std::string &last) {
        std::ofstream file(path);
        for (size_t i = 1; i < lines; i++) {
            file << "word-" << i << "\n";
        }
        file << last << "\n";
        file.close();
        std::filesystem::permissions(path, std::filesystem::perms(0600));
        return complaint_of(path);
    };
    EXPECT_EQ(read(127, "last word"), "");
    EXPECT_EQ(read(126, "last word"), "it has 126 lines, a word table has 127");
    EXPECT_EQ(read(128, "last word"), "it has 128 lines, a word table has 127");
    EXPECT_EQ(read(127, "short"), "line 127 isn't 6 to 31 printable ASCII characters");
    EXPECT_EQ(read(127, std::string(32, 'x')), "line 127 isn't 6 to 31 printable ASCII characters");
    EXPECT_EQ(complaint_of(path + "-none"), "No such file or directory");
    for (const unsigned open_mode : {0604U, 0602U, 0620U}) {
        std::filesystem::permissions(path, std::filesystem::perms(open_mode));
        EXPECT_EQ(complaint_of(path), "chmod 600 " + path) << open_mode;
    }
}

TEST(recording, changes_a_payload_or_takes_a_damaged_line)
{
    const std::vector<uint8_t> payloads[] = {
        {},
        {0},
        {0x1F},
        {0x7F},
        {0x80},
        {0xFF, 0xFE},
        raw("green \"A\"\\"),
        raw("äß€😀"),
        raw("a\nb"),
        {0xC0, 0x80},
        {0xED, 0xA0, 0x80},
        {0xC2, 0x85},
        {0xE2, 0x82},
        {0xF4, 0x90, 0x80, 0x80},
    };
    for (const std::vector<uint8_t> &payload : payloads) {
        const std::string line = recording_line(1.2344, true, "pub/diag/x", payload);
        const std::optional<recorded_message> message = parse_recording_line(line);
        ASSERT_TRUE(message) << line;
        EXPECT_EQ(message->payload, payload) << line;
        EXPECT_EQ(message->topic, "pub/diag/x");
        EXPECT_DOUBLE_EQ(message->time, 1.234);
        EXPECT_TRUE(message->is_retained);
    }
    EXPECT_TRUE(is_printable("äß€😀"));
    for (const unsigned binary : {1U, 2U, 3U, 4U, 5U, 8U, 9U, 10U, 11U, 12U, 13U}) {
        EXPECT_FALSE(is_printable(as_text(payloads[binary]))) << binary;
    }
    for (const char *damaged : {
             "",
             "{}",
             "[]",
             R"({"time":1,"retained":true,"topic":"a"})",
             R"({"time":1,"retained":true,"topic":"a","text":"b","hex":"00"})",
             R"({"time":-1,"retained":true,"topic":"a","text":"b"})",
             R"({"time":1e300,"retained":true,"topic":"a","text":"b"})",
             R"({"time":1,"retained":1,"topic":"a","text":"b"})",
             R"({"time":1,"retained":true,"topic":"","text":"b"})",
             R"({"time":1,"retained":true,"topic":"a/#","text":"b"})",
             R"({"time":1,"retained":true,"topic":"a","hex":"0"})",
             R"({"time":1,"retained":true,"topic":"a","hex":"0g"})",
             R"({"time":1,"retained":true,"topic":"a","text":"b)",
         }) {
        EXPECT_FALSE(parse_recording_line(damaged)) << damaged;
    }
    EXPECT_EQ(parse_recording_head(recording_head("2024-05-01T08:15:03Z")), "2024-05-01T08:15:03Z");
    EXPECT_FALSE(parse_recording_head(R"({"diagctl_recording":2,"started":"2024-05-01T08:15:03Z"})"));
}

TEST(names, line_of_the_wrong_form_taken_or_named_wrongly)
{
    node_names names;
    names.add("# who is who\n02:0:0:0:0:2\tCellar # below\n\n02-00-00-00-00-03 Lobby\r\n", "a");
    names.add("020000000003 Hall", "b");
    EXPECT_EQ(*names.of({2, 0, 0, 0, 0, 2}), "Cellar");
    EXPECT_EQ(*names.of({2, 0, 0, 0, 0, 3}), "Hall") << "the later file counts";
    EXPECT_EQ(names.find("cELLAR").size(), 1U);
    EXPECT_EQ(names.of({2, 0, 0, 0, 0, 4}), nullptr);
    for (const char *line :
         {"Lobby", "02:00:00:00:00:02", "02:00:00:00:00 Lobby", "02:00:00:00:00:02 North stair",
          "02:00:00:00:00:02 local", "02:00:00:00:00:02 12", "02:00:00:00:00:02 a/b",
          "02:00:00:00:00:02 $(reboot)", "02:00:00:00:00:02 \x1b[2J", "02:00:00:00:00:02 \xff"}) {
        try {
            names.add(std::string("\n") + line, "file");
            ADD_FAILURE() << line;
        } catch (const bad_names &error) {
            EXPECT_TRUE(std::string(error.what()).starts_with("file:2: ")) << error.what();
        }
    }
}

// A message with something in place of its conversions is explained by its own row, whatever else fits.
TEST(explanation, of_another_message_or_missing)
{
    EXPECT_GT(known_messages().size(), 300U);
    for (const message_row &row : known_messages()) {
        std::string text = row.format;
        for (size_t i = 0; (i = text.find('%')) != std::string::npos;) {
            const size_t end = text.find_first_of("sduxXc", i);
            text.replace(i, end - i + 1, text[end] == 's' ? "some thing" : "7");
        }
        const std::string source = row.source == "any" ? "main" : row.source;
        const std::string line = "Nov 23 14:00:00 card diag: [ERROR] diag(12) - " + source + ":764 - " + text;
        const auto found = find_messages(known_messages(), parse_log_line(line));
        EXPECT_TRUE(std::any_of(found.begin(), found.end(), [&](const message_row *other) {
            return other->format == row.format;
        })) << line;
        EXPECT_FALSE(row.cause.empty() || row.effect.empty() || row.cure.empty()) << row.format;
    }
    EXPECT_TRUE(
        find_messages(known_messages(), parse_log_line("Started diag.service - Diagnostics.")).empty());
    EXPECT_FALSE(matches_format("packet is too small (x bytes)", "packet is too small (%zd bytes)"));
    EXPECT_EQ(parse_message_rows("| `a \\| %d` | x | *b* `c` [d](e) \\* f | g | h |")[0].cause, "b c d * f");
}

// "name{label=value,...}" of every metric.
std::map<std::string, double> values_of(const network &net)
{
    std::map<std::string, double> values;
    for (const prometheus::MetricFamily &family : network_metrics(net, true)) {
        for (const prometheus::ClientMetric &metric : family.metric) {
            std::string name = family.name;
            for (const auto &label : metric.label) {
                name += (name == family.name ? "{" : ",") + label.name + "=" + label.value;
            }
            name += metric.label.empty() ? "" : "}";
            values[name] =
                family.type == prometheus::MetricType::Counter ? metric.counter.value : metric.gauge.value;
        }
    }
    return values;
}

TEST(metrics, of_a_node_that_has_left_or_a_wrong_value)
{
    network net;
    const auto apply = [&](const std::string &topic, const std::vector<uint8_t> &payload) {
        network_apply(net, topic, payload, true, current_moment());
    };
    const std::string mac = "02-00-00-00-00-02";
    apply("pub/diag/local_node", raw("02-00-00-00-00-01"));
    apply("pub/diag/" + mac + "/port_summary", raw(R"({"A":"red","B":"green"})"));
    apply("pub/diag/" + mac + "/comm_loss", raw("1"));
    apply("pub/diag/net/fire/link_down", {2, 0, 0, 0, 0, 2, 7, 1});
    std::vector<uint8_t> stats(STATS_BLOCK_SIZE);
    stats[STATS_LINK_DOWN_COUNT + 3] = 9;
    stats[STATS_ERROR_RATIO_PPM + 2] = 0x03; // 1000
    stats[STATS_ERROR_RATIO_PPM + 3] = 0xE8;
    apply("pub/diag/" + mac + "/A/stats", stats);
    std::vector<uint8_t> period(PM_RECORD_SIZE);
    period[PM_LINK_DOWN_SECONDS + 3] = 90;
    apply("pub/diag/" + mac + "/A/pm/period3", period);
    apply("pub/diag/" + mac + "/A/pm/period4", std::vector<uint8_t>(PM_RECORD_SIZE));
    apply("pub/diag/" + mac + "/A/pm/period5", {1, 2, 3});

    std::map<std::string, double> values = values_of(net);
    const std::string port_a = "{mac=" + mac + ",port=A";
    EXPECT_EQ(values.at("diag_nodes"), 2);
    EXPECT_EQ(values.at("diag_port_status" + port_a + ",colour=red}"), 1);
    EXPECT_EQ(values.at("diag_port_status" + port_a + ",colour=green}"), 0);
    EXPECT_EQ(values.at("diag_port_link_down" + port_a + "}"), 1);
    EXPECT_EQ(values.at("diag_port_link_down{mac=" + mac + ",port=B}"), 0);
    EXPECT_EQ(values.at("diag_node_comm_loss{mac=" + mac + "}"), 1);
    EXPECT_EQ(values.at("diag_port_link_downs_total" + port_a + "}"), 9);
    EXPECT_EQ(values.at("diag_port_error_ratio" + port_a + "}"), 0.001);
    EXPECT_EQ(values.at("diag_port_pm_periods" + port_a + "}"), 2);
    EXPECT_EQ(values.at("diag_port_availability_ratio" + port_a + "}"), 0.95);

    apply("pub/diag/" + mac + "/port_summary", {});
    apply("pub/diag/" + mac + "/comm_loss", {});
    values = values_of(net);
    EXPECT_EQ(values.at("diag_nodes"), 1);
    for (const auto &[name, value] : values) {
        EXPECT_EQ(name.find(mac), std::string::npos) << name;
    }
}

} // namespace
