// From a local fact to the published topic, against the floor: a bare client on the same broker that answers
// one message with another. Both are asked in turn, so that the machine's moods hit both alike.
//
//     bench_latency COUNT
#include <mosquitto.h>
#include <poll.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace
{

constexpr const char *BROKER = "127.0.0.1";
constexpr int BROKER_PORT = 1885;
constexpr int ANSWER_LIMIT_MS = 5000;
constexpr int WARM_UP = 50;

using microseconds = std::chrono::duration<double, std::micro>;

[[noreturn]] void die(const char *what)
{
    fprintf(stderr, "bench_latency: %s\n", what);
    exit(EXIT_FAILURE);
}

struct path {
    const char *name;
    const char *question;
    const char *answer;
    std::vector<double> times; // microseconds
};

mosquitto *connect_client(const char *id)
{
    mosquitto *const client = mosquitto_new(id, true, nullptr);
    mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1);
    if (mosquitto_connect(client, BROKER, BROKER_PORT, 60) != MOSQ_ERR_SUCCESS) {
        die("no broker on 127.0.0.1:1885");
    }
    return client;
}

// One turn of the leanest loop there is: wait, read, write what callbacks queued.
void turn(mosquitto *client)
{
    pollfd socket = {.fd = mosquitto_socket(client), .events = POLLIN, .revents = 0};
    if (poll(&socket, 1, ANSWER_LIMIT_MS) != 1 || mosquitto_loop_read(client, 1) != MOSQ_ERR_SUCCESS ||
        mosquitto_loop_write(client, 1) != MOSQ_ERR_SUCCESS) {
        die("no answer");
    }
}

[[noreturn]] void answer_forever(const path &bare)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    mosquitto *const client = connect_client("bench-bare");
    mosquitto_user_data_set(client, const_cast<char *>(bare.answer));
    mosquitto_message_callback_set(client,
                                   [](mosquitto *self, void *answer, const mosquitto_message *message) {
                                       mosquitto_publish(self, nullptr, static_cast<const char *>(answer),
                                                         message->payloadlen, message->payload, 1, true);
                                   });
    mosquitto_subscribe(client, nullptr, bare.question, 1);
    for (;;) {
        pollfd socket = {.fd = mosquitto_socket(client), .events = POLLIN, .revents = 0};
        if (poll(&socket, 1, 1000) == 1 && (mosquitto_loop_read(client, 1) != MOSQ_ERR_SUCCESS ||
                                            mosquitto_loop_write(client, 1) != MOSQ_ERR_SUCCESS)) {
            exit(EXIT_FAILURE);
        }
        mosquitto_loop_misc(client);
    }
}

std::string last_answer; // topic of the last message received

void ask(mosquitto *client, path &asked, bool measure)
{
    const int32_t ring_state = 2;
    last_answer.clear();
    const auto start = std::chrono::steady_clock::now();
    mosquitto_publish(client, nullptr, asked.question, sizeof ring_state, &ring_state, 1, false);
    while (last_answer != asked.answer) {
        turn(client);
    }
    if (measure) {
        asked.times.push_back(microseconds(std::chrono::steady_clock::now() - start).count());
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
    path daemon = {"diag", "local/diag/ring/0/status", "local/diag/network_style7", {}};
    path bare = {"bare client", "bench/question", "bench/answer", {}};
    mosquitto_lib_init();

    const pid_t answering = fork();
    if (answering == 0) {
        answer_forever(bare);
    }
    mosquitto *const client = connect_client("bench-asking");
    mosquitto_message_callback_set(
        client, [](mosquitto *, void *, const mosquitto_message *message) { last_answer = message->topic; });
    mosquitto_subscribe(client, nullptr, daemon.answer, 1);
    mosquitto_subscribe(client, nullptr, bare.answer, 1);
    for (const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
         std::chrono::steady_clock::now() < until;) {
        mosquitto_loop(client, 50, 1); // sessions, subscriptions and retained answers settle
    }

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
