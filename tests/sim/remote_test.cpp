// Packets and the multicast socket.
#include "packet.h"
#include "packets.h"
#include "remote.h"
#include "utils.h"

#include <mosquitto.h>
#include <sys/epoll.h>

using namespace sim;

namespace
{

const lines CLOSED = {"remote: couldn't send packet (errno 9)", "remote: couldn't send goodbye message"};
const lines NOT_PROCESSED = lines{"remote: couldn't process new packet"} + CLOSED;

bool parse(const std::string &bytes, packet &result)
{
    return packet_parse(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size(), result);
}

TEST(packet_checks, apply_at_every_boundary)
{
    const std::string filler(5000, 'x');
    const std::string subscribe = "invalid subscribe request";
    const std::string unsubscribe = "invalid unsubscribe request";
    const std::string download = "invalid activate or remote download request";
    const struct {
        int type;
        std::string payload;
        std::string fault; // empty: accepted
    } rows[] = {
        {1, "", ""},
        {2, bytes("00 00 00 00  00 00 00 00  00 00  61 00"), ""},
        {2, bytes("00 00 00 00  00 00 00 00  00 00  00 61"), ""},
        {2, bytes("00 00 00 00  00 00 00 00  00 00  61 62"), subscribe},
        {2, bytes("00 00 00 00  00 00 00 00  00 00  00"), subscribe},
        {3, bytes("00 00 00 00  00 00 00 00  61 00"), ""},
        {3, bytes("00 00 00 00  00 00 00 00  61 62"), unsubscribe},
        {3, bytes("00 00 00 00  00 00 00 00  00"), unsubscribe},
        {4, filler.substr(0, 8), ""},
        {4, filler.substr(0, 7), "invalid unsubscribe all request"},
        {5, filler.substr(0, 4), ""},
        {5, filler.substr(0, 3), "invalid acknowledgement"},
        {6, bytes("61 00 62"), ""},
        {6, bytes("00 62"), ""},
        {6, bytes("61 62"), "invalid topic data"},
        {6, "", "invalid topic data"},
        {6, bytes("61 00"), "empty topic data"},
        {6, bytes("00"), "empty topic data"},
        {7, filler.substr(0, 4), ""},
        {7, filler.substr(0, 3), "invalid client keepalive"},
        {8, filler.substr(0, 1), ""},
        {8, "", "invalid reset-stats request"},
        {9, "", ""},
        {10, filler.substr(0, 5), ""},
        {10, filler.substr(0, 4), download},
        {11, filler.substr(0, 5), ""},
        {11, filler.substr(0, 4), download},
        {12, "", ""},
    };
    for (const auto &row : rows) {
        // A NUL behind the declared payload doesn't count.
        for (const std::string &behind : {std::string(), std::string(1, '\0')}) {
            const std::string datagram = packet_bytes(row.type, row.payload) + behind;
            packet result;
            EXPECT_EQ(parse(datagram, result), row.fault.empty()) << hex(datagram);
            if (row.fault.empty()) {
                EXPECT_EQ(result.type, row.type);
                EXPECT_EQ(std::string(result.payload.begin(), result.payload.end()), row.payload);
                EXPECT_EQ(std::string(result.source_mac, result.source_mac + 6), PEER_MAC);
            }
            EXPECT_EQ(take_log(),
                      row.fault.empty() ? lines() : lines({"remote: received " + row.fault + ", ignoring"}));
        }
    }
}

TEST(packet_checks, of_the_header_come_in_order)
{
    const std::string filler(5000, 'x');
    const auto header = [](int type, const char *length) {
        return bytes("01") + static_cast<char>(type) + PEER_MAC + bytes(length);
    };
    const struct {
        std::string datagram;
        const char *log;
    } rows[] = {
        {header(0, "FF FF") + filler.substr(0, 1015),
         "received packet is too large for buffer (1025 bytes, buffer is 1024)"},
        {header(12, "03 F6") + filler.substr(0, 1014), nullptr},
        {"", "packet is too small (0 bytes), ignoring"},
        {header(12, "00"), "packet is too small (9 bytes), ignoring"},
        {header(12, "00 00"), nullptr},
        {header(0, "00 1E") + filler.substr(0, 20),
         "received packet has wrong length (30, should be 20), ignoring"},
        {header(12, "01 00") + filler.substr(0, 255),
         "received packet has wrong length (256, should be 255), ignoring"},
        {header(0, "00 00"), "packet has invalid type (00), ignoring"},
        {header(13, "00 00"), "packet has invalid type (0D), ignoring"},
        {header(255, "00 00"), "packet has invalid type (FF), ignoring"},
        {bytes("07") + packet_bytes(12, "").substr(1), nullptr}, // of another version
    };
    for (const auto &row : rows) {
        packet result;
        EXPECT_EQ(parse(row.datagram, result), row.log == nullptr) << hex(row.datagram);
        EXPECT_EQ(take_log(), row.log == nullptr ? lines() : lines({std::string("remote: ") + row.log}));
    }
}

class remote : public node
{
protected:
    void SetUp() override { start_node(7); }
};

const std::string REPEATER = section(7, bytes("05"));
const std::string REPEATER_TOPIC = "pub/diag/" + PEER_MAC_TEXT + "/repeater";

TEST_F(remote, malformed_datagrams_are_dropped_and_the_next_one_is_handled)
{
    receive_datagram(std::string(2000, 'x'));
    receive_datagram("");
    EXPECT_EQ(take_log(),
              lines({"remote: received packet is too large for buffer (2000 bytes, buffer is 1024)",
                     "remote: packet is too small (0 bytes), ignoring"}));
    fail(failure("recvfrom", EINTR).times(2));
    fail(failure("recvfrom", EAGAIN).from(3));
    receive_summary(REPEATER);
    EXPECT_EQ(take_published(), messages({{REPEATER_TOPIC, "5"}}));
}

struct fatal_case {
    const char *name;
    std::function<void()> happening;
    lines log;
};

class fatal : public remote, public testing::WithParamInterface<fatal_case>
{
};

TEST_P(fatal, fault_closes_the_socket_and_ends_the_daemon)
{
    GetParam().happening();
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(take_log(), GetParam().log);
    EXPECT_EQ(take_datagrams(), std::vector<datagram>());
    EXPECT_EQ(descriptor_of("socket"), -1);
}

const fatal_case FATAL[] = {
    {"unexpected_event", [] { inject_events(descriptor_of("socket"), EPOLLIN | EPOLLERR); },
     lines{"remote: unexpected event(s) on file descriptor"} + CLOSED},
    {"receive",
     [] {
         fail(failure("recvfrom", ENOMEM));
         receive_goodbye();
     },
     lines{"remote: couldn't receive packet (errno 12)", "remote: couldn't receive new packet"} + CLOSED},
    {"summary",
     [] {
         fail(failure("new", 0));
         receive_summary("");
     },
     lines{"summary.c: couldn't allocate summary structure", "remote: couldn't process node summary"} +
         NOT_PROCESSED},
    {"goodbye",
     [] {
         expect_leak(); // the record, out of the list
         receive_summary("");
         fail(failure("mosquitto_publish", MOSQ_ERR_NOMEM));
         receive_goodbye();
     },
     lines{"broker: couldn't publish message on topic pub/diag/02-00-00-00-00-09/port_summary (Out of "
           "memory.)",
           "summary.c: couldn't unpublish topic pub/diag/02-00-00-00-00-09/port_summary",
           "summary.c: couldn't unpublish data from summary", "remote: couldn't clear summary",
           "remote: couldn't process goodbye message"} +
         NOT_PROCESSED},
    {"reset_of_an_unknown_port", [] { receive_datagram(packet_bytes(8, bytes("FF"))); },
     lines{"stats: statistics reset: port -1 does not exist", "remote: couldn't reset port -1's statistics",
           "remote: couldn't process reset-stats request"} +
         NOT_PROCESSED},
};
INSTANTIATE_TEST_SUITE_P(table, fatal, testing::ValuesIn(FATAL),
                         [](const auto &row) { return std::string(row.param.name); });

TEST_F(remote, sigterm_during_a_receive_ends_it)
{
    fail(failure("recvfrom", EINTR));
    before("recvfrom", "", [] { raise_signal(SIGTERM); });
    receive_goodbye();
    EXPECT_EQ(exit_status(), 0);
    EXPECT_EQ(take_log(), lines{"remote: couldn't receive new packet"} + CLOSED);
}

int send(const char *address, const std::string &bytes)
{
    return send_packet(address, reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
}

TEST_F(remote, send_reports_bad_addresses_and_short_sendings)
{
    EXPECT_EQ(send("300.1.2.3", "abc"), -1);
    fail(failure("sendto", ENOBUFS));
    EXPECT_EQ(send("10.0.0.2", "abc"), -1);
    fail(failure("sendto", EINTR).returning(2));
    EXPECT_EQ(send("10.0.0.2", "abc"), -1);
    EXPECT_EQ(take_log(),
              lines({"remote: invalid IP address 300.1.2.3", "remote: couldn't send packet (errno 105)",
                     "remote: couldn't send packet (errno 4)"}));
    EXPECT_EQ(take_datagrams(), std::vector<datagram>());
}

TEST_F(remote, interrupted_send_is_repeated_until_termination)
{
    fail(failure("sendto", EINTR).times(3));
    EXPECT_EQ(send("10.0.0.2", "abc"), 0);
    EXPECT_EQ(take_datagrams(), std::vector<datagram>({{"10.0.0.2", "abc"}}));
    fail(failure("sendto", EINTR));
    before("sendto", "", terminate);
    EXPECT_EQ(send("10.0.0.2", "abc"), -1);
}

TEST_F(remote, largest_summary_fills_a_packet)
{
    const std::vector<uint8_t> data(1015, 'x');
    EXPECT_EQ(remote_send_summary(data.data(), 1014), 0);
    EXPECT_EQ(take_datagrams(),
              std::vector<datagram>(
                  {{"224.22.33.44", bytes("01 01 00 1A 2B 3C 4D 5E 03 F6") + std::string(1014, 'x')}}));
    EXPECT_EQ(remote_send_summary(data.data(), 1015), -1);
    EXPECT_EQ(remote_send_summary(nullptr, 0), -1);
    fail(failure("sendto", ENETDOWN));
    EXPECT_EQ(remote_send_summary(data.data(), 0), -1);
    EXPECT_EQ(take_log(),
              lines({"remote: summary data is too big", "remote: NULL pointer received as argument",
                     "remote: couldn't send packet (errno 100)", "remote: couldn't send node summary"}));
}

} // namespace
