#include "common/netif.h"

#include "common/unique_fd.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace
{

constexpr timespec POLL_INTERVAL = {.tv_sec = 0, .tv_nsec = 50'000'000};

char mac_text[MAC_STR_SIZE];

// 0 with the monotonic clock in milliseconds, or -1.
int now_ms(int64_t &ms_out)
{
    timespec now{};
    if (clock_gettime(CLOCK_MONOTONIC, &now) == -1) {
        return -1;
    }
    ms_out = int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
    return 0;
}

} // namespace

int netif_is_up(const char *name)
{
    if (name == nullptr) {
        return -1;
    }
    const unique_fd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!sock.is_open()) {
        return -1;
    }
    ifreq request{};
    memcpy(request.ifr_name, name, strnlen(name, sizeof request.ifr_name));
    if (ioctl(sock.get(), SIOCGIFFLAGS, &request) == -1) {
        return 0;
    }
    return (request.ifr_flags & IFF_UP) != 0;
}

int netif_wait_for_up(const char *name, int timeout_ms)
{
    int64_t start = 0;
    if (now_ms(start) == -1) {
        return -1;
    }
    for (;;) {
        const int is_up = netif_is_up(name);
        if (is_up == 1) {
            return 0;
        }
        if (is_up == -1) {
            return -1;
        }
        int64_t now = 0;
        if (now_ms(now) == -1 || now - start > timeout_ms) {
            return -1;
        }
        if (nanosleep(&POLL_INTERVAL, nullptr) == -1 && errno == EINTR) {
            return -1;
        }
    }
}

const char *mac_addr_to_str(const uint8_t *mac)
{
    if (mac == nullptr) {
        return nullptr;
    }
    snprintf(mac_text, sizeof mac_text, "%02X-%02X-%02X-%02X-%02X-%02X", mac[0], mac[1], mac[2], mac[3],
             mac[4], mac[5]);
    return mac_text;
}
