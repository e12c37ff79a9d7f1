#include "common/netif.h"

#include "process.h"

#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <chrono>
#include <cstring>

namespace
{

using std::chrono::milliseconds;

milliseconds time_wait(const char *name, int timeout_ms, int expected)
{
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(netif_wait_for_up(name, timeout_ms), expected);
    return std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start);
}

} // namespace

TEST(netif, interface_counts_as_up_only_while_its_flag_says_so)
{
    if (!enter_network_namespace()) {
        GTEST_SKIP() << "needs a network namespace";
    }
    EXPECT_EQ(netif_is_up("lo"), 0);
    EXPECT_EQ(netif_is_up("nonexistent"), 0);
    EXPECT_EQ(netif_is_up("lo-but-longer-than-any-name"), 0);
    EXPECT_LT(time_wait("lo", 0, -1), milliseconds(5000));
    EXPECT_GE(time_wait("lo", 120, -1), milliseconds(120));

    const int sock = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq request{};
    strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP;
    ASSERT_EQ(ioctl(sock, SIOCSIFFLAGS, &request), 0);
    EXPECT_EQ(netif_is_up("lo"), 1);
    EXPECT_LT(time_wait("lo", 10000, 0), milliseconds(5000));
}

TEST(netif, signal_ends_the_wait)
{
    interrupt_calls([](int) {});
    EXPECT_LT(time_wait("nonexistent", 10000, -1), milliseconds(5000));
}

TEST(netif, wait_fails_at_once_without_a_socket)
{
    const no_descriptors limit;
    EXPECT_EQ(netif_is_up("lo"), -1);
    EXPECT_LT(time_wait("lo", 10000, -1), milliseconds(5000));
}

TEST(netif, mac_text_has_two_upper_case_digits_a_byte)
{
    const uint8_t mac[] = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0xfe};
    EXPECT_STREQ(mac_addr_to_str(mac), "00-1A-2B-3C-4D-FE");
}
