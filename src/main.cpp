// Network diagnostics daemon of a panel card: start-up and shutdown in order.
#include "auth.h"
#include "broker.h"
#include "command.h"
#include "common/lumlog.h"
#include "common/netif.h"
#include "common/text.h"
#include "event.h"
#include "hwinfo/hwinfo.h"
#include "packet.h"
#include "remote.h"
#include "stats.h"
#include "summary.h"
#include "topics.h"
#include "utils.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace
{

constexpr const char *log_source = "main";

constexpr int FIRE_WAIT_MS = 2000;
constexpr timespec FIRE_RETRY_DELAY = {.tv_sec = 0, .tv_nsec = 50'000'000};

int install_signal_handlers()
{
    struct sigaction action {
    };
    sigemptyset(&action.sa_mask);
    action.sa_handler = sigterm_handler;
    if (sigaction(SIGTERM, &action, nullptr) == -1) {
        return log_failure("couldn't set SIGTERM handler (errno %d)", errno);
    }
    // Writing to a broker that has gone is an error like any other, never the end by a signal.
    signal(SIGPIPE, SIG_IGN);
    return 0;
}

int parse_options(int argc, char **argv, uint8_t &node_number)
{
    int option;
    while ((option = getopt(argc, argv, "n:")) != -1) {
        if (option != 'n') {
            log_error("unknown option -%c", option);
            continue;
        }
        char *end;
        errno = 0;
        const long number = strtol(optarg, &end, 0);
        if (errno != 0 || number < 1 || number > MAX_NODE_NUMBER || *end != '\0') {
            return log_failure("invalid node number (%ld)", number);
        }
        node_number = static_cast<uint8_t>(number);
    }
    return 0;
}

int wait_for_fire_network()
{
    while (netif_wait_for_up(FIRE_INTERFACE, FIRE_WAIT_MS) != 0) {
        if (is_terminated()) {
            return -1;
        }
        // Where no socket can be opened the wait above fails at once.
        nanosleep(&FIRE_RETRY_DELAY, nullptr);
    }
    return 0;
}

// The local MAC address as text, null after logging why.
const char *get_local_mac_text()
{
    uint8_t mac[MAC_SIZE];
    if (hwinfo_get_local_mac_addr(mac) == -1) {
        log_error("couldn't get local MAC address");
        return nullptr;
    }
    const char *const text = mac_addr_to_str(mac);
    if (text == nullptr) {
        log_error("couldn't convert local MAC address");
    }
    return text;
}

int publish_text(const char *topic, const char *text)
{
    if (broker_publish(topic, text, strlen(text)) == -1) {
        return log_failure("couldn't publish %s to %s", text, topic);
    }
    return 0;
}

int publish_local_node()
{
    const char *const mac = get_local_mac_text();
    return mac == nullptr ? -1 : publish_text(LOCAL_NODE_TOPIC, mac);
}

int publish_card_addr()
{
    const char *const mac = get_local_mac_text();
    if (mac == nullptr) {
        return -1;
    }
    const int card_addr = hwinfo_get_card_addr();
    if (card_addr == -1) {
        return log_failure("couldn't get local card address");
    }
    char payload[4];
    if (snprintf(payload, sizeof payload, "%d", card_addr) >= static_cast<int>(sizeof payload)) {
        return log_failure("couldn't format local card address");
    }
    return publish_text(topic_text(NODE_TOPIC_FORMAT, mac, NODE_CARD_ADDR).text, payload);
}

int init_modules(uint8_t node_number)
{
    static constexpr struct {
        int (*init)(uint8_t node_number);
        const char *failure;
    } MODULES[] = {
        {[](uint8_t) { return stats_init(); }, "couldn't initialize port statistics module"},
        {[](uint8_t) { return remote_init(); }, "couldn't initialize fire communications module"},
        {summary_init, "couldn't initialize node summary module"},
        {[](uint8_t) { return auth_init(); }, "couldn't initialize authentication module"},
        {command_init, "couldn't initialize command module"},
    };
    for (const auto &module : MODULES) {
        if (module.init(node_number) == -1) {
            return log_failure("%s", module.failure);
        }
    }
    return 0;
}

// Every step of the start-up in order, up to the running event loop.
int start(int argc, char **argv, uint8_t &node_number)
{
    if (install_signal_handlers() == -1 || parse_options(argc, argv, node_number) == -1) {
        return -1;
    }
    srand(node_number);
    if (event_init() == -1) {
        return log_failure("couldn't initialize event loop");
    }
    if (wait_for_fire_network() == -1) {
        return -1;
    }
    if (broker_connect() == -1) {
        return log_failure("couldn't connect to the broker");
    }
    // The client library has seeded the generator from the clock meanwhile. A node's first delays and
    // challenges follow from its number.
    srand(node_number);
    if (publish_local_node() == -1) {
        return log_failure("couldn't publish local node information");
    }
    if (publish_card_addr() == -1) {
        return log_failure("couldn't publish card address");
    }
    return init_modules(node_number);
}

} // namespace

int main(int argc, char **argv)
{
    uint8_t node_number = 0;
    // Whatever ends the run; each logs its own failure.
    if (start(argc, argv, node_number) == 0) {
        static_cast<void>(event_loop());
    }
    static_cast<void>(remote_send_goodbye());
    static_cast<void>(broker_disconnect());
    return is_sigterm_received() ? EXIT_SUCCESS : EXIT_FAILURE;
}
