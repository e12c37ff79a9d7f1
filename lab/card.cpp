// Stands in for the card's other processes in a node of the lab. It runs inside the node and publishes the
// facts on which the daemon builds: what the kernel knows of the real ring links, and on command the faults
// that a kernel has not. It also takes the node's system log.
//
//     card NODES PORT=INTERFACE[:NODE:PORT]...
//         NODES is a file with a line "NUMBER MAC ADDRESS" for every node of the network. Each port has a
//         network interface, and in a ring the neighbour to which it leads: card /run/lab/nodes A=A:5:B
//
// The commands come through the socket /run/lab/card.sock; they are in the tables CARD_COMMANDS and PORT_COMMANDS.
#include "common/bytes.h"
#include "common/netif.h"
#include "common/unique_fd.h"
#include "facts.h"
#include "hwinfo/hwinfo.h"
#include "links.h"
#include "node_log.h"
#include "records.h"
#include "ring.h"
#include "topics.h"

#include <linux/if_bridge.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/statvfs.h>
#include <sys/timerfd.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace
{

constexpr sockaddr_un CONTROL_SOCKET = {AF_UNIX, "/run/lab/card.sock"};
constexpr const char *LOG_FILE = "/run/lab/log";
constexpr int USAGE_ERROR = 2; // exit status of a command line that is refused
constexpr size_t CONTROL_MAX = 4096;
constexpr int RECONNECT_MS = 100;
constexpr unsigned FREE_SPACE_PERIOD = 60;

constexpr uint32_t ERPS_BLOCKED = 0;
constexpr uint32_t ERPS_FORWARDING = ERPS_STATE_UP_MASK;
constexpr uint32_t ERPS_SIGNAL_FAIL = 1;

constexpr int32_t RING_INTACT = 2;
constexpr int32_t RING_DEGRADED = 1;

constexpr const char *FLAGS[] = {NODE_M301, NODE_M702, NODE_COMM_LOSS, NODE_DOWNLOAD_PENDING};

struct peer {
    uint32_t node = 0;
    uint32_t port = 0;
};

struct card_port {
    std::string name;
    int number = 0;
    std::string interface;
    std::string type = "fire"; // empty: gone
    int media = LUM_TYPE_SMF;
    bool ground_fault = false;
    uint32_t injected_errors = 0;
    std::optional<peer> neighbour;
    std::optional<peer> miswired_to;
    link_facts link;
};

std::string mac_text;
std::vector<card_port> ports;
unsigned seconds_up = 0;

std::string port_topic(const card_port &port, const char *leaf)
{
    return PORT_PREFIX + port.name + '/' + leaf;
}

std::string own_topic(const char *leaf)
{
    return std::string(DIAG_PREFIX) + mac_text + '/' + leaf;
}

void byte_fact(const std::string &topic, uint8_t value)
{
    fact(topic, std::span(&value, 1));
}

void publish_settings(const card_port &port)
{
    fact(port_topic(port, FACT_TYPE), port.type);
    byte_fact(port_topic(port, FACT_MEDIA), static_cast<uint8_t>(port.media));
    byte_fact(port_topic(port, FACT_GROUND), port.ground_fault);
}

uint32_t erps_state(const link_facts &link)
{
    if (!link.carrier) {
        return ERPS_SIGNAL_FAIL;
    }
    // An interface that is no bridge port always forwards.
    return link.stp_state == -1 || link.stp_state == BR_STATE_FORWARDING ? ERPS_FORWARDING : ERPS_BLOCKED;
}

// The ring protection status: the state from carrier and spanning tree, the peer from the lab's wiring. Both
// ends carry the flag that asks for links between ports of different parity, as A and B are; a miswiring to a
// port of different parity shows in flags that differ.
void publish_erps_status(const card_port &port)
{
    const std::optional<peer> &seen = port.miswired_to ? port.miswired_to : port.neighbour;
    uint8_t status[ERPS_STATUS_SIZE] = {};
    store_host(status + ERPS_STATUS_STATE, erps_state(port.link));
    if (seen) {
        bool same_parity = seen->port % 2 == static_cast<uint32_t>(port.number) % 2;
        status[ERPS_STATUS_FLAGS] = 1;
        status[ERPS_STATUS_PEER_FLAGS] = !port.miswired_to || same_parity ? 1 : 0;
        store_host(status + ERPS_STATUS_PEER_PORT, seen->port);
        store_host(status + ERPS_STATUS_PEER_NODE, seen->node);
    }
    fact(port_topic(port, FACT_STATUS), status);
}

// The statistics block; what its unnamed columns count is this card's choice.
void publish_counters(const card_port &port)
{
    const rtnl_link_stats64 &counters = port.link.counters;
    auto low = [](uint64_t counter) { return static_cast<uint32_t>(counter); };
    uint8_t block[STATS_BLOCK_SIZE] = {};
    store_host<uint64_t>(block + STATS_COUNT64_0, counters.rx_bytes);
    store_host<uint64_t>(block + STATS_GOOD_FRAMES, counters.rx_packets);
    store_host<uint32_t>(block + STATS_ERRORED_FRAMES, low(counters.rx_errors) + port.injected_errors);
    store_host<uint32_t>(block + STATS_COUNT32_40, low(counters.tx_packets));
    store_host<uint32_t>(block + STATS_COUNT32_44, low(counters.tx_bytes));
    store_host<uint32_t>(block + STATS_COUNT32_48, low(counters.rx_dropped));
    store_host<uint32_t>(block + STATS_COUNT32_52, low(counters.tx_dropped + counters.tx_errors));
    store_host<uint32_t>(block + STATS_VALUE32_56, port.link.carrier_changes);
    store_host<uint16_t>(block + STATS_VALUE16_64, static_cast<uint16_t>(std::max(port.link.stp_state, 0)));
    fact_again(port_topic(port, FACT_STATS), block);
}

void publish_ring()
{
    uint8_t state[sizeof(int32_t)];
    store_host(state, ring_is_intact() ? RING_INTACT : RING_DEGRADED);
    fact(RING_0_TOPIC, state);
}

void publish_free_space()
{
    struct statvfs filesystem;
    if (statvfs("/", &filesystem) == 0) {
        fact(own_topic(NODE_CF_FREE_SPACE), std::to_string(filesystem.f_bavail * filesystem.f_frsize / 1024));
    }
}

void publish_card()
{
    fact(own_topic(NODE_JOB_NAME), "LAB");
    fact(own_topic(NODE_JOB_REV), "1");
    fact(own_topic(NODE_DOWNLOAD_STATUS), std::string_view("\0\0", 2));
    for (const char *flag : FLAGS) {
        fact(own_topic(flag), "0");
    }
    fact(own_topic(NODE_REPEATER), "0");
}

void publish_addresses(const char *nodes_file)
{
    std::ifstream nodes(nodes_file);
    std::string number;
    std::string mac;
    std::string address;
    while (nodes >> number >> mac >> address) {
        fact(FIRE_IP_PREFIX + mac + FIRE_IP_SUFFIX, address);
    }
}

void update_links()
{
    std::map<std::string, link_facts> links;
    if (!links_read(links)) {
        perror("card: couldn't read the interfaces");
        return;
    }
    bool failed = false;
    for (card_port &port : ports) {
        port.link = links[port.interface];
        failed = failed || !port.link.carrier;
        byte_fact(port_topic(port, FACT_LINK_DOWN), !port.link.carrier);
        publish_erps_status(port);
    }
    ring_set_own_failure(failed);
    publish_ring();
}

void tick()
{
    update_links();
    for (const card_port &port : ports) {
        publish_counters(port);
    }
    ring_tick();
    publish_ring();
    if (seconds_up++ % FREE_SPACE_PERIOD == 0) {
        publish_free_space();
    }
}

// Commands answer with an error, or with what is to be printed.

using words = std::vector<std::string_view>;

struct answer {
    bool good = true;
    std::string text;
};

answer error(std::string text)
{
    return {false, std::move(text)};
}

bool parse_number(std::string_view text, uint32_t &value)
{
    auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value);
    return failure == std::errc() && end == text.data() + text.size();
}

bool parse_switch(std::string_view text, bool &on)
{
    on = text == "on";
    return on || text == "off";
}

answer set_type(card_port &port, const words &arguments)
{
    port.type = arguments[0] == "gone" ? "" : arguments[0];
    publish_settings(port);
    return {};
}

answer set_media(card_port &port, const words &arguments)
{
    int media = hwinfo_lumtype_str_to_enum(std::string(arguments[0]).c_str());
    if (media == LUM_TYPE_UNKNOWN) {
        return error("unknown media, one of eth, dsl, smf, mmf, none");
    }
    port.media = media;
    publish_settings(port);
    return {};
}

answer set_ground(card_port &port, const words &arguments)
{
    if (!parse_switch(arguments[0], port.ground_fault)) {
        return error("on or off");
    }
    publish_settings(port);
    return {};
}

answer add_errors(card_port &port, const words &arguments)
{
    uint32_t errors;
    if (!parse_number(arguments[0], errors)) {
        return error("not a number of frames");
    }
    port.injected_errors += errors;
    publish_counters(port);
    return {};
}

answer set_miswired(card_port &port, const words &arguments)
{
    if (arguments[0] == "off") {
        port.miswired_to.reset();
    } else {
        peer other;
        int number;
        if (arguments.size() != 2 || !parse_number(arguments[0], other.node) ||
            hwinfo_lumport_str_to_enum(std::string(arguments[1]).c_str(), &number) == -1) {
            return error("a node and a port, or off");
        }
        other.port = static_cast<uint32_t>(number);
        port.miswired_to = other;
    }
    publish_erps_status(port);
    return {};
}

answer set_job(const words &arguments)
{
    fact(own_topic(NODE_JOB_NAME), arguments[0]);
    fact(own_topic(NODE_JOB_REV), arguments[1]);
    return {};
}

answer set_flag(const words &arguments)
{
    bool on;
    const char *const *name = std::ranges::find(FLAGS, arguments[0]);
    if (name == std::end(FLAGS)) {
        return error("unknown flag, one of M301, M702, comm_loss, download_pending");
    }
    if (!parse_switch(arguments[1], on)) {
        return error("on or off");
    }
    fact(own_topic(*name), on ? "1" : "0");
    return {};
}

const char *stp_state_name(int state)
{
    constexpr const char *NAMES[] = {"disabled", "listening", "learning", "forwarding", "blocking"};
    return state >= 0 && state < static_cast<int>(std::size(NAMES)) ? NAMES[state] : "-";
}

answer show_status(const words &)
{
    std::string text = std::string("broker ") + (facts_connected() ? "connected" : "-") + "\ndaemon " +
                       std::to_string(facts_daemon_starts()) + "\nring " +
                       (ring_is_intact() ? "intact" : "degraded") + '\n';
    for (const card_port &port : ports) {
        text += "port " + port.name + (port.link.carrier ? " up " : " down ") +
                stp_state_name(port.link.stp_state) + '\n';
    }
    return {true, text};
}

struct card_command {
    std::string_view name;
    size_t least;
    size_t most;
    answer (*handler)(const words &);
};
constexpr card_command CARD_COMMANDS[] = {
    {"status", 0, 0, show_status}, // broker, daemon starts, ring, ports, one a line
    {"job", 2, 2, set_job},        // NAME REV
    {"flag", 2, 2, set_flag},      // M301|M702|comm_loss|download_pending on|off
};

struct port_command {
    std::string_view name;
    size_t least;
    size_t most;
    answer (*handler)(card_port &, const words &);
};
constexpr port_command PORT_COMMANDS[] = {
    {"type", 1, 1, set_type},       // PORT fire|firespur|NAME|gone
    {"media", 1, 1, set_media},     // PORT eth|dsl|smf|mmf|none
    {"ground", 1, 1, set_ground},   // PORT on|off
    {"errors", 1, 1, add_errors},   // PORT COUNT
    {"miswire", 1, 2, set_miswired} // PORT PEER_NODE PEER_PORT|off
};

answer run_command(words command)
{
    std::string_view name = command.empty() ? "" : command[0];
    auto called = [name](const auto &entry) { return entry.name == name; };
    auto fits = [&command](const auto &entry) {
        return command.size() >= entry.least && command.size() <= entry.most;
    };

    auto card_entry = std::ranges::find_if(CARD_COMMANDS, called);
    if (card_entry != std::end(CARD_COMMANDS)) {
        command.erase(command.begin());
        return fits(*card_entry) ? card_entry->handler(command) : error("wrong number of arguments");
    }
    auto port_entry = std::ranges::find_if(PORT_COMMANDS, called);
    if (port_entry == std::end(PORT_COMMANDS)) {
        return error("unknown command");
    }
    auto port = std::ranges::find_if(
        ports, [&command](const card_port &p) { return command.size() > 1 && p.name == command[1]; });
    if (port == ports.end()) {
        return error("unknown port");
    }
    command.erase(command.begin(), command.begin() + 2);
    return fits(*port_entry) ? port_entry->handler(*port, command) : error("wrong number of arguments");
}

// A command is one packet of words, each ended by a NUL; its answer is one packet, '+' or '-' and a text.

int control_open()
{
    unique_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    unlink(CONTROL_SOCKET.sun_path);
    if (!fd.is_open() ||
        bind(fd.get(), reinterpret_cast<const sockaddr *>(&CONTROL_SOCKET), sizeof CONTROL_SOCKET) == -1 ||
        listen(fd.get(), SOMAXCONN) == -1) {
        return -1;
    }
    return fd.release();
}

void control_accept(int listener)
{
    unique_fd client(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    if (!client.is_open()) {
        return;
    }
    constexpr timeval PATIENCE = {1, 0};
    setsockopt(client.get(), SOL_SOCKET, SO_RCVTIMEO, &PATIENCE, sizeof PATIENCE);
    char packet[CONTROL_MAX];
    ssize_t received = recv(client.get(), packet, sizeof packet, 0);
    if (received <= 0) {
        return;
    }
    words command;
    std::string_view rest(packet, static_cast<size_t>(received));
    while (!rest.empty()) {
        size_t end = rest.find('\0');
        command.push_back(rest.substr(0, end));
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
    answer reply = run_command(command);
    std::string packet_out = (reply.good ? '+' : '-') + reply.text;
    send(client.get(), packet_out.data(), packet_out.size(), MSG_NOSIGNAL);
}

// PORT=INTERFACE[:NODE:PORT]
bool add_port(std::string_view text)
{
    card_port port;
    size_t equals = text.find('=');
    port.name = text.substr(0, equals);
    if (equals == std::string_view::npos ||
        hwinfo_lumport_str_to_enum(port.name.c_str(), &port.number) == -1) {
        return false;
    }
    text.remove_prefix(equals + 1);
    size_t colon = text.find(':');
    port.interface = text.substr(0, colon);
    if (colon != std::string_view::npos) {
        text.remove_prefix(colon + 1);
        colon = text.find(':');
        peer other;
        int number;
        if (colon == std::string_view::npos || !parse_number(text.substr(0, colon), other.node) ||
            hwinfo_lumport_str_to_enum(std::string(text.substr(colon + 1)).c_str(), &number) == -1) {
            return false;
        }
        other.port = static_cast<uint32_t>(number);
        port.neighbour = other;
    }
    ports.push_back(port);
    return true;
}

int second_timer()
{
    constexpr itimerspec EVERY_SECOND = {{1, 0}, {1, 0}};
    int fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    return fd != -1 && timerfd_settime(fd, 0, &EVERY_SECOND, nullptr) == 0 ? fd : -1;
}

int run(const char *nodes_file)
{
    uint8_t mac[MAC_SIZE];
    if (hwinfo_get_local_mac_addr(mac) == -1) {
        fputs("card: no MAC address\n", stderr);
        return EXIT_FAILURE;
    }
    mac_text = mac_addr_to_str(mac);

    int log_fd = node_log_open(LOG_FILE);
    int link_fd = links_watch();
    int ring_fd = ring_open(mac);
    int timer_fd = second_timer();
    int control_fd = control_open();
    if (log_fd == -1 || link_fd == -1 || ring_fd == -1 || timer_fd == -1 || control_fd == -1 ||
        !facts_open()) {
        perror("card: couldn't start");
        return EXIT_FAILURE;
    }
    publish_card();
    publish_addresses(nodes_file);
    for (const card_port &port : ports) {
        publish_settings(port);
    }
    tick();

    for (;;) {
        bool session_open = facts_fd() != -1;
        pollfd fds[] = {
            {facts_fd(), static_cast<short>(facts_want_write() ? POLLIN | POLLOUT : POLLIN), 0},
            {log_fd, POLLIN, 0},
            {link_fd, POLLIN, 0},
            {ring_fd, POLLIN, 0},
            {timer_fd, POLLIN, 0},
            {control_fd, POLLIN, 0},
        };
        auto &[session, log, link, ring, timer, controls] = fds;
        if (poll(fds, std::size(fds), session_open ? -1 : RECONNECT_MS) == -1) {
            perror("card: poll");
            return EXIT_FAILURE;
        }
        if (log.revents != 0) {
            node_log_receive();
        }
        if (link.revents != 0) {
            links_take_notices(link_fd);
            update_links();
        }
        if (ring.revents != 0) {
            ring_receive();
            publish_ring();
        }
        if (timer.revents != 0) {
            uint64_t expiries;
            if (read(timer_fd, &expiries, sizeof expiries) > 0) {
                tick();
            }
        }
        if (controls.revents != 0) {
            control_accept(control_fd);
        }
        if (session.revents != 0 || timer.revents != 0 || !session_open) {
            facts_step();
        }
    }
}

} // namespace

int main(int argc, char **argv)
{
    bool good = argc > 2;
    for (int i = 2; good && i < argc; i++) {
        good = add_port(argv[i]);
    }
    if (!good) {
        fputs("usage: card NODES PORT=INTERFACE[:NODE:PORT]...\n", stderr);
        return USAGE_ERROR;
    }
    signal(SIGPIPE, SIG_IGN);
    return run(argv[1]);
}
