#include "session.h"

#include <mosquitto.h>
#include <poll.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace
{

constexpr int KEEPALIVE_SECONDS = 10;
constexpr std::chrono::seconds ANSWER_TIME(5);
// What a broker has retained comes in one burst. At QoS 1 a broker queues only so much of it for one client
// (1000 messages by default) and drops the rest; at QoS 0 it is bound by the socket alone.
constexpr int SUBSCRIPTION_QOS = 0;

constexpr int NO_ANSWER = -1;
constexpr int REFUSED_SUBSCRIPTION = 0x80;

struct {
    mosquitto *client = nullptr;
    message_handler handler;
    int connect_answer = NO_ANSWER;
    size_t subscriptions_granted = 0;
    bool is_subscription_refused = false;
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

// Serves the session until is_done; false, with the reason in error, when it is lost or nothing comes in
// time.
template <typename Condition>
bool serve_until(Condition is_done, std::string &error)
{
    const auto deadline = std::chrono::steady_clock::now() + ANSWER_TIME;
    while (!is_done()) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            error = "it does not answer";
            return false;
        }
        pollfd socket = {session_socket(), session_events(), 0};
        if (poll(&socket, 1, static_cast<int>(left.count())) == -1 && errno != EINTR) {
            error = strerror(errno);
            return false;
        }
        if (!session_serve(socket.revents, error)) {
            return false;
        }
    }
    return true;
}

bool open_session(const broker_address &address, const std::vector<std::string> &filters, std::string &error)
{
    int result = mosquitto_connect(session.client, address.host.c_str(), address.port, KEEPALIVE_SECONDS);
    if (result != MOSQ_ERR_SUCCESS) {
        error = reason(result);
        return false;
    }
    const bool is_answered = serve_until([] { return session.connect_answer != NO_ANSWER; }, error);
    if (session.connect_answer > 0) {
        error = mosquitto_connack_string(session.connect_answer);
    }
    if (!is_answered || session.connect_answer > 0) {
        return false;
    }
    for (const std::string &filter : filters) {
        result = mosquitto_subscribe(session.client, nullptr, filter.c_str(), SUBSCRIPTION_QOS);
        if (result != MOSQ_ERR_SUCCESS) {
            error = reason(result);
            return false;
        }
    }
    if (!serve_until(
            [&] {
                return session.is_subscription_refused || session.subscriptions_granted == filters.size();
            },
            error)) {
        return false;
    }
    if (session.is_subscription_refused) {
        error = "it refuses the subscription";
    }
    return !session.is_subscription_refused;
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
    mosquitto_connect_callback_set(session.client, connect_cb);
    mosquitto_subscribe_callback_set(session.client, subscribe_cb);
    mosquitto_message_callback_set(session.client, message_cb);
    if (!open_session(address, filters, error)) {
        session_close();
        return false;
    }
    return true;
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
