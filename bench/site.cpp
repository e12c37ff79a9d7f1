// Cards of a site as its broker sees them, one connection each, and the leanest tool there is.
//
//     bench_site play CARDS PORT...   cards that publish as their bridges would, at each broker on 127.0.0.1; lines
//                                     of the input: "load", "rest SECONDS", "storm SECONDS"; each is answered
//     bench_site read PORT            subscribes to everything; says when all that was retained has come, and for
//                                     each line of the input the delays of statistics since the last
//
// Statistics carry the time at which they were sent, in count64_0; free spaces are such a time.
#include "records.h"
#include "topics.h"

#include <mosquitto.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <functional>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

namespace
{

using steady = std::chrono::steady_clock;
using seconds = std::chrono::duration<double>;

constexpr int KEEPALIVE_SECONDS = 10;     // as in bridge.conf
constexpr size_t NETWORK_SIZE = 10;       // cards
constexpr size_t CONNECTING_AT_ONCE = 20; // more than wait at the broker's door are put off for seconds
constexpr size_t LOADING_AT_ONCE = 20;
constexpr double STATS_SECONDS = 10;   // how often a port's statistics come at rest
constexpr double STORM_SECONDS = 1;    // how often everything of a card changes in a storm
constexpr double PROBE_SECONDS = 0.05; // how often a card changes its free space to the time
constexpr uint64_t PROBE_MODULO = 1'000'000'000;
constexpr size_t PORTS_OF_CARDS[] = {2, 2, 2, 2, 2, 4, 2, 2, 9, 2}; // repeated
constexpr const char *PORT_NAMES[] = {"A", "B", "C", "D", "E", "F", "G", "H", "CPU"};
constexpr int64_t QUARTER_HOUR = 900;
constexpr int64_t DAY = 86400;
constexpr int POLL_MS = 20;

[[noreturn]] void die(const std::string &what)
{
    fprintf(stderr, "bench_site: %s\n", what.c_str());
    exit(EXIT_FAILURE);
}

uint64_t now_ns()
{
    return static_cast<uint64_t>(steady::now().time_since_epoch().count());
}

// Clients and the standard input, in one loop.
class loop
{
public:
    void add(mosquitto *client)
    {
        epoll_event event = {.events = EPOLLIN, .data = {.ptr = client}};
        epoll_ctl(poll, EPOLL_CTL_ADD, mosquitto_socket(client), &event);
        clients.push_back(client);
    }
    void turn(const std::function<void()> &input, int limit_ms = POLL_MS)
    {
        epoll_event events[256];
        const int count = epoll_wait(poll, events, std::size(events), limit_ms);
        for (int i = 0; i < count; i++) {
            auto *const client = static_cast<mosquitto *>(events[i].data.ptr);
            if (client == nullptr) {
                input();
            } else {
                check(mosquitto_loop_read(client, 1));
            }
        }
        for (mosquitto *client : clients) {
            if (mosquitto_want_write(client)) {
                check(mosquitto_loop_write(client, 1));
            }
        }
        if (steady::now() - looked_after > std::chrono::seconds(1)) {
            looked_after = steady::now();
            for (mosquitto *client : clients) {
                check(mosquitto_loop_misc(client));
            }
        }
    }
    static void check(int result)
    {
        if (result != MOSQ_ERR_SUCCESS) {
            die(std::string("the broker has gone: ") + // the library has no words for the first
                (result == MOSQ_ERR_KEEPALIVE ? "it does not answer" : mosquitto_strerror(result)));
        }
    }
    loop()
    {
        epoll_event event = {.events = EPOLLIN, .data = {.ptr = nullptr}};
        epoll_ctl(poll, EPOLL_CTL_ADD, STDIN_FILENO, &event);
    }

private:
    int poll = epoll_create1(0);
    std::vector<mosquitto *> clients;
    steady::time_point looked_after = steady::now();
};

size_t connections = 0;

mosquitto *connect(const std::string &id, int port, const std::string &presence = "")
{
    mosquitto *const client = mosquitto_new(id.empty() ? nullptr : id.c_str(), true, nullptr);
    mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_callback_set(client, [](mosquitto *, void *, int refused) {
        if (refused != 0) {
            die(mosquitto_connack_string(refused));
        }
        connections++;
    });
    if (!presence.empty()) {
        mosquitto_will_set(client, presence.c_str(), 1, "0", 1, true);
    }
    if (mosquitto_connect(client, "127.0.0.1", port, KEEPALIVE_SECONDS) != MOSQ_ERR_SUCCESS) {
        die("no broker on 127.0.0.1:" + std::to_string(port));
    }
    return client;
}

void put(std::string &record, size_t offset, size_t width, uint64_t value)
{
    for (size_t i = 0; i < width; i++) {
        record[offset + i] = static_cast<char>(value >> 8 * (width - 1 - i));
    }
}

class card
{
public:
    card(size_t index, size_t cards) : number(index), ports(PORTS_OF_CARDS[index % std::size(PORTS_OF_CARDS)])
    {
        const size_t first = number - number % NETWORK_SIZE;
        for (size_t other = first; other < std::min(first + NETWORK_SIZE, cards); other++) {
            if (other != number) {
                others.push_back(mac_of(other));
            }
        }
    }

    void connect_to(int port) { clients.push_back(connect(mac, port, presence)); }

    // Everything that is retained.
    void load(int64_t now)
    {
        publish(presence, "1");
        const std::string versions = "OS        :1.4.0                                   ;"
                                     "BOOT      :2.1                                     ;"
                                     "APP       :1.0.0                                   ;";
        const std::string colours = summary("green");
        for (const auto &[name, value] : std::initializer_list<std::pair<const char *, std::string>>{
                 {NODE_PORT_SUMMARY, colours},
                 {NODE_PORT_MEDIA, summary("smf")},
                 {NODE_JOB_REV, "12"},
                 {NODE_JOB_NAME, "BENCH"},
                 {NODE_DOWNLOAD_STATUS, std::string(2, '\0')},
                 {NODE_CF_FREE_SPACE, "123456"},
                 {NODE_M301, "0"},
                 {NODE_M702, "0"},
                 {NODE_COMM_LOSS, "0"},
                 {NODE_DOWNLOAD_PENDING, "0"},
                 {NODE_REPEATER, "0"},
                 {NODE_SOFTWARE_VERSIONS, versions},
                 {NODE_CARD_ADDR, std::to_string(number % 128)}}) {
            publish(own + name, value);
        }
        for (const char *list : {LINK_DOWN_TOPIC, GROUND_TOPIC, MISWIRED_TOPIC}) {
            publish(view + list, std::string(1, '\0'));
        }
        for (const std::string &other : others) {
            publish(view + std::string(DIAG_PREFIX) + other + "/" + NODE_PORT_SUMMARY, colours);
        }
        for (size_t port = 0; port < ports; port++) {
            const std::string pm = own + PORT_NAMES[port] + "/" + std::string(PM_PREFIX);
            const int64_t last = now / QUARTER_HOUR;
            for (unsigned slot = 0; slot < PM_PERIODS; slot++) {
                publish(pm + PM_PERIOD + std::to_string(slot), pm_record((last - slot) * QUARTER_HOUR));
            }
            for (unsigned slot = 0; slot < PM_DAYS; slot++) {
                publish(pm + PM_DAY + std::to_string(slot), pm_record((now / DAY - slot) * DAY));
            }
            publish(own + PORT_NAMES[port] + "/" + PM_LAST_PERIOD, std::string(PM_PERIOD) + "0");
            publish(own + PORT_NAMES[port] + "/" + PM_LAST_DAY, std::string(PM_DAY) + "0");
            publish_stats(port);
        }
    }

    void publish_stats(size_t port)
    {
        std::string record(STATS_BLOCK_SIZE, '\0');
        put(record, STATS_COUNT64_0, 8, now_ns());
        put(record, STATS_GOOD_FRAMES, 8, published);
        publish(own + PORT_NAMES[port] + "/" + PORT_STATS, record);
    }

    // A link of the card fails, or works again.
    void change()
    {
        is_down = !is_down;
        publish(own + NODE_PORT_SUMMARY, summary(is_down ? "red" : "green"));
        std::string list(1, '\0');
        if (is_down) {
            list = std::string(PORT_LIST_RECORD_SIZE, '\0');
            put(list, PORT_LIST_MAC, MAC_SIZE, mac_number(number));
            put(list, PORT_LIST_NODE_NUM, 1, number % NETWORK_SIZE + 1);
            put(list, PORT_LIST_PORTS, 1, 1);
        }
        publish(view + LINK_DOWN_TOPIC, list);
        publish_stats(0);
    }

    // A change that says when it was made, in microseconds.
    void probe() { publish(own + NODE_CF_FREE_SPACE, std::to_string(now_ns() / 1000 % PROBE_MODULO)); }

    // Asks each broker for an acknowledgement, which comes behind everything published before.
    void mark()
    {
        for (mosquitto *client : clients) {
            mosquitto_user_data_set(client, this);
            mosquitto_publish_callback_set(
                client, [](mosquitto *, void *self, int) { static_cast<card *>(self)->pending--; });
            pending++;
            loop::check(mosquitto_publish(client, nullptr, (own + "mark").c_str(), 0, nullptr, 1, false));
        }
    }
    bool is_taken() const { return pending == 0; }

    size_t port_count() const { return ports; }
    size_t topics() const { return 17 + others.size() + ports * (PM_PERIODS + PM_DAYS + 3); }
    std::vector<mosquitto *> clients; // one for each broker
    static inline uint64_t published = 0;

private:
    static uint64_t mac_number(size_t number) { return 0x020000000000 + number; }
    static std::string mac_of(size_t number)
    {
        char text[] = "00-00-00-00-00-00";
        const uint64_t mac = mac_number(number);
        for (size_t i = 0; i < MAC_SIZE; i++) {
            const auto byte = static_cast<unsigned>(mac >> 8 * (MAC_SIZE - 1 - i) & 0xff);
            snprintf(text + 3 * i, 3, "%02X", byte);
            if (i + 1 < MAC_SIZE) {
                text[3 * i + 2] = '-';
            }
        }
        return text;
    }
    std::string summary(const std::string &value) const
    {
        std::string text;
        for (size_t port = 0; port < std::min<size_t>(ports, 8); port++) {
            text += (text.empty() ? "{\"" : ",\"") + std::string(PORT_NAMES[port]) + "\":\"" + value + "\"";
        }
        return text + "}";
    }
    static std::string pm_record(int64_t time)
    {
        std::string record(PM_RECORD_SIZE, '\0');
        put(record, PM_TIME, 8, static_cast<uint64_t>(time));
        put(record, PM_GOOD_FRAMES, 8, 123456);
        return record;
    }
    void publish(const std::string &topic, const std::string &payload)
    {
        for (mosquitto *client : clients) {
            published++;
            loop::check(mosquitto_publish(client, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                                          payload.data(), 0, true));
        }
    }

    size_t number;
    size_t ports;
    std::string mac = mac_of(number);
    std::string own = std::string(DIAG_PREFIX) + mac + "/";
    std::string view = "cards/" + mac + "/";
    std::string presence = view + "bridge";
    std::vector<std::string> others;
    size_t pending = 0;
    bool is_down = false;
};

// Calls step for each of count things, spread evenly over every period, until the time is over, and meanwhile probe.
void spread(loop &events, size_t count, double period, double limit, const std::function<void(size_t)> &step,
            const std::function<void()> &probe)
{
    const auto start = steady::now();
    double next_probe = 0;
    for (uint64_t done = 0;;) {
        const double elapsed = seconds(steady::now() - start).count();
        if (elapsed > limit) {
            return;
        }
        if (elapsed > next_probe) {
            next_probe += PROBE_SECONDS;
            probe();
        }
        for (; static_cast<double>(done) < elapsed / period * static_cast<double>(count); done++) {
            step(done % count);
        }
        events.turn([] {}, 1);
    }
}

void play(size_t count, const std::vector<int> &brokers)
{
    loop events;
    std::deque<card> cards;
    std::vector<std::pair<card *, size_t>> ports;
    for (size_t i = 0; i < count; i++) {
        card &added = cards.emplace_back(i, count);
        for (const int broker : brokers) {
            added.connect_to(broker);
        }
        for (mosquitto *client : added.clients) {
            events.add(client);
        }
        while (connections + CONNECTING_AT_ONCE < cards.size() * brokers.size()) {
            events.turn([] {});
        }
        for (size_t port = 0; port < added.port_count(); port++) {
            ports.emplace_back(&added, port);
        }
    }
    size_t topics = 0;
    for (const card &one : cards) {
        topics += one.topics();
    }
    const auto load = [&](double) {
        std::vector<card *> loading;
        for (size_t next = 0; next < cards.size() || !loading.empty();) {
            while (next < cards.size() && loading.size() < LOADING_AT_ONCE) {
                loading.push_back(&cards[next++]);
                loading.back()->load(time(nullptr));
                loading.back()->mark();
            }
            events.turn([] {});
            std::erase_if(loading, [](const card *one) { return one->is_taken(); });
        }
    };
    const auto probe = [&, next = size_t{0}]() mutable { cards[next++ % cards.size()].probe(); };
    const auto rest = [&](double limit) {
        spread(
            events, ports.size(), STATS_SECONDS, limit,
            [&](size_t i) { ports[i].first->publish_stats(ports[i].second); }, probe);
    };
    const auto storm = [&](double limit) {
        spread(
            events, cards.size(), STORM_SECONDS, limit, [&](size_t i) { cards[i].change(); }, probe);
    };
    while (connections < count * brokers.size()) {
        events.turn([] {});
    }
    printf("%zu topics\n", topics);
    fflush(stdout);
    for (;;) {
        events.turn([&] {
            std::string word;
            double limit = 0;
            if (!(std::cin >> word) || (word != "load" && !(std::cin >> limit))) {
                exit(EXIT_SUCCESS);
            }
            const auto start = steady::now();
            const uint64_t before = card::published;
            word == "load" ? load(limit) : word == "rest" ? rest(limit) : storm(limit);
            printf("%.3f s %llu messages\n", seconds(steady::now() - start).count(),
                   static_cast<unsigned long long>(card::published - before));
            fflush(stdout);
        });
    }
}

struct {
    size_t messages = 0;
    size_t answers = 0;
    std::vector<double> delays; // milliseconds
} reader;

void message_cb(mosquitto *, void *, const mosquitto_message *message)
{
    reader.messages++;
    const auto *payload = static_cast<const uint8_t *>(message->payload);
    if (!message->retain && message->payloadlen == STATS_BLOCK_SIZE) {
        uint64_t sent = 0;
        for (size_t i = 0; i < sizeof(sent); i++) {
            sent = sent << 8 | payload[STATS_COUNT64_0 + i];
        }
        reader.delays.push_back(static_cast<double>(now_ns() - sent) / 1e6);
    }
}

void read(int port)
{
    const auto start = steady::now();
    loop events;
    mosquitto *const client = connect("", port);
    mosquitto_message_callback_set(client, message_cb);
    mosquitto_subscribe_callback_set(client,
                                     [](mosquitto *, void *, int, int, const int *) { reader.answers++; });
    events.add(client);
    // The broker may answer a subscription before it sends what it has for it: see barrier::REQUESTS in diagctl.
    const auto ask = [&](std::initializer_list<const char *> filters) {
        reader.answers = 0;
        for (const char *filter : filters) {
            loop::check(mosquitto_subscribe(client, nullptr, filter, 0));
        }
        while (reader.answers < filters.size()) {
            events.turn([] {});
        }
    };
    ask({DIAG_FILTER, "cards/#"});
    ask({"bench/mark", "bench/mark"});
    printf("%.3f s %zu messages\n", seconds(steady::now() - start).count(), reader.messages);
    fflush(stdout);
    for (;;) {
        events.turn([&] {
            std::string word;
            if (!(std::cin >> word)) {
                exit(EXIT_SUCCESS);
            }
            auto &delays = reader.delays;
            std::sort(delays.begin(), delays.end());
            const auto at = [&](double share) {
                return delays.empty()
                           ? 0
                           : delays[static_cast<size_t>(share * static_cast<double>(delays.size() - 1))];
            };
            printf("%zu delays %.3f %.3f %.3f ms\n", delays.size(), at(0.5), at(0.99), at(1));
            fflush(stdout);
            delays.clear();
        });
    }
}

} // namespace

int main(int argc, char **argv)
{
    const std::vector<std::string> words(argv + 1, argv + argc);
    rlimit files = {};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
    mosquitto_lib_init();
    if (words.size() >= 3 && words[0] == "play") {
        std::vector<int> brokers;
        for (size_t i = 2; i < words.size(); i++) {
            brokers.push_back(std::stoi(words[i]));
        }
        play(std::stoul(words[1]), brokers);
    } else if (words.size() == 2 && words[0] == "read") {
        read(std::stoi(words[1]));
    }
    die("see the first lines of bench/site.cpp");
}
