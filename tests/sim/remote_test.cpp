// The multicast socket.
#include "packets.h"
#include "remote.h"
#include "utils.h"

using namespace card;

namespace
{

using remote = started_node;

TEST_F(remote, socket_is_set_up_for_the_group_on_the_fire_network)
{
    EXPECT_EQ(daemon().socket(), (sim::socket_settings{.port = 50004,
                                                       .group = 0xE016212C,
                                                       .group_interface = 3,
                                                       .sending_interface = 3,
                                                       .loops = false,
                                                       .priority = 4,
                                                       .receive_buffer = 4194304}));
}

TEST_F(remote, malformed_and_interrupted_datagrams_leave_the_next_one_alone)
{
    receive_datagram(std::string(2000, 'x'));
    receive_datagram("");
    EXPECT_EQ(take_log(),
              lines({"remote: received packet is too large for buffer (2000 bytes, buffer is 1024)",
                     "remote: packet is too small (0 bytes), ignoring"}));
    for (const int error : {EINTR, EAGAIN}) {
        fail(system_call::RECVFROM, error);
        receive_summary(section(7, bytes("05")));
        EXPECT_EQ(take_published(), messages({{PEER_TOPIC + "/repeater", "5"}}));
        receive_goodbye();
        take_published();
    }
}

int send(const char *address)
{
    return as_daemon([=] { return send_packet(address, reinterpret_cast<const uint8_t *>("abc"), 3); });
}

TEST_F(remote, interrupted_send_is_repeated_and_a_failed_one_reported)
{
    fail(system_call::SENDTO, EINTR);
    EXPECT_EQ(send("10.0.0.2"), 0);
    EXPECT_EQ(take_datagrams(), datagrams({{"10.0.0.2", "abc"}}));
    EXPECT_EQ(send("300.1.2.3"), -1);
    fail(system_call::SENDTO, ENOBUFS);
    EXPECT_EQ(send("10.0.0.2"), -1);
    EXPECT_EQ(take_log(),
              lines({"remote: invalid IP address 300.1.2.3", "remote: couldn't send packet (errno 105)"}));
    EXPECT_EQ(take_datagrams(), datagrams());
    run_as_daemon([] {
        terminate();
        fail(system_call::SENDTO, EINTR);
        EXPECT_EQ(send_packet("10.0.0.2", nullptr, 0), -1) << "no more attempts at the end";
    });
    advance(1s);
    EXPECT_EQ(exit_status(), 1);
}

TEST_F(remote, largest_summary_fills_a_packet)
{
    const std::vector<uint8_t> data(1015, 'x');
    const auto send_summary = [&](size_t size) {
        return as_daemon([&] { return remote_send_summary(data.data(), size); });
    };
    EXPECT_EQ(send_summary(1014), 0);
    EXPECT_EQ(take_datagrams(), datagrams({to_all(PACKET_SUMMARY, std::string(1014, 'x'))}));
    EXPECT_EQ(send_summary(1015), -1);
    EXPECT_EQ(take_log(), lines({"remote: summary data is too big"}));
}

} // namespace
