#include "broker.h"

#include "common/lumlog.h"
#include "common/text.h"
#include "common/unique_fd.h"
#include "event.h"
#include "utils.h"

#include <mosquitto.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
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
    publication *next;
    publication *prev;
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
    subscription *next;
    subscription *next_asked; // in asked_subscriptions
    UT_hash_handle hh;        // in subscriptions_by_filter

    bool is_indexed() const { return hh.tbl != nullptr; }
};

mosquitto *mosq;
bool connected;
bool dispatching; // message_cb walks the subscriptions: none may be released
bool has_removed_subscriptions;
publication *pending_publish;    // newest first
publication *publications_by_id; // the same by the mid of their last sending
subscription *subscriptions;     // newest first
// A message finds the one whose filter is its topic here, so that ports cost the messages of others nothing ...
subscription *subscriptions_by_filter;
// ... and asks these one by one, newest first: those with wildcards, and whatever repeats a filter.
subscription *asked_subscriptions;
uint64_t num_subscriptions; // ever made

bool get_time(timespec &now)
{
    if (clock_gettime(CLOCK_MONOTONIC, &now) == -1) {
        log_error("couldn't get time (errno %d)", errno);
        return false;
    }
    return true;
}

bool is_due_for_retry(const timespec &now, const timespec &sent)
{
    return timespec_diff(&now, &sent).tv_sec >= RETRY_AFTER_S;
}

bool is_done_or_interrupted(int result)
{
    return result == MOSQ_ERR_SUCCESS || (result == MOSQ_ERR_ERRNO && errno == EINTR);
}

int send_publication(publication &record)
{
    return mosquitto_publish(mosq, &record.mid, record.topic.get(), static_cast<int>(record.length),
                             record.payload.get(), QOS, record.retain);
}

// More than 65,535 sendings may wait at once, and then some share an id: each acknowledgement settles one of them.
bool index_publication(publication &record)
{
    HASH_ADD_KEYPTR_BYHASHVALUE(hh, publications_by_id, &record.mid, sizeof record.mid,
                                static_cast<unsigned>(record.mid), &record);
    if (record.hh.tbl == nullptr) {
        log_error("couldn't allocate publication structure");
        return false;
    }
    return true;
}

int publish(const char *topic, const void *payload, size_t length, bool retain)
{
    std::unique_ptr<publication> record(new (std::nothrow) publication{});
    if (!record) {
        log_error("couldn't allocate publication structure");
        return -1;
    }
    record->topic = copy_text(topic);
    if (!record->topic) {
        log_error("couldn't duplicate topic string");
        return -1;
    }
    if (length > 0) {
        if (payload == nullptr) {
            log_error("invalid message length");
            return -1;
        }
        record->payload = copy_bytes(payload, length);
        if (!record->payload) {
            log_error("couldn't allocate message copy");
            return -1;
        }
    }
    record->length = length;
    record->retain = retain;
    if (!get_time(record->sent)) {
        return -1;
    }
    const int result = send_publication(*record);
    if (result != MOSQ_ERR_SUCCESS) {
        log_error("couldn't publish message on topic %s (%s)", topic, mosquitto_strerror(result));
        return -1;
    }
    if (!index_publication(*record)) {
        return -1;
    }
    publication *const added = record.release();
    DL_PREPEND(pending_publish, added);
    return 0;
}

// An acknowledgement of an earlier sending finds nothing.
void publish_cb(mosquitto *, void *, int mid)
{
    publication *record;
    HASH_FIND_BYHASHVALUE(hh, publications_by_id, &mid, sizeof mid, static_cast<unsigned>(mid), record);
    if (record != nullptr) {
        HASH_DEL(publications_by_id, record);
        DL_DELETE(pending_publish, record);
        delete record;
    }
}

// Sends the publication again, under a new id.
bool retry_publication(publication &record)
{
    HASH_DEL(publications_by_id, &record);
    const int result = send_publication(record);
    if (result != MOSQ_ERR_SUCCESS) {
        log_error("couldn't retry publish on topic %s (%s)", record.topic.get(), mosquitto_strerror(result));
        return false;
    }
    return index_publication(record);
}

// False when the maintenance tick has to end here.
bool retry_publications()
{
    timespec now;
    if (!get_time(now)) {
        log_error("error while checking pending publish operations");
        return false;
    }
    publication *record;
    DL_FOREACH (pending_publish, record) {
        if (!is_due_for_retry(now, record->sent)) {
            continue;
        }
        if (record->retries >= MAX_RETRIES) {
            log_error("publish on topic %s still failed after maximum number of retries, exiting",
                      record->topic.get());
            terminate();
            break;
        }
        if (!retry_publication(*record)) {
            log_error("error while checking pending publish operations");
            return false;
        }
        record->retries++;
        record->sent = now;
    }
    return true;
}

bool send_subscription(subscription &record)
{
    const int result = mosquitto_subscribe(mosq, &record.mid, record.filter.get(), QOS);
    if (result != MOSQ_ERR_SUCCESS) {
        log_error("couldn't subscribe to topic %s (%s)", record.filter.get(), mosquitto_strerror(result));
        return false;
    }
    return true;
}

void subscribe_cb(mosquitto *, void *, int mid, int qos_count, const int *granted_qos)
{
    subscription *record;
    LL_SEARCH_SCALAR(subscriptions, record, mid, mid);
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

// False when the maintenance tick has to end here.
bool retry_subscriptions()
{
    timespec now;
    if (!get_time(now)) {
        log_error("error while checking pending subscriptions");
        return false;
    }
    subscription *record;
    LL_FOREACH (subscriptions, record) {
        if (record->acknowledged || !is_due_for_retry(now, record->sent)) {
            continue;
        }
        if (record->retries >= MAX_RETRIES) {
            log_error("subscription on topic %s still failed after maximum number of retries, exiting",
                      record->filter.get());
            terminate();
            break;
        }
        if (!send_subscription(*record)) {
            log_error("error while checking pending subscriptions");
            return false;
        }
        record->retries++;
        record->sent = now;
    }
    return true;
}

bool has_wildcard(const char *text)
{
    return strpbrk(text, WILDCARDS) != nullptr;
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
bool index_subscription(subscription &record)
{
    const std::string_view filter = record.filter.get();
    if (has_wildcard(filter.data()) || find_subscription(filter) != nullptr) {
        LL_PREPEND2(asked_subscriptions, &record, next_asked);
        return true;
    }
    HASH_ADD_KEYPTR(hh, subscriptions_by_filter, filter.data(), filter.size(), &record);
    if (!record.is_indexed()) {
        log_error("couldn't allocation subscription structure");
        return false;
    }
    return true;
}

void release_subscription(subscription *record)
{
    if (record->is_indexed()) {
        HASH_DEL(subscriptions_by_filter, record);
    } else {
        LL_DELETE2(asked_subscriptions, record, next_asked);
    }
    delete record;
}

void release_removed_subscriptions()
{
    if (!std::exchange(has_removed_subscriptions, false)) {
        return;
    }
    for (subscription **link = &subscriptions; *link != nullptr;) {
        subscription *const record = *link;
        if (record->removed) {
            *link = record->next;
            release_subscription(record);
        } else {
            link = &record->next;
        }
    }
}

// Whether the subscription is to hear of the topic; false after logging why when the library can't tell.
bool ask(const subscription &record, const char *topic, bool &matches_out)
{
    if (mosquitto_topic_matches_sub(record.filter.get(), topic, &matches_out) != MOSQ_ERR_SUCCESS) {
        log_error("couldn't check if topic %s matches %s", topic, record.filter.get());
        terminate();
        return false;
    }
    return true;
}

// A topic with wildcards matches nothing. It is a fault where the library gets as far as the wildcard, so that
// every subscription is asked.
void refuse_topic(const char *topic)
{
    const subscription *record;
    LL_FOREACH (subscriptions, record) {
        bool matches = false;
        if (!ask(*record, topic, matches) || is_terminated()) {
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

// Calls the subscriptions that match, the newest first. A callback may subscribe, which puts records in front of
// those that are still to come, and unsubscribe, which only marks records until the dispatch is over.
void dispatch(const mosquitto_message &message)
{
    const std::string_view topic = message.topic;
    const subscription *const newest = subscriptions;
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
            !ask(*record, message.topic, matches)) {
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

void socket_cb(int, uint32_t events, void *)
{
    if (events != EPOLLIN) {
        log_error("unexpected event(s) on file descriptor");
        terminate();
        return;
    }
    int result = mosquitto_loop_read(mosq, 1);
    if (!is_done_or_interrupted(result)) {
        log_error("couldn't carry out read operations (%s)", mosquitto_strerror(result));
        terminate();
        return;
    }
    // What callbacks published stays in the library's queue until its next write. One write now carries it to
    // the broker at once; what a full socket leaves waits for the maintenance tick.
    if (!mosquitto_want_write(mosq)) {
        return;
    }
    result = mosquitto_loop_write(mosq, 1);
    if (!is_done_or_interrupted(result)) {
        log_error("couldn't carry out write operations (%s)", mosquitto_strerror(result));
        terminate();
    }
}

// A broker that doesn't read fills the socket; the library then reports success with its output still
// pending.
bool is_socket_writable()
{
    pollfd socket = {.fd = mosquitto_socket(mosq), .events = POLLOUT, .revents = 0};
    return poll(&socket, 1, 0) == 1;
}

bool maintain(int fd, uint32_t events)
{
    if (events != EPOLLIN) {
        log_error("unexpected event(s) on file descriptor");
        return false;
    }
    uint64_t expiries;
    if (read(fd, &expiries, sizeof expiries) != sizeof expiries) {
        log_error("couldn't clear maintenance timer (errno %d)", errno);
        return false;
    }
    int result = mosquitto_loop_misc(mosq);
    if (result != MOSQ_ERR_SUCCESS) {
        log_error("error while performing maintenance (%s)", mosquitto_strerror(result));
        return false;
    }
    while (mosquitto_want_write(mosq) && is_socket_writable()) {
        result = mosquitto_loop_write(mosq, 1);
        if (!is_done_or_interrupted(result)) {
            log_error("couldn't carry out write operations (%s)", mosquitto_strerror(result));
            return false;
        }
    }
    return retry_publications() && retry_subscriptions();
}

void maintenance_cb(int fd, uint32_t events, void *)
{
    if (!maintain(fd, events)) {
        close(fd);
        terminate();
    }
}

// Creates, arms and registers the maintenance timer; the caller closes it when a step fails.
bool add_maintenance_timer(unique_fd &timer)
{
    timer.reset(timerfd_create(CLOCK_MONOTONIC, 0));
    if (!timer.is_open()) {
        log_error("couldn't create maintenance timer (errno %d)", errno);
        return false;
    }
    if (timerfd_settime(timer.get(), 0, &MAINTENANCE_PERIOD, nullptr) == -1) {
        log_error("couldn't arm maintenance timer (errno %d)", errno);
        return false;
    }
    if (event_add(timer.get(), EPOLLIN, maintenance_cb, nullptr) == -1) {
        log_error("couldn't add mosquitto maintenance event");
        return false;
    }
    return true;
}

bool add_events()
{
    const int socket = mosquitto_socket(mosq);
    if (socket == -1) {
        log_error("couldn't get mosquitto socket file descriptor");
        return false;
    }
    if (event_add(socket, EPOLLIN, socket_cb, nullptr) == -1) {
        log_error("couldn't add mosquitto socket handling events");
        return false;
    }
    unique_fd timer;
    if (!add_maintenance_timer(timer)) {
        event_remove(socket);
        return false;
    }
    timer.release(); // open until the process ends or a tick fails
    return true;
}

void connect_cb(mosquitto *, void *, int code)
{
    if (code != 0) {
        log_error("broker connection refused (code %d)", code);
        terminate();
    } else if (!add_events()) {
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
    if (!get_time(start)) {
        return -1;
    }
    while (connected != wanted) {
        if (wanted && is_terminated()) {
            return 0;
        }
        const int result = mosquitto_loop(mosq, poll_ms, 1);
        if (!is_done_or_interrupted(result)) {
            log_error("error while running the mosquitto loop (%s)", mosquitto_strerror(result));
            return -1;
        }
        timespec now;
        if (!get_time(now)) {
            return -1;
        }
        const timespec elapsed = timespec_diff(&now, &start);
        if (timespec_cmp(&elapsed, &limit) > 0) {
            log_error("mosquitto client status change timed out");
            return -1;
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

// Logs a missing argument.
bool check_argument(bool is_given)
{
    if (!is_given) {
        log_error("NULL pointer received as argument");
    }
    return is_given;
}

} // namespace

int broker_connect()
{
    if (mosq != nullptr) {
        log_error("already connected to the broker");
        return -1;
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
        log_error("couldn't request mosquitto disconnect (%s)", mosquitto_strerror(result));
        return -1;
    }
    if (wait_for_connected(false, DISCONNECT_POLL_MS, DISCONNECT_LIMIT_S) == -1) {
        log_error("couldn't disconnect mosquitto instance");
        return -1;
    }
    destroy_client();
    return 0;
}

int broker_publish(const char *topic, const void *payload, size_t length)
{
    if (!check_argument(topic != nullptr && payload != nullptr)) {
        return -1;
    }
    return publish(topic, payload, length, true);
}

int broker_publish_unretained(const char *topic, const void *payload, size_t length)
{
    if (!check_argument(topic != nullptr && payload != nullptr)) {
        return -1;
    }
    return publish(topic, payload, length, false);
}

int broker_unpublish(const char *topic)
{
    if (!check_argument(topic != nullptr)) {
        return -1;
    }
    return publish(topic, nullptr, 0, true);
}

int broker_subscribe(const char *filter, broker_callback callback, void *arg)
{
    if (!check_argument(filter != nullptr && callback != nullptr)) {
        return -1;
    }
    std::unique_ptr<subscription> record(new (std::nothrow) subscription{});
    if (!record) {
        log_error("couldn't allocation subscription structure");
        return -1;
    }
    record->filter = copy_text(filter);
    if (!record->filter) {
        log_error("couldn't duplicate topic string");
        return -1;
    }
    set_head_and_tail(*record);
    record->number = ++num_subscriptions;
    record->callback = callback;
    record->arg = arg;
    if (!get_time(record->sent)) {
        return -1;
    }
    if (!send_subscription(*record) || !index_subscription(*record)) {
        return -1;
    }
    subscription *const added = record.release();
    LL_PREPEND(subscriptions, added);
    return 0;
}

int broker_unsubscribe(const char *filter)
{
    if (!check_argument(filter != nullptr)) {
        return -1;
    }
    subscription *record;
    LL_FOREACH (subscriptions, record) {
        if (strcmp(record->filter.get(), filter) == 0) {
            record->removed = true;
            has_removed_subscriptions = true;
        }
    }
    if (!dispatching) {
        release_removed_subscriptions();
    }
    const int result = mosquitto_unsubscribe(mosq, nullptr, filter);
    if (result != MOSQ_ERR_SUCCESS) {
        log_error("couldn't unsubscribe from topic %s (%s)", filter, mosquitto_strerror(result));
        return -1;
    }
    return 0;
}
