// From a local fact to the published topic, against the floor: a bare client on the same broker that answers
// one message with another. Both are asked in turn, so that the machine's moods hit both alike.
//
//     bench_latency COUNT
#include "client.h"
#include "topics.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace
{

constexpr int WARM_UP = 50;

struct path {
    const char *name;
    const char *question;
    const char *answer;
    std::vector<double> times; // microseconds
};

std::string last_answer; // topic of the last message received

void ask(mosquitto *client, path &asked, bool measure)
{
    const int32_t ring_state = 2;
    last_answer.clear();
    const auto start = bench_clock::now();
    mosquitto_publish(client, nullptr, asked.question, sizeof ring_state, &ring_state, 1, false);
    while (last_answer != asked.answer) {
        if (!turn(client, ANSWER_LIMIT_MS)) {
            die("no answer");
        }
    }
    if (measure) {
        asked.times.push_back(microseconds(bench_clock::now() - start).count());
    }
}

double percentile(std::vector<double> &times, double share)
{
    std::sort(times.begin(), times.end());
    return times[static_cast<size_t>(share * static_cast<double>(times.size() - 1))];
}

} // namespace

int main(int argc, char **argv)
{
    const int count = argc > 1 ? atoi(argv[1]) : 2000;
    path daemon = {"diag", RING_0_TOPIC, NETWORK_STYLE7_TOPIC, {}};
    path bare = {"bare client", BARE_QUESTION, BARE_ANSWER, {}};
    mosquitto_lib_init();
    const pid_t answering = start_bare_client();
    mosquitto *const client = connect_client("bench-asking");
    mosquitto_message_callback_set(
        client, [](mosquitto *, void *, const mosquitto_message *message) { last_answer = message->topic; });
    mosquitto_subscribe(client, nullptr, daemon.answer, 1);
    mosquitto_subscribe(client, nullptr, bare.answer, 1);
    settle(client);

    for (int i = 0; i < WARM_UP + count; i++) {
        ask(client, daemon, i >= WARM_UP);
        ask(client, bare, i >= WARM_UP);
    }
    kill(answering, SIGKILL);
    for (path *asked : {&daemon, &bare}) {
        printf("%-12s median %7.1f us   99th percentile %7.1f us\n", asked->name,
               percentile(asked->times, 0.5), percentile(asked->times, 0.99));
    }
    printf("%-12s median %7.2f      99th percentile %7.2f\n", "ratio",
           percentile(daemon.times, 0.5) / percentile(bare.times, 0.5),
           percentile(daemon.times, 0.99) / percentile(bare.times, 0.99));
    mosquitto_destroy(client);
    mosquitto_lib_cleanup();
    return EXIT_SUCCESS;
}
