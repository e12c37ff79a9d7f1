// What messages make of the network, and the sentences of the changes.
#include "diagctl_fixture.h"

namespace
{

using std::string;

// The eleven topics that the daemon withdraws of a leaving node, in its order.
constexpr const char *WITHDRAWN[] = {"port_summary",    "port_media",       "job_rev", "job_name",
                                     "download_status", "CF_free_space",    "M301",    "M702",
                                     "comm_loss",       "download_pending", "repeater"};

string versions_text(const char *version)
{
    char text[VERSIONS_TEXT_SIZE + 1];
    snprintf(text, sizeof text, "%-10s:%-40s;%-10s:%40s;%-10s:%-40s;", "EOS", version, "BOOT",
             "2.0               77", "APP", "3.0");
    return text;
}

} // namespace

TEST_F(diagctl, what_is_retained_at_the_start_is_no_event)
{
    EXPECT_EQ(retained("pub/diag/local_node", LOCAL), lines{});
    EXPECT_EQ(retained("pub/diag/" + REMOTE + "/port_summary", R"({"A":"red"})"), lines{});
    EXPECT_EQ(retained("pub/diag/net/fire/link_down", list_record("\x02", 7, 1)), lines{});
    EXPECT_EQ(retained("local/diag/network_style7", "\x01"), lines{});
    EXPECT_TRUE(remote().is_present);
    EXPECT_FALSE(remote().last_change);
    EXPECT_EQ(remote().number, 7);
    EXPECT_EQ(net.ring_degraded.value, true);
    // What was retained is the state that a change is measured against.
    EXPECT_EQ(of_node(REMOTE, "port_summary", R"({"A":"yellow"})"),
              lines{"node 02-00-00-00-00-02 (7) port A yellow (was red)"});
    EXPECT_TRUE(remote().last_change);
}

TEST_F(diagctl, a_node_appears_and_leaves_once_though_it_has_eleven_topics)
{
    announce_local();
    apply("pub/diag/net/fire/link_down", list_record("\x02", 2, 2));
    EXPECT_EQ(
        of_node(REMOTE, "port_summary", R"({"A":"green","B":"red"})"),
        (lines{"node 02-00-00-00-00-02 (2) appeared", "node 02-00-00-00-00-02 (2) ports A green, B red"}));
    EXPECT_EQ(of_node(REMOTE, "software_versions", versions_text("1.0\n")), lines{});
    for (const char *name : {"port_media", "job_rev", "job_name"}) {
        EXPECT_EQ(of_node(REMOTE, name, name == string("port_media") ? R"({"A":"eth"})" : ""), lines{});
    }
    for (const char *name : {"CF_free_space", "M301", "M702", "comm_loss", "download_pending", "repeater"}) {
        EXPECT_EQ(of_node(REMOTE, name, "1"), lines{}) << name;
    }
    of_node(REMOTE, "download_status", "12");
    // The job was empty before: now it changes.
    EXPECT_EQ(of_node(REMOTE, "job_name", "NORTH"), lines{"node 02-00-00-00-00-02 (2) job name 'NORTH'"});
    EXPECT_EQ(of_node(REMOTE, "job_name", ""),
              lines{"node 02-00-00-00-00-02 (2) job name none (was 'NORTH')"});

    EXPECT_EQ(apply("pub/diag/net/fire/link_down", NONE_LISTED),
              lines{"link-down list lost node 02-00-00-00-00-02 (2) port B"});
    lines leaving;
    for (const char *name : WITHDRAWN) {
        const lines some = of_node(REMOTE, name, "");
        leaving.insert(leaving.end(), some.begin(), some.end());
    }
    EXPECT_EQ(leaving, lines{"node 02-00-00-00-00-02 (2) left"});
    EXPECT_FALSE(remote().is_present);
    EXPECT_FALSE(remote().number) << "the number of a node that left may be another's now";
    ASSERT_EQ(remote().versions.size(), 3U) << "the daemon does not withdraw the versions";
    EXPECT_EQ(remote().versions[0].version, "1.0") << "a line's end is no part of it";
    EXPECT_EQ(remote().versions[1].version, "2.0 77") << "padding within is one blank";

    EXPECT_EQ(of_node(REMOTE, "port_summary", R"({"A":"green"})"),
              (lines{"node 02-00-00-00-00-02 appeared", "node 02-00-00-00-00-02 ports A green"}));
    EXPECT_EQ(of_node(REMOTE, "repeater", "3"), lines{}) << "first values again";
}

TEST_F(diagctl, versions_left_behind_make_no_node)
{
    retained("pub/diag/" + REMOTE + "/software_versions", versions_text("1.0"));
    EXPECT_FALSE(remote().is_present);
    EXPECT_NE(shown(80, 24).find("0 nodes"), string::npos);
    EXPECT_EQ(of_node(REMOTE, "port_summary", R"({"A":"red","B":"red"})").size(), 2U);
}

TEST_F(diagctl, the_local_node_never_leaves)
{
    announce_local();
    of_node(LOCAL, "port_summary", R"({"A":"red"})");
    EXPECT_EQ(of_node(LOCAL, "port_summary", "{}"), lines{"node 02-00-00-00-00-01 port A none (was red)"});
    EXPECT_EQ(of_node(LOCAL, "job_rev", "012"), lines{"node 02-00-00-00-00-01 job revision '012'"});
    EXPECT_EQ(of_node(LOCAL, "job_rev", ""), lines{"node 02-00-00-00-00-01 job revision none (was '012')"});
    of_node(LOCAL, "port_summary", "");
    EXPECT_NE(shown(80, 24).find("1 node\n"), string::npos);
}

TEST_F(diagctl, each_changed_port_is_one_line)
{
    retained("pub/diag/" + REMOTE + "/port_summary", R"({"A":"green","B":"green","H":"red"})");
    retained("pub/diag/" + REMOTE + "/port_media", R"({"A":"eth","B":"dsl"})");
    EXPECT_EQ(of_node(REMOTE, "port_summary", R"({"A":"red","B":"green","C":"yellow"})"),
              (lines{"node 02-00-00-00-00-02 port A red (was green)", "node 02-00-00-00-00-02 port C yellow",
                     "node 02-00-00-00-00-02 port H none (was red)"}));
    EXPECT_EQ(of_node(REMOTE, "port_media", R"({"A":"smf","B":"dsl","H":"mmf"})"),
              (lines{"node 02-00-00-00-00-02 port A media smf (was eth)",
                     "node 02-00-00-00-00-02 port H media mmf"}));
    EXPECT_EQ(of_node(REMOTE, "port_media", R"({"A":"smf","B":"dsl","H":"mmf"})"), lines{});
}

TEST_F(diagctl, malformed_payloads_are_named_and_never_half_decoded)
{
    const struct {
        const char *name;
        string payload;
    } cases[] = {
        {"port_summary", R"({"A":"green")"},
        {"port_summary", R"({"A":"green",})"},
        {"port_summary", R"({"A":"green","A":"red"})"},
        {"port_summary", R"({"I":"green"})"},
        {"port_summary", R"({"A":"none"})"},
        {"port_summary", R"({"A":"green" ,"B":"red"})"},
        {"port_summary", R"({"CPU":"green"})"},
        {"port_summary", "{"},
        {"port_summary", R"({,})"},
        {"port_summary", R"({"A":""})"},
        {"port_summary", R"({"A":")"},
        {"port_media", R"({"A":"none"})"},
        {"port_media", R"({"A":"copper"})"},
        {"job_rev", "0123"},
        {"job_name", "NINECHARS"},
        {"download_status", "1"},
        {"download_status", "123"},
        {"M301", "on"},
        {"CF_free_space", "12abc"},
        {"CF_free_space", "4294967296"},
        {"repeater", "256"},
        {"card_addr", "128"},
        {"software_versions", versions_text("1.0").substr(1)},
        {"software_versions", string(VERSIONS_TEXT_SIZE, ' ')},
    };
    retained("pub/diag/" + REMOTE + "/port_summary", R"({"A":"green"})");
    for (const auto &[name, payload] : cases) {
        const string size = std::to_string(payload.size()) + (payload.size() == 1 ? " byte)" : " bytes)");
        EXPECT_EQ(of_node(REMOTE, name, payload),
                  lines{"node 02-00-00-00-00-02 malformed " + string(name) + " (" + size})
            << payload;
    }
    EXPECT_FALSE(remote().colours);
    EXPECT_FALSE(remote().media);
    EXPECT_TRUE(remote().versions.empty());
    const string screen = shown(160, 24);
    EXPECT_NE(screen.find("malformed (6 bytes)"), string::npos) << screen;
    EXPECT_EQ(screen.find("green"), string::npos);
}

TEST_F(diagctl, topics_of_others_are_passed_over)
{
    for (const char *topic :
         {"pub/diag/02-00-00-00-00-0g/port_summary", "pub/diag/02-00-00-00-00-0a/port_summary",
          "pub/diag/2-0-0-0-0-1/port_summary", "pub/diag/02-00-00-00-00-02", "pub/diag/", "pub/diag",
          "pub/diag/02-00-00-00-00-02/B", "pub/diag/02-00-00-00-00-02/I/stats",
          "pub/diag/02-00-00-00-00-02/b/stats", "pub/diag/02-00-00-00-00-02/port_summary/x",
          "pub/diag/command/aut/tbl_idx", "local/diag/port/A/stats"}) {
        EXPECT_EQ(apply(topic, "x"), lines{}) << topic;
    }
    EXPECT_NE(shown(80, 24).find("0 nodes"), string::npos);
}

TEST_F(diagctl, lists_tell_each_port_gained_and_lost)
{
    const string two = list_record("\x02", 2, 0x03) + list_record("\x03", 3, '\x80');
    EXPECT_EQ(apply("pub/diag/net/fire/grnd_list", two),
              (lines{"ground list gained node 02-00-00-00-00-02 (2) port A",
                     "ground list gained node 02-00-00-00-00-02 (2) port B",
                     "ground list gained node 02-00-00-00-00-03 (3) port H"}));
    EXPECT_EQ(apply("pub/diag/net/fire/grnd_list", two), lines{});
    EXPECT_EQ(apply("pub/diag/net/fire/grnd_list", list_record("\x02", 2, 0x06)),
              (lines{"ground list gained node 02-00-00-00-00-02 (2) port C",
                     "ground list lost node 02-00-00-00-00-02 (2) port A",
                     "ground list lost node 02-00-00-00-00-03 (3) port H"}));
    EXPECT_NE(shown(80, 24).find("Ground fault: 02-00-00-00-00-02 (2) BC "), string::npos);
    EXPECT_EQ(net.nodes.size(), 1U) << "a node that was only listed is forgotten with its entry";
    for (const string &malformed : {string("\x01"), string(7, '\0'), two + "x", string(2008, 'x')}) {
        EXPECT_EQ(apply("pub/diag/net/fire/grnd_list", malformed).size(), 1U);
        EXPECT_NE(
            shown(80, 24).find("Ground fault: malformed (" + std::to_string(malformed.size()) + " byte"),
            string::npos);
    }
    EXPECT_EQ(apply("pub/diag/net/fire/grnd_list", NONE_LISTED), lines{});
    EXPECT_NE(shown(80, 24).find("Ground fault: none"), string::npos);
}

// Who watches node 2 wants all of these, and nothing else.
TEST_F(diagctl, change_of_a_node_not_shown_to_who_watches_it)
{
    announce_local();
    net.names.add(REMOTE + " Cellar", "names");
    const auto is_of = [&](const char *reference) {
        const auto wanted = parse_node_reference(reference, net.names);
        return !last.empty() && std::all_of(last.begin(), last.end(),
                                            [&](const change &item) { return concerns(net, *wanted, item); });
    };
    const struct {
        const char *topic;
        string payload;
    } messages[] = {
        {"pub/diag/net/fire/grnd_list", list_record("\x02", 2, 1)},
        {"pub/diag/02-00-00-00-00-02/port_summary", R"({"A":"red"})"},
        {"pub/diag/net/fire/miswired_links", string("\x09\0\x02\x01", 4)},
        {"pub/diag/02-00-00-00-00-02/A/stats", stats_of(1, 2, 3)},
        {"pub/diag/net/fire/grnd_list", NONE_LISTED},
        {"pub/diag/02-00-00-00-00-02/port_summary", ""},
    };
    detail = change_detail::RECORDS;
    for (const auto &[topic, payload] : messages) {
        apply(topic, payload);
        for (const char *reference : {"2", "cellar", "02:00:00:00:00:02"}) {
            EXPECT_TRUE(is_of(reference)) << topic << " " << reference;
        }
        EXPECT_FALSE(is_of("local") || is_of("3")) << topic;
    }
    apply("local/diag/ring/0/status", string("\x02\0\0\0", 4));
    EXPECT_TRUE(is_of("local"));
}

TEST_F(diagctl, miswired_links_name_both_ends)
{
    EXPECT_EQ(apply("pub/diag/net/fire/miswired_links", string("\x07\0\x09\x02", 4)),
              lines{"miswired links gained 7/A to 9/C"});
    EXPECT_EQ(apply("pub/diag/net/fire/miswired_links", string("\x07\x08\x09\xff", 4)),
              (lines{"miswired links gained 7/CPU to 9/255", "miswired links lost 7/A to 9/C"}));
    EXPECT_EQ(apply("pub/diag/net/fire/miswired_links", "12345"),
              lines{"malformed miswired links (5 bytes)"});
    apply("pub/diag/net/fire/miswired_links", string("\x07\0\x09\x02", 4));
    EXPECT_EQ(apply("pub/diag/net/fire/miswired_links", ""), lines{"miswired links lost 7/A to 9/C"});
}

TEST_F(diagctl, ring_status_changes_are_told_and_other_bytes_are_not_guessed_at)
{
    EXPECT_EQ(apply("local/diag/network_style7", "\x01"), lines{"network ring status degraded"});
    EXPECT_EQ(apply("local/diag/network_style7", "\x01"), lines{});
    EXPECT_EQ(apply("local/diag/network_style7", NONE_LISTED), lines{"network ring status normal"});
    EXPECT_EQ(apply("local/diag/network_style7", "\x02"), lines{"malformed network_style7 (1 byte)"});
    EXPECT_NE(shown(80, 24).find("Network ring malformed"), string::npos);
}

TEST_F(diagctl, bytes_from_outside_cannot_command_the_terminal)
{
    retained("pub/diag/" + REMOTE + "/port_summary", "{}");
    retained("pub/diag/" + REMOTE + "/job_name", "A");
    EXPECT_EQ(of_node(REMOTE, "job_name", "\x1b[2J\n\\"),
              lines{"node 02-00-00-00-00-02 job name '\\x1B[2J\\x0A\\x5C' (was 'A')"});
    EXPECT_EQ(apply("pub/diag/command/request", "1;2;\x9b"), lines{"command request 1;2;\\x9B"});
    for (const char c : shown(200, 24)) {
        EXPECT_TRUE(c == '\n' || (c >= ' ' && c <= '~'));
    }
}

TEST_F(diagctl, statistics_are_decoded_whole_or_not_at_all)
{
    announce_local();
    const stats_target target = {{.is_local = true}, LUM_PORT_B, "local/B"};
    EXPECT_NE(shown(100, 40, &target).find("local/B: none published"), string::npos);

    string stats(STATS_BLOCK_SIZE, '\0');
    stats[STATS_GOOD_FRAMES + 6] = 1;
    stats[STATS_GOOD_FRAMES + 7] = 2;
    stats[STATS_VALUE16_64 + 1] = 7;
    EXPECT_EQ(of_node(LOCAL, "B/stats", stats), lines{});
    string screen = shown(60, 40, &target);
    EXPECT_NE(screen.find("good_frames        258    258      -"), string::npos) << screen;
    EXPECT_NE(screen.find("value16_64         7"), string::npos) << screen;

    EXPECT_EQ(of_node(LOCAL, "B/stats", stats.substr(1)).size(), 1U);
    screen = shown(60, 40, &target);
    EXPECT_NE(screen.find("malformed (65 bytes)"), string::npos);
    EXPECT_EQ(screen.find("good_frames"), string::npos);
}

TEST_F(diagctl, running_period_counts_from_the_close_that_was_seen)
{
    announce_local();
    const auto publish_stats = [&](uint64_t good, uint32_t errored, uint32_t ratio) {
        of_node(LOCAL, "A/stats", stats_of(good, errored, ratio));
    };
    const auto running = [&](size_t offset) {
        const auto field = std::find_if(PM_FIELDS.begin(), PM_FIELDS.end(), [&](const pm_field &candidate) {
            return candidate.offset == offset;
        });
        return running_period_value(net.nodes.at(LOCAL_MAC).ports.at(LUM_PORT_A), *field);
    };
    publish_stats(100, 5, 9);
    EXPECT_EQ(running(PM_GOOD_FRAMES), 100U) << "nothing has been closed yet";
    EXPECT_EQ(running(PM_LINK_DOWN_COUNT), std::nullopt) << "may have counted before the first statistics";

    // A period closed before the view began: how much of the statistics is older can't be told.
    retained("pub/diag/" + LOCAL + "/A/pm/last_period", "period4");
    EXPECT_EQ(running(PM_GOOD_FRAMES), std::nullopt);
    EXPECT_EQ(running(PM_ERROR_RATIO_PPM), 9U);

    EXPECT_EQ(of_node(LOCAL, "A/pm/last_period", "period5"),
              lines{"node 02-00-00-00-00-01 port A closed period5"});
    publish_stats(130, 2, 11);
    EXPECT_EQ(running(PM_GOOD_FRAMES), 30U);
    EXPECT_EQ(running(PM_ERRORED_FRAMES), UINT32_MAX - 2) << "the counter has 32 bits";
    EXPECT_EQ(running(PM_TIME), std::nullopt);

    EXPECT_EQ(of_node(LOCAL, "A/pm/last_period", ""),
              lines{"node 02-00-00-00-00-01 port A performance records cleared"});
    EXPECT_EQ(running(PM_GOOD_FRAMES), 130U);
    EXPECT_EQ(running(PM_LINK_DOWN_COUNT), 0U) << "a reset begins the period with the totals";

    of_node(LOCAL, "A/pm/last_period", "period6");
    apply("pub/diag/local_node", LOCAL);
    publish_stats(5, 0, 0);
    EXPECT_EQ(running(PM_GOOD_FRAMES), std::nullopt) << "a daemon that started again counts from nothing";
    EXPECT_EQ(of_node(LOCAL, "A/pm/last_period", "period96").size(), 1U);
    EXPECT_EQ(of_node(LOCAL, "A/pm/period3", string(55, 'x')).size(), 1U);
}

TEST_F(diagctl, users_name_nodes_in_the_common_forms_only)
{
    for (const char *text : {"02-00-00-00-00-02", "02:00:00:00:00:02", "020000000002"}) {
        ASSERT_TRUE(parse_node_reference(text, {})) << text;
        EXPECT_EQ(parse_node_reference(text, {})->macs, std::vector{REMOTE_MAC});
    }
    EXPECT_TRUE(parse_node_reference("local", {})->is_local);
    EXPECT_EQ(parse_node_reference("12", {})->number, 12);
    for (const char *text : {"", "0", "256", "-1", "remote", "02-00-00-00-00", "02-00-00-00-00-02-03",
                             "02-00-00-00-00-0x", "02:00-00-00-00-02", "2-0-0-0-0-2"}) {
        EXPECT_FALSE(parse_node_reference(text, {})) << text;
    }
    apply("pub/diag/net/fire/link_down", list_record("\x02", 9, 1) + list_record("\x03", 9, 1));
    EXPECT_EQ(find_nodes(net, *parse_node_reference("9", {})).size(), 2U);
    EXPECT_EQ(find_nodes(net, *parse_node_reference("8", {})).size(), 0U);
}
