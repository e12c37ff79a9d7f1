// The leanest MQTT client there is, for benchmarks: errors end the program.
#pragma once

#include <mosquitto.h>
#include <poll.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>

constexpr int ANSWER_LIMIT_MS = 5000;
constexpr const char *BARE_QUESTION = "bench/question";
constexpr const char *BARE_ANSWER = "bench/answer";

using bench_clock = std::chrono::steady_clock;
using microseconds = std::chrono::duration<double, std::micro>;

[[noreturn]] inline void die(const char *what)
{
    fprintf(stderr, "bench: %s\n", what);
    exit(EXIT_FAILURE);
}

inline mosquitto *connect_client(const char *id)
{
    mosquitto *const client = mosquitto_new(id, true, nullptr);
    mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1);
    if (mosquitto_connect(client, "127.0.0.1", 1885, 60) != MOSQ_ERR_SUCCESS) {
        die("no broker on 127.0.0.1:1885");
    }
    return client;
}

// Waits for input, reads it, and writes what callbacks queued; false when nothing came within the limit.
inline bool turn(mosquitto *client, int limit_ms)
{
    pollfd socket = {.fd = mosquitto_socket(client), .events = POLLIN, .revents = 0};
    if (poll(&socket, 1, limit_ms) == 1 && (mosquitto_loop_read(client, 1) != MOSQ_ERR_SUCCESS ||
                                            mosquitto_loop_write(client, 1) != MOSQ_ERR_SUCCESS)) {
        die("the broker has gone");
    }
    return socket.revents != 0;
}

// Sessions, subscriptions and retained messages settle.
inline void settle(mosquitto *client)
{
    for (const auto until = bench_clock::now() + std::chrono::milliseconds(500);
         bench_clock::now() < until;) {
        mosquitto_loop(client, 50, 1);
    }
}

// The floor: a client that answers one message with another of the same payload. Returns its process.
inline pid_t start_bare_client()
{
    const pid_t process = fork();
    if (process != 0) {
        return process;
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    mosquitto *const client = connect_client("bench-bare");
    mosquitto_message_callback_set(client, [](mosquitto *self, void *, const mosquitto_message *message) {
        mosquitto_publish(self, nullptr, BARE_ANSWER, message->payloadlen, message->payload, 1, true);
    });
    mosquitto_subscribe(client, nullptr, BARE_QUESTION, 1);
    for (;;) {
        turn(client, 1000);
        mosquitto_loop_misc(client);
    }
}
