// The port statistics of the daemon on this node, whose card is stopped: this program plays it.
//
//     bench_statistics track PORTS          announces the first PORTS of A to H and CPU as fire ports
//     bench_statistics throughput COUNT     statistics messages on ports A to H until COUNT records have come, timed,
//                                           against the bare client
//     bench_statistics untrack              times the clearing of port A's topics
#include "client.h"
#include "hwinfo/hwinfo.h"
#include "records.h"
#include "topics.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace
{

constexpr int WINDOW = 16; // messages under way: below the 20 that the client library keeps on the wire
constexpr int TOPICS_PER_PORT = 1 + PM_PERIODS + 1 + PM_DAYS + 1;

int received; // messages that the running measurement waits for
bench_clock::time_point last_time;

void count_message(mosquitto *, void *, const mosquitto_message *message)
{
    if (message->retain) {
        return; // what was published before
    }
    last_time = bench_clock::now();
    received++;
}

std::string local_topic(int port, const char *name)
{
    return PORT_PREFIX + std::string(hwinfo_lumport_enum_to_str_bigcap(port)) + "/" + name;
}

void publish(mosquitto *client, const std::string &topic, const void *payload, size_t length, bool retain)
{
    mosquitto_publish(client, nullptr, topic.c_str(), static_cast<int>(length), payload, 1, retain);
}

void wait_for(mosquitto *client, int count, int limit_ms)
{
    while (received < count) {
        if (!turn(client, limit_ms)) {
            die("no answer");
        }
    }
}

void track(mosquitto *client, int ports)
{
    const uint8_t up = 0;
    const uint8_t forwarding[ERPS_STATUS_SIZE] = {};
    for (int port = 0; port < ports; port++) {
        publish(client, local_topic(port, FACT_TYPE), "fire", 4, true);
        publish(client, local_topic(port, FACT_LINK_DOWN), &up, sizeof up, true);
        publish(client, local_topic(port, FACT_STATUS), forwarding, sizeof forwarding, true);
    }
    settle(client);
}

// Asks count times, WINDOW at once, and returns the answers per second.
template <typename Ask>
double run(mosquitto *client, int count, Ask ask)
{
    received = 0;
    const auto start = bench_clock::now();
    for (int asked = 0; asked < count; asked++) {
        ask(asked);
        wait_for(client, asked + 1 - WINDOW, ANSWER_LIMIT_MS);
    }
    wait_for(client, count, ANSWER_LIMIT_MS);
    return 1e6 * count / microseconds(bench_clock::now() - start).count();
}

double run_statistics(mosquitto *client, int count)
{
    uint8_t block[STATS_BLOCK_SIZE] = {};
    return run(client, count, [&](int asked) {
        block[STATS_GOOD_FRAMES] = static_cast<uint8_t>(asked / LUM_FRONT_PORTS);
        publish(client, local_topic(asked % LUM_FRONT_PORTS, FACT_STATS), block, sizeof block, false);
    });
}

void throughput(mosquitto *client, int count)
{
    constexpr int ROUNDS = 5;
    const uint8_t block[STATS_BLOCK_SIZE] = {};
    double daemon = 0;
    double bare = 0;
    for (int i = 0; i < ROUNDS; i++) {
        daemon += run_statistics(client, count) / ROUNDS;
        bare += run(client, count, [&](int) { publish(client, BARE_QUESTION, block, sizeof block, false); }) /
                ROUNDS;
    }
    printf(
        "diag         %7.0f messages/s on eight ports\nbare client  %7.0f messages/s\nratio        %7.2f\n",
        daemon, bare, daemon / bare);
}

} // namespace

int main(int argc, char **argv)
{
    const std::string_view mode = argc > 1 ? argv[1] : "";
    const int count = argc > 2 ? atoi(argv[2]) : 0;
    mosquitto_lib_init();
    const pid_t bare = mode == "throughput" ? start_bare_client() : 0;
    mosquitto *const client = connect_client("bench-statistics");
    mosquitto_message_callback_set(client, count_message);
    const char *const filter = mode == "untrack" ? "pub/diag/+/A/#" : "pub/diag/+/+/stats";
    mosquitto_subscribe(client, nullptr, filter, 1);
    mosquitto_subscribe(client, nullptr, BARE_ANSWER, 1);
    settle(client);
    received = 0;

    if (mode == "track") {
        track(client, count);
    } else if (mode == "throughput") {
        throughput(client, count);
    } else if (mode == "untrack") {
        const auto start = bench_clock::now();
        publish(client, local_topic(LUM_PORT_A, FACT_TYPE), nullptr, 0, true);
        wait_for(client, TOPICS_PER_PORT, ANSWER_LIMIT_MS);
        printf("%d topics cleared within %.0f us\n", received, microseconds(last_time - start).count());
    } else {
        die("usage: bench_statistics track PORTS | throughput COUNT | untrack");
    }
    if (bare != 0) {
        kill(bare, SIGKILL);
    }
    mosquitto_destroy(client);
    mosquitto_lib_cleanup();
    return EXIT_SUCCESS;
}
