// The fire network as the daemon of node 1 serves it: this program plays other nodes. It runs on node 2 of a lab;
// PID is the daemon's process, whose processor time it reads and through whose network it reaches node 1's broker.
//
//     bench_fire handlers PID SECONDS   datagrams of every type; node 2's daemon is stopped
//     bench_fire bare PID SECONDS       the same to a bare recvfrom loop
//     bench_fire change PID COUNT       from a change on node 1's broker to the topic on node 2's
//     bench_fire activate PID COUNT     activates 98 nodes that acknowledge; node 2's daemon is stopped
//     bench_fire snapshot PID           how large a first send reaches node 2's broker whole
//     bench_fire storm PID KIND RATE SECONDS    what becomes of the daemon in a storm of resets: of KIND port or all by
//                                               datagrams, or by commands at node 2's broker
#include "broker/challenge.h"
#include "client.h"
#include "common/bytes.h"
#include "common/netif.h"
#include "packet.h"
#include "records.h"
#include "summary_record.h"
#include "topics.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace
{

constexpr const char *SERVER = "10.22.0.1";
constexpr const char *OWN_ADDRESS = "10.22.0.2";
constexpr const char *SERVER_TOPICS = "pub/diag/02-00-00-00-00-01/bench";
constexpr unsigned NODES = 98;
constexpr unsigned FIRST_NODE = 2;
constexpr uint16_t LONG_PERIOD = 3600;
constexpr auto SETTLE = std::chrono::milliseconds(300);

std::string be(uint64_t value, unsigned size)
{
    std::string bytes;
    while (size-- > 0) {
        bytes += static_cast<char>(value >> (8 * size));
    }
    return bytes;
}

std::array<uint8_t, MAC_SIZE> node_mac(unsigned node)
{
    std::array<uint8_t, MAC_SIZE> mac = {0x06};
    store_be(&mac[2], node);
    return mac;
}

std::string packet_of(packet_type type, const std::string &payload, unsigned node = FIRST_NODE)
{
    uint8_t header[HEADER_SIZE];
    packet_write_header(header, type, node_mac(node).data(), payload.size());
    return std::string(std::begin(header), std::end(header)) + payload;
}

std::string terminated(const std::string &text)
{
    return text + '\0';
}

std::string subscribe(unsigned client, uint16_t period, const std::string &filter)
{
    return packet_of(PACKET_SUBSCRIBE, be(1, 4) + be(client, 4) + be(period, 2) + terminated(filter));
}

std::string unsubscribe_all(unsigned client)
{
    return packet_of(PACKET_UNSUBSCRIBE_ALL, be(1, 4) + be(client, 4));
}

std::string summary(unsigned node)
{
    uint8_t data[SUMMARY_SIZE] = {};
    data[SUMMARY_NODE_NUM] = static_cast<uint8_t>(node);
    data[SUMMARY_GREEN] = 0x03;
    data[SUMMARY_FIRE_PORTS] = 0x03;
    memset(data + SUMMARY_EBOOT_NAME, ' ', SUMMARY_SIZE - SUMMARY_EBOOT_NAME);
    uint8_t payload[SUMMARY_MAX_PAYLOAD];
    const size_t length = summary_encode(data, (1U << SUMMARY_INFO_COUNT) - 1, payload);
    return packet_of(PACKET_SUMMARY, std::string(reinterpret_cast<char *>(payload), length), node);
}

int open_sender()
{
    sockaddr_in target{};
    target.sin_family = AF_INET;
    target.sin_port = htons(REMOTE_PORT);
    inet_pton(AF_INET, SERVER, &target.sin_addr);
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (connect(fd, reinterpret_cast<const sockaddr *>(&target), sizeof target) == -1) {
        die("no way to node 1");
    }
    return fd;
}

// Takes what the daemon sends to this node, so that nothing is answered for a closed port.
int open_receiver()
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(REMOTE_PORT);
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == -1) {
        die("the port is taken: stop node 2's daemon");
    }
    return fd;
}

void send_to(int fd, const std::string &packet)
{
    send(fd, packet.data(), packet.size(), 0);
}

// Processor time of a process, in seconds.
double processor_time(int pid)
{
    double nanoseconds = 0;
    std::ifstream(std::string("/proc/") + std::to_string(pid) + "/schedstat") >> nanoseconds;
    return nanoseconds / 1e9;
}

// Datagrams that processes in the network of this one have read.
double datagrams_read(int pid)
{
    std::ifstream counters(std::string("/proc/") + std::to_string(pid) + "/net/snmp");
    std::string line;
    double count = 0;
    while (std::getline(counters, line)) {
        if (line.starts_with("Udp: ") && line[5] >= '0' && line[5] <= '9') {
            std::istringstream(line.substr(5)) >> count;
        }
    }
    return count;
}

// Bytes that wait at the fire socket of the process; nothing when the process has ended.
std::optional<unsigned long> bytes_unread(int pid)
{
    constexpr size_t RECEIVE_QUEUE = 9; // behind the eight digits of the send queue and a colon
    std::ifstream sockets(std::string("/proc/") + std::to_string(pid) + "/net/udp");
    std::string line;
    while (std::getline(sockets, line)) {
        std::string slot, local, remote, state, queues;
        std::istringstream(line) >> slot >> local >> remote >> state >> queues;
        if (local.ends_with(":C354")) { // port 50004
            return std::stoul(queues.substr(RECEIVE_QUEUE), nullptr, 16);
        }
    }
    return std::nullopt;
}

// Waits until the process has next to nothing left to do, and returns its processor time.
double settled_time(int pid)
{
    double last = processor_time(pid);
    for (;;) {
        std::this_thread::sleep_for(SETTLE);
        const double now = processor_time(pid);
        if (now - last < 0.002) {
            return now;
        }
        last = now;
    }
}

// Kept on processors of their own, if there are two.
void pin(int pid, unsigned processor)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processor % std::thread::hardware_concurrency(), &set);
    sched_setaffinity(pid, sizeof set, &set);
}

struct load {
    const char *name;
    std::string packet;
    unsigned rate; // datagrams a second, 0 for as many as can be sent
};

// In the order of their numbers. What makes the daemon publish comes at a rate that the broker follows.
std::vector<load> all_types()
{
    const std::string filter = terminated("pub/diag/none");
    return {
        {"summary, unchanged", summary(FIRST_NODE), 0},
        {"subscribe, repeated", subscribe(1, LONG_PERIOD, "pub/diag/none"), 0},
        {"unsubscribe, unknown", packet_of(PACKET_UNSUBSCRIBE, be(1, 4) + be(2, 4) + filter), 0},
        {"unsubscribe all", unsubscribe_all(2), 0},
        {"acknowledgement", packet_of(PACKET_ACK, be(1, 4)), 0},
        {"topic data", packet_of(PACKET_TOPIC_DATA, terminated("pub/diag/bench") + "0123456789"), 1000},
        {"client keepalive", packet_of(PACKET_CLIENT_KEEPALIVE, be(1, 4)), 0},
        {"reset stats", packet_of(PACKET_RESET_STATS, be(0, 1)), 100},
        {"reset all stats", packet_of(PACKET_RESET_ALL_STATS, ""), 100},
        {"activate", packet_of(PACKET_ACTIVATE, be(1, 4) + be(5, 1)), 1000},
        {"remote download", packet_of(PACKET_REMOTE_DOWNLOAD, be(1, 4) + be(1, 1)), 1000},
        {"goodbye, unknown", packet_of(PACKET_GOODBYE, "", 1000), 0},
    };
}

// Calls send at a rate, 0 for as fast as it can, for some seconds.
template <typename Send>
void repeat(unsigned rate, int seconds, Send send)
{
    const auto start = bench_clock::now();
    const auto end = start + std::chrono::seconds(seconds);
    for (unsigned sent = 0; bench_clock::now() < end; sent++) {
        if (rate > 0) {
            std::this_thread::sleep_until(start + sent * std::chrono::nanoseconds(1'000'000'000 / rate));
        }
        send();
    }
}

void measure(int fd, int pid, const load &given, int seconds)
{
    send_to(fd, given.packet);
    const double time_before = settled_time(pid);
    const double read_before = datagrams_read(pid);
    repeat(given.rate, seconds, [&] { send_to(fd, given.packet); });
    const double time = settled_time(pid) - time_before;
    const double count = datagrams_read(pid) - read_before;
    printf("%-22s %4zu bytes %8.0f received, %7.2f us of processor time each: %8.0f/s of one core\n",
           given.name, given.packet.size(), count, 1e6 * time / count, count / time);
}

void flood(int pid, int seconds, bool is_bare)
{
    const int fd = open_sender();
    open_receiver();
    pin(0, 0);
    pin(pid, 1);
    const std::vector<load> types = all_types();
    if (is_bare) {
        measure(fd, pid, types[PACKET_SUMMARY - 1], seconds);
        measure(fd, pid, types[PACKET_ACK - 1], seconds);
        return;
    }
    for (const load &given : types) {
        measure(fd, pid, given, seconds);
    }
    send_to(fd, unsubscribe_all(1));
}

// A client on the broker of the network that the process is in.
mosquitto *connect_through(int pid, const char *id)
{
    const int own = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    const int other =
        open((std::string("/proc/") + std::to_string(pid) + "/ns/net").c_str(), O_RDONLY | O_CLOEXEC);
    if (setns(other, CLONE_NEWNET) == -1) {
        die("no way into node 1's network");
    }
    mosquitto *const client = connect_client(id);
    setns(own, CLONE_NEWNET);
    return client;
}

void publish(mosquitto *client, const std::string &topic, const std::string &text, bool retain = false)
{
    mosquitto_publish(client, nullptr, topic.c_str(), static_cast<int>(text.size()), text.data(), 1, retain);
}

std::string last_value; // that has come to node 2's broker

// Microseconds until the value comes.
double await_value(mosquitto *client, const std::string &value, bench_clock::time_point start)
{
    while (last_value != value) {
        if (!turn(client, ANSWER_LIMIT_MS)) {
            die("no topic data");
        }
    }
    return microseconds(bench_clock::now() - start).count();
}

void print_times(const char *name, std::vector<double> &times)
{
    std::sort(times.begin(), times.end());
    const double count = static_cast<double>(times.size() - 1);
    printf("%-28s least %8.0f us   median %8.0f us   99th percentile %8.0f us\n", name, times.front(),
           times[static_cast<size_t>(0.5 * count)], times[static_cast<size_t>(0.99 * count)]);
}

void change(int pid, int count)
{
    mosquitto *const there = connect_through(pid, "bench-changing");
    mosquitto *const here = connect_client("bench-following");
    mosquitto_message_callback_set(here, [](mosquitto *, void *, const mosquitto_message *message) {
        last_value.assign(static_cast<const char *>(message->payload),
                          static_cast<size_t>(message->payloadlen));
    });
    const std::string topic = SERVER_TOPICS;
    mosquitto_subscribe(here, nullptr, topic.c_str(), 1);
    settle(here);
    const int fd = open_sender();
    auto set = [&](const std::string &value) {
        publish(there, topic, value);
        mosquitto_loop_write(there, 1);
    };

    std::vector<double> first_times;
    for (int i = 0; i < count; i++) {
        const std::string value = std::string("first ") + std::to_string(i);
        set(value);
        // The acknowledgement comes after the daemon's copy has gone out, or with it.
        turn(there, ANSWER_LIMIT_MS);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        const auto start = bench_clock::now();
        send_to(fd, subscribe(1, 0, topic));
        first_times.push_back(await_value(here, value, start));
        send_to(fd, unsubscribe_all(1));
    }
    print_times("subscribe to first data", first_times);

    send_to(fd, subscribe(1, 1, topic));
    await_value(here, std::string("first ") + std::to_string(count - 1), bench_clock::now());
    std::vector<double> times;
    std::minstd_rand random(1);
    for (int i = 0; i < count / 10; i++) {
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 1'000'000));
        const std::string value = std::to_string(i);
        const auto start = bench_clock::now();
        set(value);
        times.push_back(await_value(here, value, start));
        turn(there, 0);
    }
    print_times("change to data, period 1 s", times);
    send_to(fd, unsubscribe_all(1));
    mosquitto_destroy(here);
    mosquitto_destroy(there);
}

[[noreturn]] void acknowledge_requests(int fd, int receiver)
{
    for (;;) {
        uint8_t request[MAX_PACKET_SIZE];
        if (recv(receiver, request, sizeof request, 0) >
                static_cast<ssize_t>(HEADER_SIZE + sizeof(uint32_t)) &&
            request[PACKET_OFFSET_TYPE] == PACKET_ACTIVATE) {
            send_to(fd, packet_of(PACKET_ACK, be(load_be<uint32_t>(request + HEADER_SIZE), 4)));
        }
    }
}

const word_table words = {
#include "secrets.inc"
};

void activate(int pid, int count)
{
    const int fd = open_sender();
    const int receiver = open_receiver();
    const pid_t responder = fork();
    if (responder == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        acknowledge_requests(fd, receiver);
    }
    mosquitto *const client = connect_through(pid, "bench-activate");
    static std::string challenge;
    mosquitto_message_callback_set(client, [](mosquitto *, void *, const mosquitto_message *message) {
        std::string &target = std::string_view(message->topic) == CHALLENGE_TOPIC ? challenge : last_value;
        target.assign(static_cast<const char *>(message->payload), static_cast<size_t>(message->payloadlen));
    });
    mosquitto_subscribe(client, nullptr, CHALLENGE_TOPIC, 1);
    mosquitto_subscribe(client, nullptr, RESPONSE_TOPIC, 1);
    std::string targets;
    for (unsigned node = FIRST_NODE; node < FIRST_NODE + NODES; node++) {
        publish(client, std::string(FIRE_IP_PREFIX) + mac_addr_to_str(node_mac(node).data()) + FIRE_IP_SUFFIX,
                OWN_ADDRESS, true);
        send_to(fd, summary(node));
        targets += std::to_string(node) + " ";
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    settle(client);
    std::vector<double> times;
    const double before = processor_time(pid);
    for (int i = 0; i < count; i++) {
        const std::string numbers = std::string("1;") + std::to_string(i) + ";";
        const auto start = bench_clock::now();
        std::string request = numbers;
        request.append("activate;").append(targets).append(";");
        request.append(challenge_response(challenge, words).value());
        publish(client, REQUEST_TOPIC, request);
        times.push_back(await_value(client, numbers + "ACK", start));
        settle(client);
    }
    const double time = (processor_time(pid) - before) / count;
    print_times("activate of 98 nodes", times);
    printf("%.2f ms of processor time each\n", time * 1e3);
    kill(responder, SIGKILL);
    mosquitto_destroy(client);
}

// Follows the daemon until it has ended or come to rest for longer than it waits for acknowledgements.
void watch(int pid)
{
    constexpr auto SAMPLE = std::chrono::milliseconds(10);
    constexpr auto REST = std::chrono::seconds(6);
    constexpr double REST_TIME = 0.02; // processor time that a daemon at rest stays below
    const auto start = bench_clock::now();
    auto read_at = start;
    auto resting_since = start;
    auto longest = bench_clock::duration::zero();
    double last_time = processor_time(pid);
    auto now = start;
    auto unread = bytes_unread(pid);
    for (; unread && now - resting_since < REST; now = bench_clock::now(), unread = bytes_unread(pid)) {
        if (*unread == 0) {
            read_at = now;
        }
        longest = std::max(longest, now - read_at);
        const double time = processor_time(pid);
        if (time - last_time > REST_TIME || *unread > 0) {
            last_time = time;
            resting_since = now;
        }
        std::this_thread::sleep_for(SAMPLE);
    }
    const auto seconds = [](auto duration) { return microseconds(duration).count() / 1e6; };
    printf("never quite read for %4.1f s at most, %s", seconds(longest), unread ? "goes on\n" : "ended ");
    if (!unread) {
        printf("after %.1f s\n", seconds(now - start));
    }
}

void storm(int pid, std::string_view kind, unsigned rate, int seconds)
{
    const std::string packet =
        kind == "port" ? packet_of(PACKET_RESET_STATS, be(0, 1)) : packet_of(PACKET_RESET_ALL_STATS, "");
    const int fd = open_sender();
    mosquitto *const client = connect_client("bench-storm");
    printf("%-8.*s %4u/s for %d s: ", static_cast<int>(kind.size()), kind.data(), rate, seconds);
    std::thread watcher(watch, pid);
    repeat(rate, seconds, [&] {
        if (kind == "commands") {
            publish(client, REQUEST_TOPIC, "1;1;reset-all-stats");
            turn(client, 0);
        } else {
            send_to(fd, packet);
        }
    });
    watcher.join();
    mosquitto_destroy(client);
}

// The messages of a first send of so many topics that reach node 2's broker.
unsigned snapshot(mosquitto *there, mosquitto *here, unsigned topics)
{
    static std::set<std::string> arrived;
    static unsigned acknowledged;
    const std::string root = std::string(SERVER_TOPICS) + std::to_string(topics) + "/";
    const std::string record(PM_RECORD_SIZE, 'x');
    acknowledged = 0;
    mosquitto_publish_callback_set(there, [](mosquitto *, void *, int) { acknowledged++; });
    for (unsigned topic = 0; topic < topics; topic++) {
        publish(there, root + std::to_string(topic), record);
    }
    while (acknowledged < topics && turn(there, ANSWER_LIMIT_MS)) {
    }
    settle(there);
    arrived.clear();
    mosquitto_message_callback_set(
        here, [](mosquitto *, void *, const mosquitto_message *message) { arrived.insert(message->topic); });
    mosquitto_subscribe(here, nullptr, (root + "#").c_str(), 1);
    settle(here);
    publish(here, REQUEST_TOPIC, "1;1;subscribe;" + root + "#;0");
    while (turn(here, 2000)) {
    }
    publish(here, REQUEST_TOPIC, "1;1;unsubscribe;" + root + "#");
    mosquitto_unsubscribe(here, nullptr, (root + "#").c_str());
    settle(here);
    return static_cast<unsigned>(arrived.size());
}

void find_largest_snapshot(int pid)
{
    constexpr unsigned LADDER[] = {250, 500, 825, 1500, 3000, 6000};
    constexpr int TRIES = 3;
    mosquitto *const there = connect_through(pid, "bench-topics");
    mosquitto *const here = connect_client("bench-following");
    unsigned largest = 0;
    for (const unsigned topics : LADDER) {
        unsigned least = topics;
        for (int i = 0; i < TRIES && least == topics; i++) {
            least = std::min(least, snapshot(there, here, topics));
        }
        if (least < topics) {
            printf("%u topics of 56 bytes arrive whole, %d times of %d; of %u arrive %u\n", largest, TRIES,
                   TRIES, topics, least);
            return;
        }
        largest = topics;
    }
    printf("%u topics of 56 bytes arrive whole; more were not tried\n", largest);
}

} // namespace

int main(int argc, char **argv)
{
    const std::string_view mode = argc > 1 ? argv[1] : "";
    const int pid = argc > 2 ? atoi(argv[2]) : 0;
    const int count = argc > 3 ? atoi(argv[3]) : 0;
    mosquitto_lib_init();
    setvbuf(stdout, nullptr, _IOLBF, 0);
    if ((mode == "handlers" || mode == "bare") && count > 0) {
        flood(pid, count, mode == "bare");
    } else if (mode == "change" && count > 0) {
        change(pid, count);
    } else if (mode == "activate" && count > 0) {
        activate(pid, count);
    } else if (mode == "snapshot" && pid > 0) {
        find_largest_snapshot(pid);
    } else if (mode == "storm" && argc > 5) {
        storm(pid, argv[3], static_cast<unsigned>(atoi(argv[4])), atoi(argv[5]));
    } else {
        die("usage: bench_fire handlers|bare PID SECONDS | snapshot PID | change|activate PID COUNT | "
            "storm PID port|all|commands RATE SECONDS");
    }
    mosquitto_lib_cleanup();
    return EXIT_SUCCESS;
}
