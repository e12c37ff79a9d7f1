#include "broker.h"

#include "common/lumlog.h"
#include "common/record_list.h"
#include "common/text.h"
#include "common/unique_fd.h"
#include "event.h"
#include "timer.h"
#include "utils.h"

#include <mosquitto.h>
#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>
// An index that finds no memory fails like the allocation of the record that it is for.
#define HASH_NONFATAL_OOM 1
#include <uthash.h>
#include <utlist.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

namespace
{

// Operators search for the messages of this file as they are, "couldn't allocation" included.
constexpr const char *log_source = "broker";

constexpr const char *CLIENT_ID = "diag";
constexpr const char *BROKER_ADDRESS = "127.0.0.1";
constexpr int BROKER_PORT = 1885;
constexpr int KEEPALIVE_S = 10;
constexpr int QOS = 1;
constexpr const char *WILDCARDS = "+#";
constexpr timespec CONNECT_RETRY_DELAY = {.tv_sec = 0, .tv_nsec = 50'000'000};
constexpr int CONNECT_POLL_MS = 50;
constexpr int CONNECT_LIMIT_S = 5;
constexpr int DISCONNECT_POLL_MS = 20;
constexpr int DISCONNECT_LIMIT_S = 1;
constexpr timer_names MAINTENANCE = {"maintenance", "mosquitto maintenance"};
constexpr itimerspec MAINTENANCE_PERIOD = {.it_interval = {.tv_sec = 0, .tv_nsec = 500'000'000},
                                           .it_value = {.tv_sec = 0, .tv_nsec = 500'000'000}};
constexpr time_t RETRY_AFTER_S = 1;
constexpr unsigned MAX_RETRIES = 3;

// A publication that the broker has not acknowledged yet.
struct publication {
    int mid; // of the last sending
    std::unique_ptr<char[]> topic;
    std::unique_ptr<uint8_t[]> payload; // null when the length is 0
    size_t length;
    bool retain;
    timespec sent; // monotonic time of the last sending
    unsigned retries;
    publication *prev;
    publication *next;
    UT_hash_handle hh;
};

struct subscription {
    int mid; // of the last SUBSCRIBE
    std::unique_ptr<char[]> filter;
    std::string_view head; // of the filter: every topic that matches begins so ...
    std::string_view tail; // ... and ends so
    uint64_t number;       // the newer, the larger
    broker_callback callback;
    void *arg;
    bool acknowledged;
    bool removed;  // to be released, which waits for the end of a running dispatch
    timespec sent; // monotonic time of the last SUBSCRIBE
    unsigned retries;
    subscription *prev;
    subscription *next;
    subscription *next_asked; // in asked_subscriptions
    UT_hash_handle hh;        // in subscriptions_by_filter

    bool is_indexed() const { return hh.tbl != nullptr; }
};

mosquitto *mosq;
bool connected;
bool dispatching; // message_cb walks the subscriptions: none may be released
bool has_removed_subscriptions;
record_list<publication> pending_publish;
publication *publications_by_id; // the same by the mid of their last sending
record_list<subscription> subscriptions;
// Here a message finds the one whose filter is its topic, so that the many of one port cost other messages
// nothing ...
subscription *subscriptions_by_filter;
// ... and these it asks one by one, newest first: those with wildcards, and whatever repeats a filter.
subscription *asked_subscriptions;
uint64_t num_subscriptions; // ever made

bool is_done_or_interrupted(int result)
{
    return result == MOSQ_ERR_SUCCESS || (result == MOSQ_ERR_ERRNO && errno == EINTR);
}

bool has_wildcard(const char *text)
{
    return strpbrk(text, WILDCARDS) != nullptr;
}

//
// Publications
//

int send_publication(publication &record)
{
    return mosquitto_publish(mosq, &record.mid, record.topic.get(), static_cast<int>(record.length),
                             record.payload.get(), QOS, record.retain);
}

// More than 65,535 sendings may wait at once and then share ids: each acknowledgement settles one of them.
int index_publication(publication &record)
{
    HASH_ADD_KEYPTR_BYHASHVALUE(hh, publications_by_id, &record.mid, sizeof record.mid,
                                static_cast<unsigned>(record.mid), &record);
    if (record.hh.tbl == nullptr) {
        return log_failure("couldn't allocate publication structure");
    }
    return 0;
}

int publish(const char *topic, const void *payload, size_t length, bool retain)
{
    std::unique_ptr<publication> record(new (std::nothrow) publication{});
    if (!record) {
        return log_failure("couldn't allocate publication structure");
    }
    record->topic = copy_text(topic);
    if (!record->topic) {
        return log_failure("couldn't duplicate topic string");
    }
    if (length > 0) {
        if (payload == nullptr) {
            return log_failure("invalid message length");
        }
        record->payload = copy_bytes(payload, length);
        if (!record->payload) {
            return log_failure("couldn't allocate message copy");
        }
    }
    record->length = length;
    record->retain = retain;
    if (get_time(record->sent, log_source) == -1) {
        return -1;
    }
    const int result = send_publication(*record);
    if (result != MOSQ_ERR_SUCCESS) {
        return log_failure("couldn't publish message on topic %s (%s)", topic, mosquitto_strerror(result));
    }
    if (index_publication(*record) == -1) {
        return -1;
    }
    pending_publish.add(std::move(record));
    return 0;
}

// An acknowledgement of an earlier sending finds nothing.
void publish_cb(mosquitto *, void *, int mid)
{
    publication *record;
    HASH_FIND_BYHASHVALUE(hh, publications_by_id, &mid, sizeof mid, static_cast<unsigned>(mid), record);
    if (record != nullptr) {
        HASH_DEL(publications_by_id, record);
        pending_publish.remove(*record);
    }
}

} // namespace

int broker_publish(const char *topic, const void *payload, size_t length)
{
    if (check_arguments(topic != nullptr && payload != nullptr, log_source) == -1) {
        return -1;
    }
    return publish(topic, payload, length, true);
}

int broker_publish_unretained(const char *topic, const void *payload, size_t length)
{
    if (check_arguments(topic != nullptr && payload != nullptr, log_source) == -1) {
        return -1;
    }
    return publish(topic, payload, length, false);
}

int broker_unpublish(const char *topic)
{
    if (check_arguments(topic != nullptr, log_source) == -1) {
        return -1;
    }
    return publish(topic, nullptr, 0, true);
}

namespace
{

//
// Subscriptions
//

int send_subscription(subscription &record)
{
    const int result = mosquitto_subscribe(mosq, &record.mid, record.filter.get(), QOS);
    if (result != MOSQ_ERR_SUCCESS) {
        return log_failure("couldn't subscribe to topic %s (%s)", record.filter.get(),
                           mosquitto_strerror(result));
    }
    return 0;
}

void subscribe_cb(mosquitto *, void *, int mid, int qos_count, const int *granted_qos)
{
    subscription *record;
    DL_SEARCH_SCALAR(subscriptions.newest(), record, mid, mid);
    if (record == nullptr) {
        return;
    }
    record->acknowledged = true;
    for (int i = 0; i < qos_count; i++) {
        if (granted_qos[i] != QOS) {
            log_error("granted QoS is wrong (%d, should be %d)", granted_qos[i], QOS);
            terminate();
            return;
        }
    }
}

// The library takes long to find that a filter does not match, which hardly any does.
void set_head_and_tail(subscription &record)
{
    const std::string_view filter = record.filter.get();
    record.head = filter.substr(0, filter.find_first_of(WILDCARDS));
    record.tail = filter.substr(filter.find_last_of(WILDCARDS) + 1);
    if (filter.ends_with("/#") && record.head.ends_with('/')) {
        record.head.remove_suffix(1); // PARENT/# matches PARENT too
    }
}

subscription *find_subscription(std::string_view filter)
{
    subscription *record;
    HASH_FIND(hh, subscriptions_by_filter, filter.data(), filter.size(), record);
    return record;
}

// Makes the dispatch know a new subscription.
int index_subscription(subscription &record)
{
    const std::string_view filter = record.filter.get();
    if (has_wildcard(filter.data()) || find_subscription(filter) != nullptr) {
        LL_PREPEND2(asked_subscriptions, &record, next_asked);
        return 0;
    }
    HASH_ADD_KEYPTR(hh, subscriptions_by_filter, filter.data(), filter.size(), &record);
    if (!record.is_indexed()) {
        return log_failure("couldn't allocation subscription structure");
    }
    return 0;
}

void release_removed_subscriptions()
{
    if (!std::exchange(has_removed_subscriptions, false)) {
        return;
    }
    for (subscription &record : subscriptions) {
        if (!record.removed) {
            continue;
        }
        if (record.is_indexed()) {
            HASH_DEL(subscriptions_by_filter, &record);
        } else {
            LL_DELETE2(asked_subscriptions, &record, next_asked);
        }
        subscriptions.remove(record);
    }
}

} // namespace

int broker_subscribe(const char *filter, broker_callback callback, void *arg)
{
    if (check_arguments(filter != nullptr && callback != nullptr, log_source) == -1) {
        return -1;
    }
    std::unique_ptr<subscription> record(new (std::nothrow) subscription{});
    if (!record) {
        return log_failure("couldn't allocation subscription structure");
    }
    record->filter = copy_text(filter);
    if (!record->filter) {
        return log_failure("couldn't duplicate topic string");
    }
    set_head_and_tail(*record);
    record->number = ++num_subscriptions;
    record->callback = callback;
    record->arg = arg;
    if (get_time(record->sent, log_source) == -1) {
        return -1;
    }
    if (send_subscription(*record) == -1 || index_subscription(*record) == -1) {
        return -1;
    }
    subscriptions.add(std::move(record));
    return 0;
}

int broker_unsubscribe(const char *filter)
{
    if (check_arguments(filter != nullptr, log_source) == -1) {
        return -1;
    }
    for (subscription &record : subscriptions) {
        if (strcmp(record.filter.get(), filter) == 0) {
            record.removed = true;
            has_removed_subscriptions = true;
        }
    }
    if (!dispatching) {
        release_removed_subscriptions();
    }
    const int result = mosquitto_unsubscribe(mosq, nullptr, filter);
    if (result != MOSQ_ERR_SUCCESS) {
        return log_failure("couldn't unsubscribe from topic %s (%s)", filter, mosquitto_strerror(result));
    }
    return 0;
}

namespace
{

//
// Dispatch
//

// Whether the filter matches the topic. That the library can't tell ends the daemon: -1.
int ask(const subscription &record, const char *topic, bool &matches_out)
{
    if (mosquitto_topic_matches_sub(record.filter.get(), topic, &matches_out) != MOSQ_ERR_SUCCESS) {
        log_error("couldn't check if topic %s matches %s", topic, record.filter.get());
        terminate();
        return -1;
    }
    return 0;
}

// A topic with wildcards matches nothing. It is a fault where the library gets as far as the wildcard, so
// that every subscription is asked.
void refuse_topic(const char *topic)
{
    for (const subscription &record : subscriptions) {
        bool matches = false;
        if (ask(record, topic, matches) == -1 || is_terminated()) {
            return;
        }
    }
}

// Takes the newer one of the record that was found by its filter, if any, and the next of those to ask.
subscription *take_newer(subscription *&found, subscription *&asked)
{
    if (found != nullptr && (asked == nullptr || found->number > asked->number)) {
        return std::exchange(found, nullptr);
    }
    return std::exchange(asked, asked->next_asked);
}

// Calls the subscriptions that match, the newest first. A callback may subscribe, which puts records in front
// of those that are still to come, and unsubscribe, which only marks records until the dispatch is over.
void dispatch(const mosquitto_message &message)
{
    const std::string_view topic = message.topic;
    const subscription *const newest = subscriptions.newest();
    subscription *found = find_subscription(topic);
    subscription *asked = asked_subscriptions;
    while (found != nullptr || asked != nullptr) {
        const subscription *const record = take_newer(found, asked);
        // Nobody but the newest is called once the end has been requested, be it before this message.
        if (record != newest && is_terminated()) {
            return;
        }
        bool matches = record->is_indexed();
        if (!matches && topic.starts_with(record->head) && topic.ends_with(record->tail) &&
            ask(*record, message.topic, matches) == -1) {
            return;
        }
        if (matches && !record->removed) {
            record->callback(message.topic, message.payload, message.payloadlen, record->arg);
        }
    }
}

void message_cb(mosquitto *, void *, const mosquitto_message *message)
{
    dispatching = true;
    if (has_wildcard(message->topic)) {
        refuse_topic(message->topic);
    } else {
        dispatch(*message);
    }
    dispatching = false;
    release_removed_subscriptions();
}

//
// The socket
//

int read_input()
{
    const int result = mosquitto_loop_read(mosq, 1);
    if (!is_done_or_interrupted(result)) {
        return log_failure("couldn't carry out read operations (%s)", mosquitto_strerror(result));
    }
    return 0;
}

int write_output()
{
    const int result = mosquitto_loop_write(mosq, 1);
    if (!is_done_or_interrupted(result)) {
        return log_failure("couldn't carry out write operations (%s)", mosquitto_strerror(result));
    }
    return 0;
}

void socket_cb(int, uint32_t events, void *)
{
    if (event_check(events, log_source) == -1 || read_input() == -1) {
        terminate();
        return;
    }
    // What callbacks published stays in the library's queue until its next write. One write now carries it to
    // the broker at once; what a full socket leaves waits for the maintenance tick.
    if (mosquitto_want_write(mosq) && write_output() == -1) {
        terminate();
    }
}

//
// Maintenance
//

bool is_due_for_retry(const timespec &now, const timespec &sent)
{
    return timespec_diff(&now, &sent).tv_sec >= RETRY_AFTER_S;
}

bool is_acknowledged(const publication &)
{
    return false; // those that are have been released
}

bool is_acknowledged(const subscription &record)
{
    return record.acknowledged;
}

// Under a new id.
int send_again(publication &record)
{
    HASH_DEL(publications_by_id, &record);
    const int result = send_publication(record);
    if (result != MOSQ_ERR_SUCCESS) {
        return log_failure("couldn't retry publish on topic %s (%s)", record.topic.get(),
                           mosquitto_strerror(result));
    }
    return index_publication(record);
}

int send_again(subscription &record)
{
    return send_subscription(record);
}

void report_given_up(const publication &record)
{
    log_error("publish on topic %s still failed after maximum number of retries, exiting",
              record.topic.get());
}

void report_given_up(const subscription &record)
{
    log_error("subscription on topic %s still failed after maximum number of retries, exiting",
              record.filter.get());
}

// Sends again what waits for longer than a second; gives up at the first record that was sent four times.
template <typename Record>
int retry(const record_list<Record> &records, const char *failure)
{
    timespec now;
    if (get_time(now, log_source) == -1) {
        return log_failure("%s", failure);
    }
    for (Record &record : records) {
        if (is_acknowledged(record) || !is_due_for_retry(now, record.sent)) {
            continue;
        }
        if (record.retries >= MAX_RETRIES) {
            report_given_up(record);
            terminate();
            return 0;
        }
        if (send_again(record) == -1) {
            return log_failure("%s", failure);
        }
        record.retries++;
        record.sent = now;
    }
    return 0;
}

// A broker that doesn't read fills the socket; the library then reports success with its output still
// pending.
bool is_socket_writable()
{
    pollfd socket = {.fd = mosquitto_socket(mosq), .events = POLLOUT, .revents = 0};
    return poll(&socket, 1, 0) == 1;
}

int maintain(int fd, uint32_t events)
{
    if (timer_take(fd, events, MAINTENANCE, log_source) == -1) {
        return -1;
    }
    const int result = mosquitto_loop_misc(mosq);
    if (result != MOSQ_ERR_SUCCESS) {
        return log_failure("error while performing maintenance (%s)", mosquitto_strerror(result));
    }
    while (mosquitto_want_write(mosq) && is_socket_writable()) {
        if (write_output() == -1) {
            return -1;
        }
    }
    if (retry(pending_publish, "error while checking pending publish operations") == -1) {
        return -1;
    }
    return retry(subscriptions, "error while checking pending subscriptions");
}

void maintenance_cb(int fd, uint32_t events, void *)
{
    if (maintain(fd, events) == -1) {
        close(fd);
        terminate();
    }
}

//
// Session
//

int add_events()
{
    const int socket = mosquitto_socket(mosq);
    if (socket == -1) {
        return log_failure("couldn't get mosquitto socket file descriptor");
    }
    if (event_add(socket, EPOLLIN, socket_cb, nullptr) == -1) {
        return log_failure("couldn't add mosquitto socket handling events");
    }
    unique_fd timer;
    if (timer_start(timer, MAINTENANCE, MAINTENANCE_PERIOD, maintenance_cb, nullptr, log_source) == -1) {
        static_cast<void>(event_remove(socket));
        return -1;
    }
    timer.release(); // open until the process ends or a tick fails
    return 0;
}

void connect_cb(mosquitto *, void *, int code)
{
    if (code != 0) {
        log_error("broker connection refused (code %d)", code);
        terminate();
    } else if (add_events() == -1) {
        log_error("couldn't add mosquitto events to event loop");
        terminate();
    } else {
        connected = true;
    }
}

void disconnect_cb(mosquitto *, void *, int code)
{
    if (code != 0) {
        log_error("unexpected disconnect from broker (code %d)", code);
        terminate();
    } else {
        connected = false;
    }
}

// Runs the library until the session is connected, or is not, as wanted. While it waits for the connection, a
// request to terminate ends the wait like a success.
int wait_for_connected(bool wanted, int poll_ms, int limit_s)
{
    const timespec limit = {.tv_sec = limit_s, .tv_nsec = 0};
    timespec start;
    if (get_time(start, log_source) == -1) {
        return -1;
    }
    while (connected != wanted) {
        if (wanted && is_terminated()) {
            return 0;
        }
        const int result = mosquitto_loop(mosq, poll_ms, 1);
        if (!is_done_or_interrupted(result)) {
            return log_failure("error while running the mosquitto loop (%s)", mosquitto_strerror(result));
        }
        timespec now;
        if (get_time(now, log_source) == -1) {
            return -1;
        }
        const timespec elapsed = timespec_diff(&now, &start);
        if (timespec_cmp(&elapsed, &limit) > 0) {
            return log_failure("mosquitto client status change timed out");
        }
    }
    return 0;
}

void destroy_client()
{
    mosquitto_destroy(mosq);
    mosquitto_lib_cleanup();
    mosq = nullptr;
}

} // namespace

int broker_connect()
{
    if (mosq != nullptr) {
        return log_failure("already connected to the broker");
    }
    mosquitto_lib_init();
    mosq = mosquitto_new(CLIENT_ID, true, nullptr);
    if (mosq == nullptr) {
        log_error("couldn't create mosquitto instance (errno %d)", errno);
        mosquitto_lib_cleanup();
        return -1;
    }
    mosquitto_connect_callback_set(mosq, connect_cb);
    mosquitto_disconnect_callback_set(mosq, disconnect_cb);
    mosquitto_publish_callback_set(mosq, publish_cb);
    mosquitto_subscribe_callback_set(mosq, subscribe_cb);
    mosquitto_message_callback_set(mosq, message_cb);
    // An acknowledgement followed by a publication would otherwise wait some 40 ms for the broker's delayed
    // acknowledgement of the first segment.
    mosquitto_int_option(mosq, MOSQ_OPT_TCP_NODELAY, 1);

    while (!is_terminated()) {
        const int result = mosquitto_connect(mosq, BROKER_ADDRESS, BROKER_PORT, KEEPALIVE_S);
        if (result == MOSQ_ERR_SUCCESS) {
            break;
        }
        if (result != MOSQ_ERR_ERRNO || errno != ECONNREFUSED) {
            log_error("couldn't request mosquitto connection (%s)", mosquitto_strerror(result));
            destroy_client();
            return -1;
        }
        nanosleep(&CONNECT_RETRY_DELAY, nullptr);
    }
    if (wait_for_connected(true, CONNECT_POLL_MS, CONNECT_LIMIT_S) == -1) {
        log_error("couldn't connect mosquitto instance");
        destroy_client();
        return -1;
    }
    return 0;
}

int broker_disconnect()
{
    const int result = mosquitto_disconnect(mosq);
    if (result != MOSQ_ERR_SUCCESS) {
        return log_failure("couldn't request mosquitto disconnect (%s)", mosquitto_strerror(result));
    }
    if (wait_for_connected(false, DISCONNECT_POLL_MS, DISCONNECT_LIMIT_S) == -1) {
        return log_failure("couldn't disconnect mosquitto instance");
    }
    destroy_client();
    return 0;
}
