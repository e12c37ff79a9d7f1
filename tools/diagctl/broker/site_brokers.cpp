#include "broker/site_brokers.h"

#include "broker/signals.h"

#include <fmt/core.h>
#include <mosquitto.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

namespace
{

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr int KEEPALIVE_SECONDS = 10;
constexpr seconds CONNECT_MAX(3);  // the library doesn't tell of a refused connection with TLS
constexpr seconds SILENCE_MAX(10); // of a broker that is asked for what it has retained
constexpr milliseconds LOOK(100);
constexpr int QOS = 0; // see session.cpp
constexpr int PUBLISH_QOS = 1;
constexpr seconds RETRY(2);
constexpr int LOOP_MS = 1000;
// A topic on which nobody publishes; see barrier::REQUESTS.
constexpr const char *BARRIER_FILTER = "cards/barrier";
// A subscription that nobody has: its end is acknowledged all the same, whatever one may read. While a broker sends what it
// has, this also keeps the library from asking with its keepalive: the answer to that would come behind everything, and
// after twenty seconds without it the library ends the connection, so that a slow line never got to the end.
constexpr const char *SIGN_OF_LIFE_FILTER = "cards/nothing";
constexpr int REFUSED_SUBSCRIPTION = 0x80;

bool has_failed(int socket)
{
    pollfd looked = {socket, 0, 0};
    return poll(&looked, 1, 0) == 1 && (looked.revents & (POLLERR | POLLHUP)) != 0;
}

} // namespace

site_brokers::site_brokers(const std::vector<broker_address> &addresses, const broker_login &login,
                           std::vector<std::string> wanted, listener given)
    : filters(std::move(wanted)), handlers(std::move(given)), event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    mosquitto_lib_init();
    for (const broker_address &address : addresses) {
        links.push_back({.owner = this, .index = links.size(), .where = address});
    }
    for (link &opened : links) {
        open(opened, login);
    }
}

site_brokers::~site_brokers()
{
    {
        const auto guard = lock();
        is_ending = true;
    }
    ending.notify_all();
    for (link &closed : links) {
        mosquitto_disconnect(closed.client);
        if (closed.server.joinable()) {
            closed.server.join();
        }
        mosquitto_destroy(closed.client);
    }
    close(event);
    mosquitto_lib_cleanup();
}

void site_brokers::open(link &opened, const broker_login &login)
{
    opened.client = mosquitto_new(nullptr, true, &opened);
    if (opened.client == nullptr) {
        throw failure(STATUS_FAILURE, strerror(errno));
    }
    set_login(opened.client, login);
    mosquitto_threaded_set(opened.client, true);
    mosquitto_connect_callback_set(opened.client, [](mosquitto *, void *user, int refused) {
        link &self = *static_cast<link *>(user);
        const auto guard = self.owner->lock();
        if (refused != 0) {
            self.owner->set_state(self, state::AWAY, mosquitto_connack_string(refused));
            return;
        }
        self.owner->set_state(self, state::LOADING);
        self.owner->ask(self, self.owner->filters);
    });
    mosquitto_disconnect_callback_set(opened.client, [](mosquitto *, void *user, int result) {
        link &self = *static_cast<link *>(user);
        const auto guard = self.owner->lock();
        self.is_silent = false;
        if (self.now != state::AWAY) {
            self.owner->set_state(self, state::AWAY, reason_of(result));
        }
    });
    mosquitto_unsubscribe_callback_set(opened.client, [](mosquitto *, void *user, int) {
        link &self = *static_cast<link *>(user);
        const auto guard = self.owner->lock();
        self.owner->hear(self);
    });
    mosquitto_subscribe_callback_set(
        opened.client, [](mosquitto *, void *user, int request, int count, const int *granted) {
            link &self = *static_cast<link *>(user);
            const auto guard = self.owner->lock();
            if (std::any_of(granted, granted + count,
                            [](int answer) { return answer >= REFUSED_SUBSCRIPTION; })) {
                self.awaited = 0;
                self.owner->set_state(self, state::AWAY, "it refuses the subscription");
            } else if (request == self.awaited && !self.is_behind_barrier) {
                self.is_behind_barrier = true;
                self.heard = steady_clock::now();
                for (size_t i = 0; i < barrier::REQUESTS; i++) {
                    mosquitto_subscribe(self.client, &self.awaited, BARRIER_FILTER, QOS);
                }
            } else if (request == self.awaited) {
                self.awaited = 0;
                self.owner->wake();
                if (self.now != state::THERE) { // it may have been given up for its silence
                    self.owner->set_state(self, state::THERE);
                }
            }
        });
    mosquitto_message_callback_set(
        opened.client, [](mosquitto *, void *user, const mosquitto_message *message) {
            link &self = *static_cast<link *>(user);
            const auto guard = self.owner->lock();
            self.owner->hear(self);
            self.owner->handlers.message(
                self.index, message->topic,
                {static_cast<const uint8_t *>(message->payload), static_cast<size_t>(message->payloadlen)},
                message->retain);
            if (self.now == state::THERE) {
                self.owner->wake();
            }
        });
    opened.heard = steady_clock::now();
    const int result = mosquitto_connect_async(opened.client, opened.where.host.c_str(), opened.where.port,
                                               KEEPALIVE_SECONDS);
    if (result != MOSQ_ERR_SUCCESS) {
        set_state(opened, state::AWAY, reason_of(result));
    }
    opened.server = std::thread([this, &opened] { serve(opened); });
}

// The library's own thread is no use: with TLS it ends for good when a connection breaks, and keeps a core busy with one that
// was refused, of which it says nothing.
void site_brokers::serve(link &served)
{
    for (;;) {
        const int result = mosquitto_loop(served.client, LOOP_MS, 1);
        const std::string reason = result == MOSQ_ERR_SUCCESS ? "no connection" : reason_of(result);
        auto guard = lock();
        if (is_ending) {
            return;
        }
        const bool is_connected =
            served.now == state::LOADING || served.now == state::THERE || served.is_silent;
        if (result == MOSQ_ERR_SUCCESS && (is_connected || !has_failed(mosquitto_socket(served.client)))) {
            continue;
        }
        if (served.now == state::CONNECTING) {
            set_state(served, state::AWAY, reason);
        }
        if (ending.wait_for(guard, RETRY, [this] { return is_ending; })) {
            return;
        }
        guard.unlock();
        mosquitto_reconnect_async(served.client);
    }
}

void site_brokers::ask(link &asked, std::span<const std::string> wanted)
{
    asked.is_behind_barrier = false;
    asked.heard = asked.told = steady_clock::now();
    for (const std::string &filter : wanted) {
        mosquitto_subscribe(asked.client, &asked.awaited, filter.c_str(), QOS);
    }
}

void site_brokers::set_state(link &changed, state now, const std::string &reason)
{
    changed.now = now;
    changed.reason = reason;
    changed.heard = steady_clock::now();
    changed.asked.reset();
    handlers.change(changed.index, now);
    wake();
}

void site_brokers::hear(link &from)
{
    from.heard = steady_clock::now();
    from.asked.reset();
    if (std::exchange(from.is_silent, false)) {
        set_state(from, state::THERE); // nothing was missed meanwhile
    }
}

void site_brokers::wake() const
{
    static_cast<void>(eventfd_write(event, 1));
}

bool site_brokers::is_loading(const link &one)
{
    return one.now == state::LOADING || (one.now == state::THERE && one.awaited != 0);
}

// A broker that accepts and then says nothing is given up.
bool site_brokers::is_settled()
{
    const auto guard = lock();
    for (link &one : links) {
        const auto silence = steady_clock::now() - one.heard;
        if (one.now == state::CONNECTING && silence > CONNECT_MAX) {
            set_state(one, state::AWAY, fmt::format("no connection within {} s", CONNECT_MAX.count()));
        } else if (is_loading(one) && silence > SILENCE_MAX) {
            set_state(one, state::AWAY, "it does not answer");
        }
    }
    return std::none_of(links.begin(), links.end(),
                        [](const link &one) { return one.now == state::CONNECTING || is_loading(one); });
}

void site_brokers::look_after()
{
    eventfd_t ignored = 0;
    static_cast<void>(eventfd_read(event, &ignored));
    is_settled();
    std::vector<mosquitto *> silent;
    {
        const auto guard = lock();
        const auto now = steady_clock::now();
        for (link &one : links) {
            const bool is_there = one.now == state::THERE;
            if (is_there && one.asked && now - *one.asked > sign_of_life::ANSWER_TIME) {
                set_state(one, state::AWAY, sign_of_life::words());
                one.is_silent = true;
            } else if (is_there && !one.asked && now - one.heard > sign_of_life::SILENCE) {
                one.asked = now;
                silent.push_back(one.client);
            } else if (is_loading(one) && now - one.told > sign_of_life::SILENCE) {
                one.told = now;
                silent.push_back(one.client);
            }
        }
    }
    for (mosquitto *client : silent) {
        mosquitto_unsubscribe(client, nullptr, SIGN_OF_LIFE_FILTER);
    }
}

void site_brokers::subscribe(const std::vector<std::string> &more, const signal_input &signals)
{
    {
        const auto guard = lock();
        filters.insert(filters.end(), more.begin(), more.end());
        for (link &one : links) {
            if (one.now == state::LOADING || one.now == state::THERE) {
                ask(one, more);
            }
        }
    }
    settle(signals);
}

std::string site_brokers::settle(const signal_input &signals)
{
    while (!is_settled()) {
        if (wait(signals, LOOK) == wait_end::INTERRUPTED) {
            throw failure(STATUS_FAILURE, "interrupted");
        }
    }
    const auto guard = lock();
    std::string reasons;
    for (const link &one : links) {
        if (one.now == state::AWAY) {
            reasons += fmt::format("{}no broker at {}: {}", reasons.empty() ? "" : "\n", one.where.text(),
                                   one.reason);
        }
    }
    if (std::none_of(links.begin(), links.end(), [](const link &one) { return one.now == state::THERE; })) {
        throw failure(STATUS_NO_BROKER, reasons);
    }
    return reasons;
}

void site_brokers::load(const signal_input &signals)
{
    const std::string reasons = settle(signals);
    if (!reasons.empty()) {
        fmt::print(stderr, "diagctl: {}\n", reasons);
    }
}

wait_end site_brokers::wait(const signal_input &signals, milliseconds limit, int other)
{
    pollfd fds[] = {{other == -1 ? event : other, POLLIN, 0}, {signals.descriptor(), POLLIN, 0}};
    const int count = poll(fds, std::size(fds), static_cast<int>(limit.count()));
    if (fds[1].revents != 0) {
        const int number = signals.take();
        if (number != 0 && number != SIGWINCH && number != SIGTSTP) {
            return wait_end::INTERRUPTED;
        }
    }
    look_after();
    return count == 0 ? wait_end::TIMEOUT : wait_end::DONE;
}

wait_end site_brokers::wait(const signal_input &signals, milliseconds limit, const wait_input &input,
                            const std::function<bool(int)> &take_signal)
{
    pollfd fds[] = {{event, POLLIN, 0}, {signals.descriptor(), POLLIN, 0}, {input.descriptor, POLLIN, 0}};
    const int count = poll(fds, std::size(fds), static_cast<int>(limit.count()));
    if (fds[1].revents != 0) {
        for (int number = signals.take(); number != 0; number = signals.take()) {
            if (take_signal(number)) {
                return wait_end::INTERRUPTED;
            }
        }
    }
    if (fds[2].revents != 0) {
        input.take();
    }
    look_after();
    return count == 0 ? wait_end::TIMEOUT : wait_end::DONE;
}

void site_brokers::publish(size_t broker, const std::string &topic, const std::string &payload)
{
    const int result =
        mosquitto_publish(links[broker].client, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                          payload.data(), PUBLISH_QOS, false);
    if (result != MOSQ_ERR_SUCCESS) {
        throw failure(STATUS_NO_BROKER, fmt::format("lost the broker at {}: {}", links[broker].where.text(),
                                                    reason_of(result)));
    }
}
