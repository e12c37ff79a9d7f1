// docs/protocol.md says what the daemon does.
#include "common/bytes.h"
#include "fire_network.h"
#include "remote.h"
#include "summary_record.h"

#include <fstream>
#include <sstream>

using namespace sim;

namespace
{

constexpr const char *REQUESTER_IP = "10.0.0.98";
constexpr const char *SUBSCRIBER_IP = "10.0.0.99";

const std::map<std::string, packet_type> TYPES = {
    {"SUMMARY", PACKET_SUMMARY},
    {"SUBSCRIBE", PACKET_SUBSCRIBE},
    {"UNSUBSCRIBE", PACKET_UNSUBSCRIBE},
    {"UNSUBSCRIBE_ALL", PACKET_UNSUBSCRIBE_ALL},
    {"ACK", PACKET_ACK},
    {"TOPIC_DATA", PACKET_TOPIC_DATA},
    {"CLIENT_KEEPALIVE", PACKET_CLIENT_KEEPALIVE},
    {"RESET_STATS", PACKET_RESET_STATS},
    {"RESET_ALL_STATS", PACKET_RESET_ALL_STATS},
    {"ACTIVATE", PACKET_ACTIVATE},
    {"REMOTE_DOWNLOAD", PACKET_REMOTE_DOWNLOAD},
    {"GOODBYE", PACKET_GOODBYE},
};

lines document()
{
    std::ifstream file(PROTOCOL_DOCUMENT);
    EXPECT_TRUE(file.is_open()) << PROTOCOL_DOCUMENT;
    lines all;
    for (std::string line; getline(file, line);) {
        all.push_back(line);
    }
    return all;
}

// The cells of the first table below a heading, without its own two heading lines.
std::vector<lines> table_below(const std::string &heading)
{
    const lines all = document();
    auto line = std::ranges::find(all, heading);
    line = std::find_if(line, all.end(), [](const std::string &text) { return text.starts_with('|'); });
    std::vector<lines> rows;
    for (; line != all.end() && line->starts_with('|'); ++line) {
        std::istringstream row(line->substr(1));
        lines cells;
        for (std::string cell; getline(row, cell, '|');) {
            std::erase(cell, '`');
            const size_t first = cell.find_first_not_of(' ');
            cells.push_back(
                first == std::string::npos ? "" : cell.substr(first, cell.find_last_not_of(' ') - first + 1));
        }
        rows.push_back(cells);
    }
    EXPECT_GT(rows.size(), 2U) << heading;
    rows.erase(rows.begin(), rows.begin() + 2);
    return rows;
}

// The packets in blocks that begin with "```hex NAME"; what follows three blanks in a line is explanation.
std::map<std::string, std::string> examples()
{
    std::map<std::string, std::string> found;
    std::string name;
    for (const std::string &line : document()) {
        if (line.starts_with("```")) {
            name = line.starts_with("```hex ") ? line.substr(7) : "";
        } else if (!name.empty()) {
            found[name] += bytes(line.substr(0, line.find("   ")));
        }
    }
    return found;
}

// One packet of each type as the daemon sends it, the first.
std::map<packet_type, datagram> sent_packets()
{
    const std::string filter = PEER_TOPIC + "/#";
    const auto ignore = [](int, void *) {};
    std::vector<datagram> sent;
    const auto take = [&sent] {
        for (const datagram &packet : take_datagrams()) {
            sent.push_back(packet);
        }
    };
    // The first summary holds everything, the next only what has changed.
    advance(3s);
    take_datagrams();
    uint8_t ring_status[4];
    store_host(ring_status, uint32_t{2});
    publish("local/diag/ring/0/status", {reinterpret_cast<const char *>(ring_status), sizeof ring_status});
    advance(3s);
    take();
    remote_subscribe(filter.c_str(), 7, 10, ignore, nullptr);
    remote_unsubscribe(filter.c_str(), 7, ignore, nullptr);
    remote_unsubscribe_all(7);
    remote_activate(peer_mac(), 1, ignore, nullptr);
    remote_set_remote_download(peer_mac(), 1, ignore, nullptr);
    remote_send_client_keepalive(7);
    remote_reset_stats(peer_mac(), 1);
    remote_reset_all_stats();
    remote_send_goodbye();
    receive_datagram(packet_bytes(PACKET_ACTIVATE, be(258, 4) + be(1, 1)), REQUESTER_IP);
    publish(OWN_TOPIC + "/job_rev", "1.2");
    receive_datagram(
        packet_bytes(PACKET_SUBSCRIBE, be(0, 4) + be(1, 4) + be(0, 2) + terminated(OWN_TOPIC + "/job_rev")),
        SUBSCRIBER_IP);
    advance(1ns);
    take();
    std::map<packet_type, datagram> first;
    for (const datagram &packet : sent) {
        first.emplace(static_cast<packet_type>(packet.bytes.at(1)), packet);
    }
    return first;
}

class protocol_document : public fire_network
{
};

TEST_F(protocol_document, shows_each_packet_as_it_is_sent)
{
    const std::map<packet_type, datagram> sent = sent_packets();
    const std::map<std::string, std::string> shown = examples();
    EXPECT_EQ(shown.size(), PACKET_TYPES);
    for (const auto &[name, example] : shown) {
        EXPECT_EQ(hex(example), hex(sent.at(TYPES.at(name)).bytes)) << name;
    }
}

TEST_F(protocol_document, lists_the_types_as_they_are_sent_and_checked)
{
    const std::map<packet_type, datagram> sent = sent_packets();
    const std::map<std::string, std::string> addresses = {{"group", MULTICAST_GROUP},
                                                          {"node", PEER_IP},
                                                          {"requester", REQUESTER_IP},
                                                          {"subscriber", SUBSCRIBER_IP}};
    const std::vector<lines> rows = table_below("## Packet types");
    EXPECT_EQ(rows.size(), PACKET_TYPES);
    for (const lines &row : rows) {
        const packet_type type = TYPES.at(row.at(1));
        EXPECT_EQ(row.at(0), std::to_string(type));
        EXPECT_EQ(addresses.at(row.at(2)), sent.at(type).address) << row.at(1);
        const size_t least = std::stoul(row.at(3));
        for (size_t length = 0; length <= least; length++) {
            const std::string bytes = packet_bytes(type, std::string(length, '\0'));
            packet parsed;
            EXPECT_EQ(packet_parse(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size(), parsed),
                      length == least)
                << row.at(1) << ' ' << length;
        }
        const lines log = take_log();
        EXPECT_EQ(log.empty() ? "" : log.front(), row.at(4).empty() ? "" : "remote: " + row.at(4));
    }
}

TEST(protocol_document_tables, give_the_summary_without_gaps)
{
    const std::vector<lines> sections = table_below("### Sections");
    ASSERT_EQ(sections.size(), SUMMARY_INFO_COUNT);
    for (size_t type = 0; type < sections.size(); type++) {
        EXPECT_EQ(sections[type].at(0), std::to_string(type));
        EXPECT_EQ(sections[type].at(2), std::to_string(summary_info_offsets.at(type)));
        EXPECT_EQ(sections[type].at(3), std::to_string(summary_info_lengths.at(type)));
    }
    const std::vector<lines> fields = table_below("### Summary data");
    size_t end = 0;
    for (const lines &field : fields) {
        EXPECT_EQ(field.at(0), std::to_string(end)) << field.at(2);
        end += std::stoul(field.at(1));
    }
    EXPECT_EQ(end, SUMMARY_SIZE);
}

} // namespace
