// Commands of a client on this node per second, against the bare client on the same broker, in turn.
//
//     bench_commands COUNT
#include "client.h"
#include "topics.h"

#include <string>

namespace
{

constexpr int ROUNDS = 5;
constexpr int WINDOW = 16; // under way at once: below the 20 that the client library keeps on the wire

int answers;

double run(mosquitto *client, const char *topic, int count)
{
    answers = 0;
    const auto start = bench_clock::now();
    for (int asked = 0; asked < count + WINDOW; asked++) {
        if (asked < count) {
            const std::string text = std::string("1;") + std::to_string(asked) + ";noop";
            mosquitto_publish(client, nullptr, topic, static_cast<int>(text.size()), text.data(), 1, false);
        }
        while (answers < asked + 1 - WINDOW) {
            if (!turn(client, ANSWER_LIMIT_MS)) {
                die("no answer");
            }
        }
    }
    return 1e6 * count / microseconds(bench_clock::now() - start).count();
}

} // namespace

int main(int argc, char **argv)
{
    const int count = argc > 1 ? atoi(argv[1]) : 4000;
    mosquitto_lib_init();
    const pid_t bare_client = start_bare_client();
    mosquitto *const client = connect_client("bench-commands");
    mosquitto_message_callback_set(
        client, [](mosquitto *, void *, const mosquitto_message *message) { answers += !message->retain; });
    mosquitto_subscribe(client, nullptr, RESPONSE_TOPIC, 1);
    mosquitto_subscribe(client, nullptr, BARE_ANSWER, 1);
    settle(client);
    double daemon = 0;
    double bare = 0;
    for (int i = 0; i < ROUNDS; i++) {
        daemon += run(client, REQUEST_TOPIC, count) / ROUNDS;
        bare += run(client, BARE_QUESTION, count) / ROUNDS;
    }
    printf("diag         %7.0f noops/s\nbare client  %7.0f messages/s\nratio        %7.2f\n", daemon, bare,
           daemon / bare);
    kill(bare_client, SIGKILL);
    mosquitto_destroy(client);
    mosquitto_lib_cleanup();
    return EXIT_SUCCESS;
}
