#include "broker/session.h"

#include "broker/signals.h"
#include "topics.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <poll.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>

namespace
{

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int KEEPALIVE_SECONDS = 10;
constexpr std::chrono::seconds ANSWER_TIME(5);
constexpr milliseconds MAX_IDLE(1000); // the keepalive has to be looked after
// What a broker has retained comes in one burst. At QoS 1 a broker queues only so much of it for one client
// (1000 messages by default) and drops the rest; at QoS 0 it is bound by the socket alone.
constexpr int SUBSCRIPTION_QOS = 0;

constexpr int PUBLISH_QOS = 1;
// A topic that never has a retained value. The broker answers in the order in which it was asked, so that the answer
// to a subscription of this one comes behind everything that was retained for the one before.
constexpr const char *BARRIER_FILTER = RESPONSE_TOPIC;

constexpr int NO_ANSWER = -1;
constexpr int REFUSED_SUBSCRIPTION = 0x80;

struct {
    mosquitto *client = nullptr;
    message_handler handler;
    int connect_answer = NO_ANSWER;
    size_t subscriptions_granted = 0;
    bool is_subscription_refused = false;
    size_t publications_pending = 0;
    bool keeps_retain_flags = false;
} session;

void connect_cb(mosquitto *, void *, int answer)
{
    session.connect_answer = answer;
}

void subscribe_cb(mosquitto *, void *, int, int count, const int *granted)
{
    for (int i = 0; i < count; i++) {
        if (granted[i] >= REFUSED_SUBSCRIPTION) {
            session.is_subscription_refused = true;
        } else {
            session.subscriptions_granted++;
        }
    }
}

void publish_cb(mosquitto *, void *, int)
{
    session.publications_pending--;
}

// An exception must not pass through the library: it ends the program here.
void message_cb(mosquitto *, void *, const mosquitto_message *message) noexcept
{
    session.handler(
        message->topic,
        {static_cast<const uint8_t *>(message->payload), static_cast<size_t>(message->payloadlen)},
        message->retain);
}

std::string reason(int result)
{
    return result == MOSQ_ERR_ERRNO ? strerror(errno) : mosquitto_strerror(result);
}

bool wait_for_answer(const std::function<bool()> &is_done, std::string &error)
{
    switch (session_wait(is_done, ANSWER_TIME, error)) {
    case session_end::DONE:
        return true;
    case session_end::TIMEOUT:
        error = "it does not answer";
        return false;
    case session_end::INTERRUPTED:
        error = "interrupted";
        return false;
    default:
        return false;
    }
}

bool subscribe(const std::vector<std::string> &filters, std::string &error)
{
    session.subscriptions_granted = 0;
    for (const std::string &filter : filters) {
        const int options = session.keeps_retain_flags ? MQTT_SUB_OPT_RETAIN_AS_PUBLISHED : 0;
        const int result = mosquitto_subscribe_v5(session.client, nullptr, filter.c_str(), SUBSCRIPTION_QOS,
                                                  options, nullptr);
        if (result != MOSQ_ERR_SUCCESS) {
            error = reason(result);
            return false;
        }
    }
    const auto is_answered = [&] {
        return session.is_subscription_refused || session.subscriptions_granted == filters.size();
    };
    if (!wait_for_answer(is_answered, error)) {
        return false;
    }
    if (session.is_subscription_refused) {
        error = "it refuses the subscription";
    }
    return !session.is_subscription_refused;
}

// The library's connection attempt has no limit of its own, and a host that isn't there would keep it for minutes: an
// alarm interrupts it, once for each of the host's addresses.
int connect_in_time(const broker_address &address)
{
    struct sigaction interrupt = {};
    struct sigaction before = {};
    interrupt.sa_handler = [](int) {};
    sigaction(SIGALRM, &interrupt, &before);
    const itimerval limit = {{ANSWER_TIME.count(), 0}, {ANSWER_TIME.count(), 0}};
    setitimer(ITIMER_REAL, &limit, nullptr);
    const int result =
        mosquitto_connect(session.client, address.host.c_str(), address.port, KEEPALIVE_SECONDS);
    const int cause = errno;
    const itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    errno = cause;
    return result;
}

bool connect(const broker_address &address, std::string &error)
{
    const int result = connect_in_time(address);
    if (result == MOSQ_ERR_ERRNO && errno == EINTR) {
        error = "no connection within " + std::to_string(ANSWER_TIME.count()) + " s";
        return false;
    }
    if (result != MOSQ_ERR_SUCCESS) {
        error = reason(result);
        return false;
    }
    const bool is_answered = wait_for_answer([] { return session.connect_answer != NO_ANSWER; }, error);
    if (session.connect_answer > 0) {
        error = mosquitto_connack_string(session.connect_answer);
    }
    return is_answered && session.connect_answer <= 0;
}

} // namespace

bool session_open(const broker_address &address, const std::vector<std::string> &filters,
                  message_handler handler, std::string &error)
{
    mosquitto_lib_init();
    session.handler = std::move(handler);
    session.client = mosquitto_new(nullptr, true, nullptr);
    if (session.client == nullptr) {
        error = strerror(errno);
        return false;
    }
    if (session.keeps_retain_flags) {
        mosquitto_int_option(session.client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    }
    mosquitto_connect_callback_set(session.client, connect_cb);
    mosquitto_subscribe_callback_set(session.client, subscribe_cb);
    mosquitto_message_callback_set(session.client, message_cb);
    mosquitto_publish_callback_set(session.client, publish_cb);
    if (!connect(address, error) || !subscribe(filters, error) || !subscribe({BARRIER_FILTER}, error)) {
        session_close();
        return false;
    }
    return true;
}

void session_keep_retain_flags()
{
    session.keeps_retain_flags = true;
}

bool session_subscribe(const std::string &filter, std::string &error)
{
    return subscribe({filter}, error) && subscribe({BARRIER_FILTER}, error);
}

bool session_publish(const std::string &topic, std::span<const uint8_t> payload, bool is_retained,
                     std::string &error)
{
    const int result =
        mosquitto_publish(session.client, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                          payload.data(), PUBLISH_QOS, is_retained);
    if (result != MOSQ_ERR_SUCCESS) {
        error = reason(result);
        return false;
    }
    session.publications_pending++;
    return true;
}

bool session_is_delivered()
{
    return session.publications_pending == 0;
}

session_end session_wait(const std::function<bool()> &is_done, milliseconds limit, std::string &error)
{
    const auto deadline = steady_clock::now() + limit;
    while (!is_done()) {
        const auto left = std::chrono::duration_cast<milliseconds>(deadline - steady_clock::now());
        if (left.count() <= 0) {
            return session_end::TIMEOUT;
        }
        pollfd fds[] = {
            {session_socket(), session_events(), 0},
            {signals_fd(), POLLIN, 0},
        };
        if (poll(fds, std::size(fds), static_cast<int>(std::min(left, MAX_IDLE).count())) == -1 &&
            errno != EINTR) {
            error = strerror(errno);
            return session_end::LOST;
        }
        if (fds[1].revents != 0 && signals_take() != 0) {
            return session_end::INTERRUPTED;
        }
        if (!session_serve(fds[0].revents, error)) {
            return session_end::LOST;
        }
    }
    return session_end::DONE;
}

int session_socket()
{
    return mosquitto_socket(session.client);
}

short session_events()
{
    return static_cast<short>(POLLIN | (mosquitto_want_write(session.client) ? POLLOUT : 0));
}

bool session_serve(short events, std::string &error)
{
    int result = MOSQ_ERR_SUCCESS;
    if ((events & (POLLIN | POLLHUP | POLLERR)) != 0) {
        result = mosquitto_loop_read(session.client, 1);
    }
    if (result == MOSQ_ERR_SUCCESS && mosquitto_want_write(session.client)) {
        result = mosquitto_loop_write(session.client, 1);
    }
    if (result == MOSQ_ERR_SUCCESS) {
        result = mosquitto_loop_misc(session.client);
    }
    if (result != MOSQ_ERR_SUCCESS) {
        error = reason(result);
        return false;
    }
    return true;
}

void session_close()
{
    mosquitto_disconnect(session.client);
    mosquitto_destroy(session.client);
    mosquitto_lib_cleanup();
    session = {};
}
