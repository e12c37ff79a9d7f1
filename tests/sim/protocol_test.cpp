// docs/protocol.md says what the daemon does.
#include "packets.h"
#include "ports.h"
#include "remote.h"
#include "summary_record.h"

#include <fstream>
#include <sstream>

using namespace card;

namespace
{

constexpr const char *REQUESTER_IP = "10.0.0.98";
constexpr const char *SUBSCRIBER_IP = "10.0.0.99";

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

packet_type type_of(const lines &row)
{
    return static_cast<packet_type>(std::stoi(row.at(0)));
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
    // The first summary holds everything, the next only what has changed.
    advance(3s);
    take_datagrams();
    publish("local/diag/ring/0/status", host_bytes(2));
    advance(3s);
    run_as_daemon([&] {
        remote_subscribe(filter.c_str(), 7, 10, ignore, nullptr);
        remote_unsubscribe(filter.c_str(), 7, ignore, nullptr);
        remote_unsubscribe_all(7);
        remote_activate(peer_mac(), 1, ignore, nullptr);
        remote_set_remote_download(peer_mac(), 1, ignore, nullptr);
        remote_send_client_keepalive(7);
        remote_reset_stats(peer_mac(), 1);
        remote_reset_all_stats();
        remote_send_goodbye();
    });
    receive_packet(PACKET_ACTIVATE, be(258, 4) + be(1, 1), REQUESTER_IP);
    publish(OWN_TOPIC + "/job_rev", "1.2");
    receive_packet(PACKET_SUBSCRIBE, be(0, 4) + be(1, 4) + be(0, 2) + terminated(OWN_TOPIC + "/job_rev"),
                   SUBSCRIBER_IP);
    advance(1ns);
    std::map<packet_type, datagram> first;
    for (const datagram &packet : take_datagrams()) {
        first.emplace(static_cast<packet_type>(packet.bytes.at(1)), packet);
    }
    return first;
}

using protocol_document = node_with_peer;

TEST_F(protocol_document, shows_each_packet_as_it_is_sent)
{
    const std::map<packet_type, datagram> sent = sent_packets();
    const std::map<std::string, std::string> shown = examples();
    EXPECT_EQ(shown.size(), PACKET_TYPES);
    for (const lines &row : table_below("## Packet types")) {
        EXPECT_EQ(hex(shown.at(row.at(1))), hex(sent.at(type_of(row)).bytes)) << row.at(1);
    }
}

TEST_F(protocol_document, lists_the_types_as_they_are_sent_and_checked)
{
    const std::map<packet_type, datagram> sent = sent_packets();
    const std::map<std::string, std::string> addresses = {
        {"group", GROUP}, {"node", PEER_IP}, {"requester", REQUESTER_IP}, {"subscriber", SUBSCRIBER_IP}};
    const std::vector<lines> rows = table_below("## Packet types");
    EXPECT_EQ(rows.size(), PACKET_TYPES);
    for (const lines &row : rows) {
        const packet_type type = type_of(row);
        EXPECT_EQ(addresses.at(row.at(2)), sent.at(type).address) << row.at(1);
        const size_t least = std::stoul(row.at(3));
        for (size_t length = 0; length <= least; length++) {
            const std::string bytes = packet_bytes(type, std::string(length, '\0'));
            packet parsed;
            const auto parse = [&] {
                return packet_parse(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size(), parsed);
            };
            EXPECT_EQ(as_daemon(parse), length == least) << row.at(1) << ' ' << length;
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
