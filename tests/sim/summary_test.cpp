// Node summaries: what is received, what the node's own facts do to its summary, when it is sent, and when
// silent nodes are forgotten.
#include "packets.h"
#include "ports.h"
#include "summary.h"

#include <algorithm>

using namespace card;

namespace
{

const std::string LINK_DOWN = "pub/diag/net/fire/link_down";
const std::string GROUND = "pub/diag/net/fire/grnd_list";
const std::string MISWIRED = "pub/diag/net/fire/miswired";
const std::string MISWIRED_LINKS = "pub/diag/net/fire/miswired_links";
const std::string STYLE7 = "local/diag/network_style7";
const std::string DEGRADED = bytes("01");
const std::string NOT_DEGRADED = bytes("00");
const std::string NO_PORTS = bytes("00"); // an empty port list
std::string peer_topic(const std::string &name, const std::string &mac_text = PEER_MAC_TEXT)
{
    return "pub/diag/" + mac_text + "/" + name;
}

std::string own_topic(const std::string &name)
{
    return peer_topic(name, LOCAL_MAC_TEXT);
}

std::string padded(std::string text, size_t size)
{
    text.resize(size, ' ');
    return text;
}

// Summary data with everything zero but the versions.
std::string blank_data()
{
    std::string data(61, '\0');
    for (const char *name : {"boot", "system", "application"}) {
        data += padded(name, 10) + padded(name + std::string(" 1"), 40);
    }
    return data;
}

void put(std::string &data, size_t offset, const std::string &text)
{
    data.replace(offset, text.size(), text);
}

const std::string BLANK_VERSIONS = padded("system", 10) + ":" + padded("system 1", 40) + ";" +
                                   padded("boot", 10) + ":" + padded("boot 1", 40) +
                                   ";applicatio:" + padded("application 1", 40) + ";";

const messages BLANK_PUBLICATIONS = {
    {peer_topic("port_summary"), "{}"},
    {peer_topic("port_media"), "{}"},
    {STYLE7, NOT_DEGRADED}, // with the port types
    {STYLE7, NOT_DEGRADED}, // with the rings
    {peer_topic("job_rev"), ""},
    {peer_topic("job_name"), ""},
    {peer_topic("download_status"), bytes("00 00")},
    {peer_topic("M301"), "0"},
    {peer_topic("M702"), "0"},
    {peer_topic("comm_loss"), "0"},
    {peer_topic("download_pending"), "0"},
    {peer_topic("CF_free_space"), "0"},
    {peer_topic("repeater"), "0"},
    {peer_topic("software_versions"), BLANK_VERSIONS},
};

// The MAC address 02-00-00-00-xx-xx of one of many nodes.
std::string nth_mac(size_t n)
{
    return bytes("02 00 00 00") + be(n, 2);
}

using node_summary = started_node;

//
// Summaries of other nodes
//

TEST_F(node_summary, walk_passes_over_what_it_does_not_know)
{
    const std::string repeater = section(7, bytes("05"));
    const struct {
        std::string payload;
        std::vector<const char *> values; // of the repeater, as published
        lines log;
    } rows[] = {
        {"", {}, {}},
        {bytes("07 00 01"), {}, {}},
        {repeater, {"5"}, {}},
        {repeater + bytes("00 00 01"), {"5"}, {}},
        {repeater + section(7, bytes("05")) + section(7, bytes("06")), {"5", "6"}, {}},
        {bytes("10 FF FF") + repeater, {"5"}, {}},
        {bytes("09 00 00 FF 00 00") + repeater, {"5"}, {}},
        {section(3, std::string(24, 'x')) + repeater,
         {"5"},
         {"summary.c: invalid length for type 0x03 (24, should be 25)"}},
        {repeater + bytes("00 01 00") + std::string(50, '\x07'),
         {"5"},
         {"summary.c: not enough data for given length"}},
        {bytes("07 00 02 05"), {}, {"summary.c: not enough data for given length"}},
    };
    size_t number = 0;
    for (const auto &row : rows) {
        const std::string mac = nth_mac(++number);
        receive_summary(row.payload, mac);
        EXPECT_EQ(take_log(), row.log) << number;
        messages expected;
        for (const char *value : row.values) {
            std::string text = hex(mac);
            std::ranges::replace(text, ' ', '-');
            expected.push_back({peer_topic("repeater", text), value});
        }
        EXPECT_EQ(take_published(), expected) << number;
    }
}

TEST_F(node_summary, each_change_publishes_what_depends_on_it_and_nothing_else)
{
    std::string data = blank_data();
    receive_summary(sections_of(data));
    EXPECT_EQ(take_published(), BLANK_PUBLICATIONS);
    receive_summary(sections_of(data));
    EXPECT_EQ(take_published(), messages());

    const auto list = [](const char *mask) { return PEER_MAC + bytes(mask); };
    const auto change = [&](size_t offset, const char *hex_bytes, const messages &published) {
        put(data, offset, bytes(hex_bytes));
        receive_summary(sections_of(data));
        EXPECT_EQ(take_published(), published) << offset << ' ' << hex_bytes;
    };
    change(0, "09", {});
    change(1, "05", {{LINK_DOWN, list("09 05")}});
    change(2, "80", {{GROUND, list("09 80")}});
    change(4, "02", {{peer_topic("port_summary"), R"({"B":"yellow"})"}});
    change(
        3, "81 03 FF",
        {{peer_topic("port_summary"),
          R"({"A":"red","B":"yellow","C":"green","D":"green","E":"green","F":"green","G":"green","H":"red"})"}});
    change(6, "01 03 07 0F", {{peer_topic("port_media"), R"({"A":"eth","B":"dsl","C":"smf","D":"mmf"})"}});
    change(10, "03", {{STYLE7, DEGRADED}}); // fire ports without rings
    change(11, "04", {{STYLE7, DEGRADED}});
    change(37, "01", {{STYLE7, NOT_DEGRADED}});
    change(38, "01", {{STYLE7, DEGRADED}});
    change(12, "02", {{MISWIRED, list("09 02")}, {MISWIRED_LINKS, bytes("09 00 00 00")}});
    change(16, "03 04 01", {{MISWIRED, list("09 02")}, {MISWIRED_LINKS, bytes("09 01 03 04")}});
    change(47, "41 42 43", {{peer_topic("job_rev"), "ABC"}});
    change(39, "4A 4F 42 00 31 32 33 34", {{peer_topic("job_name"), "JOB"}});
    change(43, "39", {}); // behind the name's end
    change(42, "30", {{peer_topic("job_name"), "JOB09234"}});
    change(39, "00", {{peer_topic("job_name"), ""}});
    change(50, "01 FF", {{peer_topic("download_status"), bytes("01 FF")}});
    change(56, "01 02 01 03",
           {{peer_topic("M301"), "1"},
            {peer_topic("M702"), "0"},
            {peer_topic("comm_loss"), "1"},
            {peer_topic("download_pending"), "0"}});
    change(52, "10 27 00 00", {{peer_topic("CF_free_space"), "10000"}});
    change(52, "FF C9 9A 3B", {{peer_topic("CF_free_space"), "999999999"}});
    change(52, "FF FF FF FF", {{peer_topic("CF_free_space"), "429496729"}});
    change(60, "FF", {{peer_topic("repeater"), "255"}});
    change(1, "00 00", {{LINK_DOWN, NO_PORTS}, {GROUND, NO_PORTS}});
    change(12, "00", {{MISWIRED, NO_PORTS}, {MISWIRED_LINKS, ""}});
    put(data, 171, "2");
    receive_summary(sections_of(data));
    EXPECT_EQ(take_published().at(0).payload.substr(115, 5), "2ppli");
    EXPECT_EQ(retained(MISWIRED_LINKS), "");
}

TEST_F(node_summary, first_summary_publishes_lists_only_for_a_node_to_list)
{
    std::string data = blank_data();
    put(data, 1, bytes("01 02"));
    put(data, 12, bytes("01"));
    receive_summary(sections_of(data));
    EXPECT_EQ(retained(LINK_DOWN), PEER_MAC + bytes("00 01"));
    EXPECT_EQ(retained(GROUND), PEER_MAC + bytes("00 02"));
    EXPECT_EQ(retained(MISWIRED), PEER_MAC + bytes("00 01"));
    EXPECT_EQ(retained(MISWIRED_LINKS), bytes("00 00 00 00")); // leads to itself, which is no reason
}

TEST_F(node_summary, port_list_ends_at_250_nodes_newest_first_and_local_last)
{
    run_as_daemon([] { summary_update_link(1, 1); });
    std::string list = LOCAL_MAC + bytes("07 02");
    for (size_t n = 1; n <= 249; n++) {
        receive_summary(section(0, bytes("08")) + section(1, bytes("01 00 00 00 00")), nth_mac(n));
        list = nth_mac(n) + bytes("08 01") + list;
        ASSERT_EQ(retained(LINK_DOWN), list);
    }
    receive_summary(section(1, bytes("80 00 00 00 00")), nth_mac(250));
    EXPECT_EQ(retained(LINK_DOWN), nth_mac(250) + bytes("00 80") + list.substr(0, 249 * 8));
}

TEST_F(node_summary, miswired_link_is_listed_once_from_the_end_met_first)
{
    const auto miswire = [](const char *number, const char *mask, const char *peers, size_t mac) {
        receive_summary(section(0, bytes(number)) + section(3, bytes(mask) + padded(bytes(peers), 24)),
                        nth_mac(mac));
    };
    miswire("01", "01", "02 03 00", 1);                               // node 1 port A to node 2 port D
    miswire("02", "09", "02 00 00  00 00 00  00 00 00  01 00 03", 2); // node 2 port A to itself, D back
    EXPECT_EQ(retained(MISWIRED_LINKS), bytes("02 00 02 00  02 03 01 00"));
    miswire("02", "00", "", 2);
    EXPECT_EQ(retained(MISWIRED_LINKS), bytes("01 00 02 03"));
    for (size_t n = 3; n <= 9; n++) { // 56 more links
        std::string peers;
        for (int port = 0; port < 8; port++) {
            peers += bytes("FF 00") + static_cast<char>(port);
        }
        receive_summary(section(0, std::string(1, static_cast<char>(n))) + section(3, bytes("FF") + peers),
                        nth_mac(n));
    }
    EXPECT_EQ(retained(MISWIRED_LINKS).size(), 200U);
    EXPECT_EQ(retained(MISWIRED_LINKS).substr(192), bytes("03 00 FF 00  03 01 FF 00"));
}

TEST_F(node_summary, own_mac_updates_the_local_record_which_never_goes)
{
    receive_summary(section(0, bytes("2A")) + section(1, bytes("01 00 00 00 00")), LOCAL_MAC);
    EXPECT_EQ(retained(LINK_DOWN), LOCAL_MAC + bytes("2A 01"));
    receive_goodbye(LOCAL_MAC);
    advance(200s);
    EXPECT_EQ(retained(LINK_DOWN), LOCAL_MAC + bytes("2A 01"));
    take_published();
    receive_goodbye(nth_mac(99)); // of a node never heard
    EXPECT_EQ(take_published(), messages());
}

const lines LEAVING = {"port_summary",    "port_media",       "job_rev", "job_name",
                       "download_status", "CF_free_space",    "M301",    "M702",
                       "comm_loss",       "download_pending", "repeater"};

messages withdrawn()
{
    messages all;
    for (const std::string &name : LEAVING) {
        all.push_back({peer_topic(name), ""});
    }
    return all;
}

TEST_F(node_summary, goodbye_withdraws_what_the_node_left_except_its_versions)
{
    std::string data = blank_data();
    put(data, 1, bytes("01 02"));
    put(data, 10, bytes("01"));
    put(data, 12, bytes("04"));
    receive_summary(sections_of(data));
    take_published();
    receive_goodbye();
    const messages lists = {{LINK_DOWN, NO_PORTS},
                            {GROUND, NO_PORTS},
                            {MISWIRED, NO_PORTS},
                            {MISWIRED_LINKS, ""},
                            {STYLE7, NOT_DEGRADED}};
    messages expected = withdrawn();
    expected.insert(expected.begin(), lists.begin(), lists.end());
    EXPECT_EQ(take_published(), expected);
    EXPECT_NE(retained(peer_topic("software_versions")), "");
    receive_summary(sections_of(blank_data()));
    receive_goodbye();
    const messages again = take_published(); // known no more: all is published, and no list on leaving
    EXPECT_EQ(messages(again.begin(), again.begin() + 14), BLANK_PUBLICATIONS);
    EXPECT_EQ(messages(again.begin() + 14, again.end()), withdrawn());
}

TEST_F(node_summary, node_numbers_lead_to_all_their_macs_that_fit)
{
    for (size_t n = 1; n <= 3; n++) {
        receive_summary(section(0, bytes("07")), nth_mac(n));
    }
    uint8_t macs[99 * 6];
    const auto found = [&](uint8_t number, size_t capacity) {
        const size_t count = as_daemon([&] { return summary_get_mac_addrs(number, macs, capacity); });
        return std::string(macs, macs + 6 * count);
    };
    EXPECT_EQ(found(8, sizeof macs), "");
    EXPECT_EQ(found(7, sizeof macs), nth_mac(3) + nth_mac(2) + nth_mac(1) + LOCAL_MAC);
    EXPECT_EQ(take_log(), lines());
    EXPECT_EQ(found(7, 18), nth_mac(3) + nth_mac(2) + nth_mac(1));
    EXPECT_EQ(found(7, 17), nth_mac(3) + nth_mac(2));
    EXPECT_EQ(take_log(), lines(2, "summary.c: ignoring MAC address(es) since result array is too small"));
}

//
// The node's own facts. A full summary is sent each minute; of the four ticks behind it only recent changes
// are sent.
//

class local_summary : public started_node
{
protected:
    void SetUp() override
    {
        started_node::SetUp();
        while (take_datagrams().empty()) {
            advance(1s);
        }
    }

    // The types of the sections that the next tick sends besides the node number, as a number: 46 for types 4
    // and 6.
    static int sent_next()
    {
        take_datagrams();
        advance(3s);
        int types = 0;
        for (const datagram &sent : take_datagrams()) {
            for (size_t at = 14; at < sent.bytes.size();
                 at += 3U + static_cast<uint8_t>(sent.bytes[at + 1]) * 256U +
                       static_cast<uint8_t>(sent.bytes[at + 2])) {
                types = types * 10 + sent.bytes[at];
            }
        }
        return types;
    }

    // Bytes of the summary data, from the next full summary; call it behind sent_next.
    static std::string local_data(size_t offset, size_t size)
    {
        advance(57s);
        const std::string full = take_datagrams().back().bytes;
        EXPECT_EQ(full.size(), 248U);
        std::string data;
        for (size_t at = 10; at < full.size();) {
            const size_t length = static_cast<uint8_t>(full[at + 2]);
            data += full.substr(at + 3, length);
            at += 3 + length;
        }
        return hex(data.substr(offset, size));
    }

    // Expects data from offset on afterwards, sections stamped as sent_next has them, and what is published.
    static void expect_effect(size_t offset, const char *data, int stamped, const messages &published,
                              const std::string &log)
    {
        EXPECT_EQ(take_published(), published);
        EXPECT_EQ(take_log(), log.empty() ? lines() : lines({"summary.c: " + log}));
        EXPECT_EQ(sent_next(), stamped);
        EXPECT_EQ(local_data(offset, (strlen(data) + 1) / 3), data);
    }

    static void hear(const std::string &topic, const std::string &payload, size_t offset, const char *data,
                     int stamped, const messages &published = {}, const std::string &log = "")
    {
        SCOPED_TRACE(topic + " " + hex(payload));
        publish(topic, payload);
        expect_effect(offset, data, stamped, published, log);
    }

    // The update fails exactly when it is expected to log.
    static void update(int (*function)(int port, int value), int port, int value, size_t offset,
                       const char *data, int stamped, const messages &published = {},
                       const std::string &log = "")
    {
        SCOPED_TRACE(testing::Message() << port << ' ' << value << ' ' << data);
        EXPECT_EQ(as_daemon([&] { return function(port, value); }), log.empty() ? 0 : -1);
        expect_effect(offset, data, stamped, published, log);
    }
};

TEST_F(local_summary, starts_with_number_versions_and_nothing_else)
{
    EXPECT_EQ(sent_next(), 0);
    EXPECT_EQ(local_data(0, 61), hex(bytes("07") + std::string(60, '\0')));
    EXPECT_EQ(sent_next(), 0);
    EXPECT_EQ(local_data(61, 150),
              hex(padded("eboot", 10) + padded("7.8.9\"\n", 35) + "7.8.9" + padded("eos image", 10) +
                  padded("1.2.3\n", 40) + padded("priapp", 10) + padded("4.5.6\n", 40)));
}

// Ring-protection status of a port in host byte order.
std::string erps(uint8_t flags, uint32_t state, uint32_t peer_port, uint32_t peer_node, uint8_t peer_flags)
{
    std::string status(92, '\x55');
    put(status, 0, host_bytes(flags));
    put(status, 4, host_bytes(state));
    put(status, 76, host_bytes(peer_port));
    put(status, 80, host_bytes(peer_node));
    put(status, 88, host_bytes(peer_flags));
    return status;
}

std::string ring(int32_t state)
{
    return host_bytes(state);
}

TEST_F(local_summary, topics_change_stamp_and_publish)
{
    const std::string port = "local/diag/port/";
    const std::string ring_topic = "local/diag/ring/";
    const auto miswired = [](const char *mask, const char *links) {
        const std::string list =
            bytes(mask) == bytes("00") ? NO_PORTS : LOCAL_MAC + bytes("07") + bytes(mask);
        return messages({{MISWIRED, list}, {MISWIRED_LINKS, bytes(links)}});
    };
    const messages rings = {{STYLE7, NOT_DEGRADED}};
    // Miswired: up, and flags differ or are odd with ports of the same parity.
    hear(port + "B/status", erps(1, 0, 0x103, 0x209, 1), 12, "02 00 00 00 09 03 01", 3,
         miswired("02", "07 01 09 03"));
    hear(port + "B/status", erps(1, 4, 0x103, 0x209, 1), 12, "02", 0);
    hear(port + "B/status", erps(0, 4, 2, 8, 1), 12, "02 00 00 00 08 02 01", 3,
         miswired("02", "07 01 08 02"));
    hear(port + "CPU/status", erps(0, 0, 1, 1, 1), 12, "02", 0);
    hear(port + "CPU/status", "", 12, "02", 0);
    hear(port + "B/status", erps(1, 0, 2, 8, 1), 12, "00 00 00 00 08 02 01", 3, miswired("00", ""));
    hear(port + "H/status", erps(3, 0, 1, 8, 3), 12, "80", 3, miswired("80", "07 07 08 01"));
    hear(port + "H/status", erps(2, 0, 1, 8, 2), 12, "00", 3, miswired("00", ""));
    hear(port + "A/status", erps(0, 5, 0, 8, 1), 12, "00", 0);
    hear(port + "A/status", erps(0, 4, 0, 8, 1), 12, "01", 3, miswired("01", "07 00 08 00"));
    hear(port + "A/status", std::string(91, '\0'), 12, "01", 0, {},
         "published ERPS port status data has wrong length (91, should be 92)");
    hear(port + "A/status", "", 12, "00 08 00 00", 3, miswired("00", ""));
    publish(port + "a/status", "");
    EXPECT_EQ(take_log(), lines({"utils: invalid port identifier in topic local/diag/port/a/status"}));
    // Rings
    hear(ring_topic + "0/status", ring(2), 37, "01 00", 4, rings);
    hear(ring_topic + "7/status", ring(0), 37, "81 80", 4, rings);
    hear(ring_topic + "7/status", ring(2), 37, "81 00", 4, rings);
    hear(ring_topic + "0/status", ring(-1), 37, "80 00", 4, rings);
    hear(ring_topic + "8/status", ring(3), 37, "80 00", 4, rings);
    hear(ring_topic + "4294967295/status", ring(3), 37, "80 00", 4, rings);
    hear(ring_topic + "7/status", ring(3).substr(1), 37, "80 00", 0, {},
         "published ring status data has wrong length (3, should be 4 or 0)");
    hear(ring_topic + "7/status", "", 37, "00 00", 4, rings);
    hear(ring_topic + "x/status", ring(3), 37, "00 00", 0);
    // Job
    hear(own_topic("job_name"), "ABCDEFGH", 39, "41 42 43 44 45 46 47 48", 0);
    hear(own_topic("job_rev"), "ABC", 47, "41 42 43", 0);
    hear(own_topic("job_rev"), "", 47, "00 42 43", 0);
    hear(own_topic("job_rev"), "ABCD", 47, "00 42 43", 0, {},
         "published job information on topic pub/diag/00-1A-2B-3C-4D-5E/job_rev is too long (4, must be at "
         "most 3)");
    hear(own_topic("job_name"), "XY", 39, "58 59 00 00 00 00 00 00", 0);
    hear(own_topic("job_name"), "123456789", 39, "58 59", 0, {},
         "published job information on topic pub/diag/00-1A-2B-3C-4D-5E/job_name is too long (9, must be at "
         "most 8)");
    // Download
    hear(own_topic("download_status"), bytes("12 34"), 50, "12 34", 6);
    hear(own_topic("download_status"), "1", 50, "12 34", 6, {},
         "published download status has wrong length (1, should be 2)");
    hear(own_topic("download_status"), "", 50, "00 00", 6);
    hear(own_topic("CF_free_space"), "0x10", 52, "10 00 00 00", 6);
    hear(own_topic("CF_free_space"), "12abc", 52, "10 00 00 00", 6, {}, "invalid CF free space value 12abc");
    hear(own_topic("CF_free_space"), "-1", 52, "10 00 00 00", 6, {}, "invalid CF free space value -1");
    hear(own_topic("CF_free_space"), " 1", 52, "10 00 00 00", 6, {}, "invalid CF free space value  1");
    hear(own_topic("CF_free_space"), "4294967295", 52, "FF FF FF FF", 6);
    hear(own_topic("CF_free_space"), "4294967296", 52, "FF FF FF FF", 6, {},
         "invalid CF free space value 4294967296");
    hear(own_topic("CF_free_space"), "010", 52, "08 00 00 00", 6);
    hear(own_topic("CF_free_space"), "", 52, "00 00 00 00", 0);
    hear(own_topic("M301"), "1", 56, "01 00 00 00", 6);
    hear(own_topic("M702"), "1", 56, "01 01 00 00", 6);
    hear(own_topic("comm_loss"), "1", 56, "01 01 01 00", 6);
    hear(own_topic("download_pending"), "1", 56, "01 01 01 01", 6);
    hear(own_topic("M301"), "2", 56, "00 01 01 01", 6);
    hear(own_topic("M702"), "", 56, "00 00 01 01", 6);
    hear(own_topic("comm_loss"), "11", 56, "00 00 01 01", 0, {},
         "message published on pub/diag/00-1A-2B-3C-4D-5E/comm_loss has wrong length (2, should be 1 or 0)");
    // Repeater
    hear(own_topic("repeater"), "255", 60, "FF", 7);
    hear(own_topic("repeater"), "256", 60, "00", 7);
    hear(own_topic("repeater"), "0x1f", 60, "1F", 7);
    hear(own_topic("repeater"), "", 60, "00", 0);
    hear(own_topic("repeater"), "12 ", 60, "00", 7);
}

TEST_F(local_summary, port_events_change_stamp_and_publish)
{
    const auto list = [](const std::string &topic, const char *mask) {
        return messages({{topic, LOCAL_MAC + bytes("07") + bytes(mask)}});
    };
    const auto colours = [](const char *text) { return messages({{own_topic("port_summary"), text}}); };
    const auto media = [](const char *text) { return messages({{own_topic("port_media"), text}}); };
    update(summary_update_link, 1, 1, 1, "02", 1, list(LINK_DOWN, "02"));
    update(summary_update_link, 1, 1, 1, "02", 0);
    update(summary_update_link, 8, 1, 1, "02", 0);
    update(summary_update_link, 0, 1, 1, "03", 1, list(LINK_DOWN, "03"));
    update(summary_update_ground, 7, 1, 1, "03 80", 1, list(GROUND, "80"));
    update(summary_update_ground, 8, 1, 2, "80", 0);
    update(summary_update_ground, 7, 0, 2, "00", 1, {{GROUND, NO_PORTS}});
    update(summary_update_status, 1, 0, 3, "00 00 02", 1, colours(R"({"B":"green"})"));
    update(summary_update_status, 1, 0, 3, "00 00 02", 1, colours(R"({"B":"green"})"));
    update(summary_update_status, 1, 1, 3, "00 02 00", 1, colours(R"({"B":"yellow"})"));
    update(summary_update_status, 0, 2, 3, "01 02 00", 1, colours(R"({"A":"red","B":"yellow"})"));
    update(summary_update_status, 1, 5, 3, "01 00 00", 0, {}, "invalid port status 5");
    update(summary_update_status, 0, -1, 3, "00 00 00", 0, {}, "invalid port status -1");
    update(summary_update_status, 8, 2, 3, "00 00 00", 1, colours("{}"));
    update(summary_update_status, 0, 3, 3, "00 00 00", 1, colours("{}"));
    update(summary_update_media, 2, 0, 6, "04 00 00 00", 0, media(R"({"C":"eth"})"));
    update(summary_update_media, 2, 3, 6, "00 00 00 04", 0, media(R"({"C":"mmf"})"));
    update(summary_update_media, 2, 5, 6, "00 00 00 00", 0, {}, "invalid media type 5");
    update(summary_update_media, 2, 1, 6, "00 04 00 00", 0, media(R"({"C":"dsl"})"));
    update(summary_update_media, 8, 2, 6, "00 04 00 00", 0, media(R"({"C":"dsl"})"));
    update(summary_update_media, 2, 4, 6, "00 00 00 00", 0, media("{}"));
    update(summary_update_type, 0, 1, 10, "00 01", 0);
    update(summary_update_type, 8, 0, 10, "00 01", 0);
    update(summary_update_type, 0, 0, 10, "01 00", 0, {{STYLE7, DEGRADED}});
    update(summary_update_type, 1, 0, 10, "03 00", 0);
    update(summary_update_type, 1, 3, 10, "01 00", 0, {}, "invalid port type 3");
    update(summary_update_type, 0, 2, 10, "00 00", 0, {{STYLE7, NOT_DEGRADED}});
}

TEST_F(local_summary, change_without_a_clock_goes_out_with_the_next_periodic_summary)
{
    fail(system_call::CLOCK_GETTIME, EINVAL);
    publish(own_topic("download_status"), "ab");
    fail(system_call::CLOCK_GETTIME, EINVAL);
    publish("local/diag/ring/0/status", ring(2));
    EXPECT_EQ(take_log(), lines(2, "summary.c: couldn't get time (errno 22)"));
    EXPECT_EQ(take_published(), messages({{STYLE7, NOT_DEGRADED}}));
    EXPECT_EQ(sent_next(), 0);
}

//
// Sending and purging
//

TEST_F(local_summary, schedule_over_two_minutes)
{
    std::vector<int> sent;
    for (int tick = 1; tick <= 40; tick++) {
        sent.push_back(sent_next());
    }
    std::vector<int> expected(40);
    for (const int tick : {5, 10, 15, 25, 30, 35}) {
        expected[static_cast<size_t>(tick - 1)] = 13467;
    }
    expected[19] = expected[39] = 12345678;
    EXPECT_EQ(sent, expected);
}

TEST_F(local_summary, change_is_recent_for_3_s_inclusive)
{
    run_as_daemon([] { summary_update_link(0, 1); }); // at the very time of the tick before
    advance(3s);
    EXPECT_EQ(take_datagrams(), datagrams({{GROUP, bytes("01 01 00 1A 2B 3C 4D 5E 00 0C  00 00 01 07  "
                                                         "01 00 05 01 00 00 00 00")}}));
    EXPECT_EQ(sent_next(), 0);
    advance(3s - 1ns);
    run_as_daemon([] { summary_update_link(0, 0); });
    EXPECT_EQ(sent_next(), 1); // two ticks, of which the first sends it
}

TEST_F(node_summary, silent_node_goes_at_the_first_check_that_finds_it_35_s_old)
{
    receive_summary("", nth_mac(1));
    advance(100ms);
    receive_summary("", nth_mac(2));
    advance(34900ms - 1ns);
    EXPECT_EQ(take_published(), messages());
    advance(1ns);
    EXPECT_EQ(take_published().at(0).topic, peer_topic("port_summary", "02-00-00-00-00-01"));
    EXPECT_TRUE(has_timer(34900ms)); // after the smallest age
    advance(34900ms - 1ns);
    EXPECT_EQ(take_published(), messages());
    advance(1ns);
    EXPECT_EQ(take_published().at(10).topic, peer_topic("repeater", "02-00-00-00-00-02"));
    EXPECT_TRUE(has_timer(35s));
    EXPECT_EQ(take_published(), messages());
}

TEST_F(node_summary, node_heard_every_15_s_stays)
{
    for (int i = 0; i < 40; i++) {
        receive_summary("");
        advance(15s);
    }
    EXPECT_EQ(take_published(), messages());
    advance(70s);
    EXPECT_EQ(take_published(), withdrawn());
}

} // namespace
