#include "broker/session.h"

#include "broker/signals.h"
#include "topics.h"

#include <fmt/core.h>
#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <poll.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

namespace
{

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int KEEPALIVE_SECONDS = 10;
constexpr std::chrono::seconds ANSWER_TIME(5);
constexpr milliseconds MAX_IDLE(1000); // the keepalive has to be looked after
// What a broker has retained comes in one burst. At QoS 1 a broker waits for acknowledgements of it; at QoS 0 it is bound
// by the socket alone, unless max_queued_messages has a limit: beyond it what the socket doesn't take is dropped.
constexpr int SUBSCRIPTION_QOS = 0;
constexpr int PUBLISH_QOS = 1;
// A topic that never has a retained value; see barrier::REQUESTS.
constexpr const char *BARRIER_FILTER = RESPONSE_TOPIC;

// A subscription that nobody has: its end is acknowledged all the same, whatever one may read.
constexpr const char *SIGN_OF_LIFE_FILTER = "pub/diag/nothing";

constexpr int NO_ANSWER = -1;
constexpr int REFUSED_SUBSCRIPTION = 0x80;

// The library's connection attempt has no limit of its own, and a host that isn't there would keep it for minutes: an
// alarm interrupts it, once for each of the host's addresses.
int connect_in_time(mosquitto *client, const broker_address &address)
{
    struct sigaction interrupt = {};
    struct sigaction before = {};
    interrupt.sa_handler = [](int) {};
    sigaction(SIGALRM, &interrupt, &before);
    const itimerval limit = {{ANSWER_TIME.count(), 0}, {ANSWER_TIME.count(), 0}};
    setitimer(ITIMER_REAL, &limit, nullptr);
    const int result = mosquitto_connect(client, address.host.c_str(), address.port, KEEPALIVE_SECONDS);
    const int cause = errno;
    const itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    errno = cause;
    return result;
}

struct library_user {
    library_user() { mosquitto_lib_init(); }
    ~library_user() { mosquitto_lib_cleanup(); }
};

mosquitto *new_client(session *owner)
{
    static const library_user library;
    return mosquitto_new(nullptr, true, owner);
}

[[noreturn]] void report_no_broker(const broker_address &address, const std::string &reason)
{
    throw failure(
        STATUS_NO_BROKER,
        fmt::format("no broker at {}: {}\n"
                    "Is it running there? Name another with --host and --port, or DIAG_HOST and DIAG_PORT.",
                    address.text(), reason));
}

} // namespace

void set_login(mosquitto *client, const broker_login &login)
{
    if (!login.user.empty()) {
        mosquitto_username_pw_set(client, login.user.c_str(), login.password.c_str());
    }
    if (!login.ca_file.empty() && mosquitto_tls_set(client, login.ca_file.c_str(), nullptr, nullptr, nullptr,
                                                    nullptr) != MOSQ_ERR_SUCCESS) {
        throw failure(STATUS_FAILURE, fmt::format("couldn't read the certificate in {}", login.ca_file));
    }
}

std::string reason_of(int result)
{
    if (result == MOSQ_ERR_KEEPALIVE) { // the library has no words for it
        return "it does not answer";
    }
    return result == MOSQ_ERR_ERRNO ? strerror(errno) : mosquitto_strerror(result);
}

std::string sign_of_life::words()
{
    return fmt::format("no word from it for {:.0f} s",
                       std::chrono::duration<double>(SILENCE + ANSWER_TIME).count());
}

session::session(broker_address broker, const signal_input *watched, retain_flags wanted,
                 std::span<wait_input> always)
    : where(std::move(broker)), flags(wanted), standing(always), client(new_client(this), mosquitto_destroy),
      signals(watched), connect_answer(NO_ANSWER)
{
    if (client == nullptr) {
        report_no_broker(where, strerror(errno));
    }
    if (flags == retain_flags::AS_PUBLISHED) {
        mosquitto_int_option(client.get(), MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    }
    set_login(client.get(), where.login);
    install_callbacks();
    connect();
}

// Sends what is pending, as far as the socket takes it.
session::~session()
{
    mosquitto_disconnect(client.get());
}

void session::install_callbacks()
{
    mosquitto_connect_callback_set(client.get(), [](mosquitto *, void *owner, int answer) {
        static_cast<session *>(owner)->connect_answer = answer;
    });
    mosquitto_subscribe_callback_set(
        client.get(), [](mosquitto *, void *owner, int, int count, const int *granted) {
            auto &self = *static_cast<session *>(owner);
            for (int i = 0; i < count; i++) {
                self.subscriptions_granted += granted[i] < REFUSED_SUBSCRIPTION ? 1U : 0U;
                self.is_subscription_refused |= granted[i] >= REFUSED_SUBSCRIPTION;
            }
        });
    mosquitto_message_callback_set(client.get(),
                                   [](mosquitto *, void *owner, const mosquitto_message *message) {
                                       static_cast<session *>(owner)->handle(*message);
                                   });
    mosquitto_publish_callback_set(client.get(), [](mosquitto *, void *owner, int) {
        static_cast<session *>(owner)->publications_pending--;
    });
}

// An exception must not pass through the library.
void session::handle(const mosquitto_message &message) noexcept
{
    const std::span<const uint8_t> payload(static_cast<const uint8_t *>(message.payload),
                                           static_cast<size_t>(message.payloadlen));
    try {
        static_cast<void>(std::any_of(handlers.begin(), handlers.end(), [&](const message_handler &handler) {
            return handler(message.topic, payload, message.retain);
        }));
    } catch (...) {
        handler_failure = std::current_exception();
    }
}

void session::connect()
{
    const int result = connect_in_time(client.get(), where);
    if (result == MOSQ_ERR_ERRNO && errno == EINTR) {
        report_no_broker(where, fmt::format("no connection within {} s", ANSWER_TIME.count()));
    }
    if (result != MOSQ_ERR_SUCCESS) {
        report_no_broker(where, reason_of(result));
    }
    wait_for_answer([&] { return connect_answer != NO_ANSWER; });
    if (connect_answer > 0) {
        report_no_broker(where, mosquitto_connack_string(connect_answer));
    }
}

void session::listen(message_handler handler)
{
    handlers.push_back(std::move(handler));
}

void session::subscribe(const std::vector<std::string> &filters)
{
    grant(filters);
    grant(std::vector<std::string>(barrier::REQUESTS, BARRIER_FILTER));
    is_open = true;
}

void session::grant(const std::vector<std::string> &filters)
{
    subscriptions_granted = 0;
    for (const std::string &filter : filters) {
        const int options = flags == retain_flags::AS_PUBLISHED ? MQTT_SUB_OPT_RETAIN_AS_PUBLISHED : 0;
        const int result =
            mosquitto_subscribe_v5(client.get(), nullptr, filter.c_str(), SUBSCRIPTION_QOS, options, nullptr);
        if (result != MOSQ_ERR_SUCCESS) {
            report_lost(reason_of(result));
        }
    }
    wait_for_answer([&] { return is_subscription_refused || subscriptions_granted == filters.size(); });
    if (is_subscription_refused) {
        report_lost("it refuses the subscription");
    }
}

void session::wait_for_answer(const std::function<bool()> &is_done)
{
    switch (wait(is_done, ANSWER_TIME)) {
    case wait_end::DONE:
        break;
    case wait_end::TIMEOUT:
        report_lost("it does not answer");
    case wait_end::INTERRUPTED:
        report_lost("interrupted");
    }
}

void session::publish(const std::string &topic, std::span<const uint8_t> payload, bool is_retained)
{
    const int result =
        mosquitto_publish(client.get(), nullptr, topic.c_str(), static_cast<int>(payload.size()),
                          payload.data(), PUBLISH_QOS, is_retained);
    if (result != MOSQ_ERR_SUCCESS) {
        report_lost(reason_of(result));
    }
    publications_pending++;
}

void session::watch(const signal_input &watched, std::function<bool(int)> take)
{
    signals = &watched;
    decide_signal = std::move(take);
}

bool session::take_signal()
{
    const int number = signals->take();
    if (decide_signal) {
        return number != 0 && decide_signal(number);
    }
    return number != 0 && number != SIGWINCH && number != SIGTSTP;
}

wait_end session::wait(const std::function<bool()> &is_done, milliseconds limit, std::span<wait_input> inputs)
{
    const auto start = steady_clock::now();
    while (next_look = MAX_IDLE, !is_done()) {
        const auto left = limit - std::chrono::duration_cast<milliseconds>(steady_clock::now() - start);
        if (left.count() <= 0) {
            return wait_end::TIMEOUT;
        }
        if (!look(std::min({left, next_look, MAX_IDLE}), inputs)) {
            return wait_end::INTERRUPTED;
        }
    }
    return wait_end::DONE;
}

// Waits for the next thing that happens; false when a signal is to end the wait.
bool session::look(milliseconds limit, std::span<wait_input> inputs)
{
    const int write_event = mosquitto_want_write(client.get()) ? POLLOUT : 0;
    std::vector<pollfd> fds = {
        {mosquitto_socket(client.get()), static_cast<short>(POLLIN | write_event), 0},
        {signals == nullptr ? -1 : signals->descriptor(), POLLIN, 0},
    };
    for (const auto &group : {standing, inputs}) {
        for (const wait_input &input : group) {
            fds.push_back({input.descriptor, POLLIN, 0});
        }
    }
    limit = std::min(limit, look_for_life());
    if (poll(fds.data(), fds.size(), static_cast<int>(limit.count())) == -1) {
        if (errno != EINTR) {
            report_lost(strerror(errno));
        }
        return true;
    }
    if (fds[1].revents != 0 && take_signal()) {
        return false;
    }
    auto polled = fds.begin() + 2;
    for (const auto &group : {standing, inputs}) {
        for (wait_input &input : group) {
            if ((polled++)->revents != 0) {
                input.take();
            }
        }
    }
    serve(fds[0].revents);
    return true;
}

// Asks for a sign of life when it is time; the time until it is to be looked at again.
milliseconds session::look_for_life()
{
    if (!is_life_expected) {
        return milliseconds::max();
    }
    const auto now = steady_clock::now();
    if (!asked_for_life && now - heard > sign_of_life::SILENCE) {
        asked_for_life = now;
        mosquitto_unsubscribe(client.get(), nullptr, SIGN_OF_LIFE_FILTER);
    }
    const auto due =
        asked_for_life ? *asked_for_life + sign_of_life::ANSWER_TIME : heard + sign_of_life::SILENCE;
    return std::max(milliseconds(0), std::chrono::ceil<milliseconds>(due - now) + milliseconds(1));
}

void session::serve(short events)
{
    int result = MOSQ_ERR_SUCCESS;
    if ((events & (POLLIN | POLLHUP | POLLERR)) != 0) {
        heard = steady_clock::now();
        asked_for_life.reset();
        result = mosquitto_loop_read(client.get(), 1);
    } else if (asked_for_life && steady_clock::now() - *asked_for_life > sign_of_life::ANSWER_TIME) {
        report_lost(sign_of_life::words());
    }
    if (result == MOSQ_ERR_SUCCESS && mosquitto_want_write(client.get())) {
        result = mosquitto_loop_write(client.get(), 1);
    }
    if (result == MOSQ_ERR_SUCCESS) {
        result = mosquitto_loop_misc(client.get());
    }
    if (handler_failure) {
        std::rethrow_exception(std::exchange(handler_failure, nullptr));
    }
    if (result != MOSQ_ERR_SUCCESS && connect_answer <= 0) {
        report_lost(reason_of(result));
    }
}

void session::report_lost(const std::string &reason) const
{
    if (!is_open) {
        report_no_broker(where, reason);
    }
    throw failure(STATUS_NO_BROKER, fmt::format("lost the broker at {}: {}", where.text(), reason));
}
