#include "remote.h"

#include "broker.h"
#include "common/bytes.h"
#include "common/lumlog.h"
#include "common/netif.h"
#include "common/record_list.h"
#include "common/text.h"
#include "common/unique_fd.h"
#include "event.h"
#include "hwinfo/hwinfo.h"
#include "packet.h"
#include "stats.h"
#include "summary.h"
#include "timer.h"
#include "topics.h"
#include "utils.h"

#include <arpa/inet.h>
#include <mosquitto.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>
// An index that finds no memory ends the process at once, as is uthash's way.
#include <uthash.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <span>
#include <utility>

namespace
{

constexpr const char *log_source = "remote";

constexpr int SOCKET_PRIORITY = 4;
constexpr int RECEIVE_BUFFER_SIZE = 4 * 1024 * 1024; // bytes

constexpr size_t MAX_REQUEST_PAYLOAD = MAX_PACKET_SIZE - HEADER_SIZE - REQUEST_ID_SIZE;
constexpr int REQUEST_TRIES = 10;
constexpr timespec AT_ONCE = {.tv_sec = 0, .tv_nsec = 1}; // zero would disarm a timer
constexpr timer_names REQUEST = {"request", "request timer"};
constexpr itimerspec REQUEST_PERIOD = {.it_interval = {.tv_sec = 1, .tv_nsec = 0}, .it_value = AT_ONCE};
constexpr timer_names SUBSCRIPTION = {"subscription", "subscription timer"};
constexpr uint32_t SUBSCRIPTION_LIFETIME = 1200; // seconds
// What a receiver with the kernel's usual buffer can take: each packet costs it a publication.
constexpr unsigned SEND_BURST = 32;
constexpr timespec SEND_PAUSE = {.tv_sec = 0, .tv_nsec = 3'000'000};

// A request that waits for its acknowledgement or its last try. Only the event loop knows its timer.
struct pending_request {
    char destination[INET_ADDRSTRLEN];
    uint32_t request_id;
    request_result_cb callback; // null for a request without report
    void *arg;
    uint8_t packet[MAX_PACKET_SIZE];
    size_t packet_length;
    bool acknowledged;
    int tries_left;
    pending_request *prev;
    pending_request *next;
};

// The last message of one of this node's own topics, as the packet that carries it to subscribers.
struct topic_data {
    std::unique_ptr<char[]> topic;
    timespec changed; // monotonic
    uint8_t packet[MAX_PACKET_SIZE];
    size_t packet_length;
    UT_hash_handle hh;
};

// A subscription that this node serves to a client of another node. The three first fields identify it.
struct subscription {
    uint8_t requester_mac[MAC_SIZE];
    uint32_t client_id;
    std::unique_ptr<char[]> filter;
    char requester_address[INET_ADDRSTRLEN];
    uint16_t period; // seconds, 0 for one send only
    unique_fd timer;
    uint32_t lives;     // sends left before it expires
    timespec last_sent; // monotonic
    subscription *prev;
    subscription *next;
};

struct fire_ip {
    uint8_t mac[MAC_SIZE];
    char text[INET_ADDRSTRLEN]; // as published, checked when it is used
    UT_hash_handle hh;
};

int socket_fd = -1;
uint8_t local_mac_addr[MAC_SIZE];
uint32_t rid; // id of the next request
record_list<pending_request> pending_requests;
topic_data *topic_data_hash; // by topic, in the order of their first messages; never removed
record_list<subscription> subscriptions;
fire_ip *fire_ip_hash; // by MAC

//
// Packets
//

// Writes the header of a packet of this node; the payload follows it directly.
void write_header(uint8_t *header, packet_type type, size_t payload_length)
{
    packet_write_header(header, type, local_mac_addr, payload_length);
}

// Sends a packet that is sent only once. failure is logged when that fails.
int send_once(const char *address, packet_type type, std::span<const uint8_t> payload, const char *failure)
{
    uint8_t buffer[MAX_PACKET_SIZE];
    write_header(buffer, type, payload.size());
    if (!payload.empty()) {
        memcpy(buffer + HEADER_SIZE, payload.data(), payload.size());
    }
    if (send_packet(address, buffer, HEADER_SIZE + payload.size()) == -1) {
        return log_failure("%s", failure);
    }
    return 0;
}

// Where answers to a packet go.
struct address_text {
    explicit address_text(const packet &received) { inet_ntop(AF_INET, &received.sender, text, sizeof text); }
    char text[INET_ADDRSTRLEN];
};

int acknowledge(const packet &request)
{
    return send_once(address_text(request).text, PACKET_ACK, request.payload.first(REQUEST_ID_SIZE),
                     "couldn't send acknowledgement");
}

} // namespace

int send_packet(const char *ip, const uint8_t *buf, size_t len)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(REMOTE_PORT);
    if (inet_pton(AF_INET, ip, &address.sin_addr) != 1) {
        return log_failure("invalid IP address %s", ip);
    }
    for (;;) {
        const ssize_t sent =
            sendto(socket_fd, buf, len, 0, reinterpret_cast<const sockaddr *>(&address), sizeof address);
        if (sent == static_cast<ssize_t>(len)) {
            return 0;
        }
        if (sent != -1 || errno != EINTR) {
            return log_failure("couldn't send packet (errno %d)", errno);
        }
        if (is_terminated()) {
            return -1;
        }
    }
}

int remote_send_summary(const uint8_t *data, size_t length)
{
    if (check_arguments(data != nullptr, log_source) == -1) {
        return -1;
    }
    if (length > MAX_PACKET_SIZE - HEADER_SIZE) {
        return log_failure("summary data is too big");
    }
    return send_once(MULTICAST_GROUP, PACKET_SUMMARY, {data, length}, "couldn't send node summary");
}

int remote_send_goodbye()
{
    return send_once(MULTICAST_GROUP, PACKET_GOODBYE, {}, "couldn't send goodbye message");
}

int remote_reset_all_stats()
{
    return send_once(MULTICAST_GROUP, PACKET_RESET_ALL_STATS, {}, "couldn't send reset-all-stats request");
}

int remote_send_client_keepalive(uint32_t client_id)
{
    uint8_t payload[CLIENT_ID_SIZE];
    store_be(payload, client_id);
    return send_once(MULTICAST_GROUP, PACKET_CLIENT_KEEPALIVE, payload, "couldn't send client keepalive");
}

namespace
{

//
// Fire addresses of the nodes
//

fire_ip *find_fire_ip(const uint8_t *mac)
{
    fire_ip *found;
    HASH_FIND(hh, fire_ip_hash, mac, MAC_SIZE, found);
    return found;
}

// The address of a node as text, null after logging that it is unknown.
const char *get_fire_ip(const uint8_t *mac)
{
    const fire_ip *const found = find_fire_ip(mac);
    if (found == nullptr) {
        const char *const text = mac_addr_to_str(mac);
        log_error("couldn't find fire IP address for node %s",
                  text != nullptr ? text : " with unknown MAC address");
        return nullptr;
    }
    return found->text;
}

void forget_fire_ip(fire_ip *node)
{
    HASH_DEL(fire_ip_hash, node);
    const std::unique_ptr<fire_ip> released(node);
}

void store_fire_ip(fire_ip &node, const void *payload, size_t length)
{
    memcpy(node.text, payload, length);
    node.text[length] = '\0';
}

void fire_ip_cb(const char *topic, const void *payload, int length, void *)
{
    const auto size = static_cast<size_t>(length);
    if (size >= INET_ADDRSTRLEN) {
        log_error("message is too long to be an IP address");
        return;
    }
    const uint8_t *const mac = find_mac_addr_in_topic(topic);
    if (mac == nullptr) {
        log_error("couldn't find MAC address in topic %s", topic);
        return;
    }
    fire_ip *node = find_fire_ip(mac);
    if (size == 0) {
        if (node != nullptr) {
            forget_fire_ip(node);
        }
        return;
    }
    if (node == nullptr) {
        node = new (std::nothrow) fire_ip{};
        if (node == nullptr) {
            log_error("couldn't allocate fire IP structure");
            terminate();
            return;
        }
        memcpy(node->mac, mac, MAC_SIZE);
        HASH_ADD(hh, fire_ip_hash, mac, MAC_SIZE, node);
    }
    store_fire_ip(*node, payload, size);
}

} // namespace

int remote_reset_stats(const uint8_t *mac, int port)
{
    if (check_arguments(mac != nullptr, log_source) == -1) {
        return -1;
    }
    const char *const address = get_fire_ip(mac);
    if (address == nullptr) {
        return -1;
    }
    const auto port_byte = static_cast<uint8_t>(port);
    return send_once(address, PACKET_RESET_STATS, {&port_byte, 1}, "couldn't send reset-stats request");
}

namespace
{

//
// Requests to other nodes
//

// The payload is what follows the request id.
std::unique_ptr<pending_request> build_req(const char *destination, packet_type type,
                                           request_result_cb callback, void *arg,
                                           std::span<const uint8_t> payload)
{
    if (payload.size() > MAX_REQUEST_PAYLOAD) {
        log_error("request payload is too long (%zu bytes, must be at most %zu)", payload.size(),
                  MAX_REQUEST_PAYLOAD);
        return nullptr;
    }
    std::unique_ptr<pending_request> request(new (std::nothrow) pending_request{});
    if (!request) {
        log_error("couldn't allocate request structure");
        return nullptr;
    }
    snprintf(request->destination, sizeof request->destination, "%s", destination);
    request->request_id = rid++;
    request->callback = callback;
    request->arg = arg;
    request->tries_left = REQUEST_TRIES;
    write_header(request->packet, type, REQUEST_ID_SIZE + payload.size());
    store_be(request->packet + HEADER_SIZE, request->request_id);
    memcpy(request->packet + HEADER_SIZE + REQUEST_ID_SIZE, payload.data(), payload.size());
    request->packet_length = HEADER_SIZE + REQUEST_ID_SIZE + payload.size();
    return request;
}

// Reports the result, if the request is over; else sends it again. -1 after logging why.
int continue_request(pending_request &request, bool &is_over_out)
{
    is_over_out = request.acknowledged || request.tries_left <= 0;
    if (is_over_out) {
        if (request.callback != nullptr) {
            request.callback(request.acknowledged ? 1 : 0, request.arg);
        }
        return 0;
    }
    if (send_packet(request.destination, request.packet, request.packet_length) == -1) {
        return log_failure("couldn't send subscribe/unsubscribe request");
    }
    request.tries_left--;
    return 0;
}

void pending_cb(int fd, uint32_t events, void *arg)
{
    pending_request &request = *static_cast<pending_request *>(arg);
    bool is_over = true;
    if (timer_take(fd, events, REQUEST, log_source) == -1 || continue_request(request, is_over) == -1) {
        is_over = true;
        terminate();
    }
    if (!is_over) {
        return;
    }
    pending_requests.remove(request);
    if (event_remove(fd) == -1) {
        log_error("couldn't remove request timer event");
        terminate();
    }
    close(fd);
}

// Adds a request and starts its timer, which is the event loop's from then on until the request is over.
int start_req(std::unique_ptr<pending_request> request)
{
    unique_fd timer;
    if (timer_start(timer, REQUEST, REQUEST_PERIOD, pending_cb, request.get(), log_source) == -1) {
        return -1;
    }
    timer.release();
    pending_requests.add(std::move(request));
    return 0;
}

int setup_common_req(const uint8_t *mac, packet_type type, request_result_cb callback, void *arg,
                     std::span<const uint8_t> payload)
{
    const char *const destination = get_fire_ip(mac);
    if (destination == nullptr) {
        return -1;
    }
    std::unique_ptr<pending_request> request = build_req(destination, type, callback, arg, payload);
    if (!request) {
        return log_failure("couldn't build request");
    }
    if (start_req(std::move(request)) == -1) {
        return log_failure("couldn't start pending request");
    }
    return 0;
}

int process_ack(const packet &received)
{
    const auto request_id = load_be<uint32_t>(received.payload.data());
    for (pending_request &request : pending_requests) {
        if (request.request_id == request_id) {
            request.acknowledged = true;
        }
    }
    return 0;
}

// The node that a topic filter names, null after logging why the filter can't be sent. An invalid one would
// end the daemon that serves it.
const uint8_t *find_filter_target(const char *filter, size_t max_length)
{
    const uint8_t *const mac = find_mac_addr_in_topic(filter);
    if (mac == nullptr) {
        log_error("couldn't find MAC address in topic %s", filter);
        return nullptr;
    }
    if (strlen(filter) > max_length) {
        log_error("topic %s is too long (%zu, must be at most %zu)", filter, strlen(filter), max_length);
        return nullptr;
    }
    if (mosquitto_sub_topic_check(filter) != MOSQ_ERR_SUCCESS) {
        log_error("%s is not a valid topic filter", filter);
        return nullptr;
    }
    return mac;
}

// A request to the node that the topic filter names. Its payload is these fields and the filter.
template <size_t LENGTH>
int request_for_filter(packet_type type, const uint8_t (&fields)[LENGTH], const char *filter,
                       request_result_cb callback, void *arg)
{
    if (check_arguments(filter != nullptr && callback != nullptr, log_source) == -1) {
        return -1;
    }
    const uint8_t *const mac = find_filter_target(filter, MAX_REQUEST_PAYLOAD - LENGTH - 1);
    if (mac == nullptr) {
        return -1;
    }
    uint8_t payload[MAX_REQUEST_PAYLOAD];
    memcpy(payload, fields, LENGTH);
    memcpy(payload + LENGTH, filter, strlen(filter) + 1);
    return setup_common_req(mac, type, callback, arg, {payload, LENGTH + strlen(filter) + 1});
}

} // namespace

int remote_subscribe(const char *topic, uint32_t client_id, uint16_t period, request_result_cb callback,
                     void *arg)
{
    uint8_t fields[SUBSCRIBE_FILTER - REQUEST_ID_SIZE];
    store_be(fields + (REQUEST_CLIENT_ID - REQUEST_ID_SIZE), client_id);
    store_be(fields + (SUBSCRIBE_PERIOD - REQUEST_ID_SIZE), period);
    return request_for_filter(PACKET_SUBSCRIBE, fields, topic, callback, arg);
}

int remote_unsubscribe(const char *topic, uint32_t client_id, request_result_cb callback, void *arg)
{
    uint8_t fields[UNSUBSCRIBE_FILTER - REQUEST_ID_SIZE];
    store_be(fields + (REQUEST_CLIENT_ID - REQUEST_ID_SIZE), client_id);
    return request_for_filter(PACKET_UNSUBSCRIBE, fields, topic, callback, arg);
}

int remote_unsubscribe_all(uint32_t client_id)
{
    uint8_t payload[CLIENT_ID_SIZE];
    store_be(payload, client_id);
    std::unique_ptr<pending_request> request =
        build_req(MULTICAST_GROUP, PACKET_UNSUBSCRIBE_ALL, nullptr, nullptr, payload);
    if (!request) {
        return log_failure("couldn't build unsubscribe all request");
    }
    if (start_req(std::move(request)) == -1) {
        return log_failure("couldn't start pending unsubscribe all request");
    }
    return 0;
}

int remote_activate(const uint8_t *mac, uint8_t value, request_result_cb callback, void *arg)
{
    if (check_arguments(mac != nullptr && callback != nullptr, log_source) == -1) {
        return -1;
    }
    return setup_common_req(mac, PACKET_ACTIVATE, callback, arg, {&value, 1});
}

int remote_set_remote_download(const uint8_t *mac, uint8_t value, request_result_cb callback, void *arg)
{
    if (check_arguments(mac != nullptr && callback != nullptr, log_source) == -1) {
        return -1;
    }
    return setup_common_req(mac, PACKET_REMOTE_DOWNLOAD, callback, arg, {&value, 1});
}

namespace
{

//
// Subscriptions served to other nodes
//

size_t topic_data_offset(size_t topic_length)
{
    return HEADER_SIZE + topic_length + 1;
}

// A record without message yet, null after logging why.
topic_data *add_topic_data(const char *topic, size_t topic_length)
{
    std::unique_ptr<topic_data> record(new (std::nothrow) topic_data{});
    if (!record) {
        log_error("couldn't allocate topic data structure");
        return nullptr;
    }
    record->topic = copy_text(topic);
    if (!record->topic) {
        log_error("couldn't duplicate topic string");
        return nullptr;
    }
    memcpy(record->packet + HEADER_SIZE, topic, topic_length + 1);
    record->packet_length = topic_data_offset(topic_length);
    topic_data *const added = record.release();
    HASH_ADD_KEYPTR(hh, topic_data_hash, added->topic.get(), topic_length, added);
    return added;
}

// Every message on this node's own topics, the daemon's own publications included.
void sub_msg_cb(const char *topic, const void *payload, int length, void *)
{
    const size_t topic_length = strlen(topic);
    const size_t data_offset = topic_data_offset(topic_length);
    const auto size = static_cast<size_t>(length);
    topic_data *record;
    HASH_FIND(hh, topic_data_hash, topic, topic_length, record);
    if (data_offset + size > MAX_PACKET_SIZE) {
        log_error("message is too big for a remote subscription");
        return;
    }
    if (record == nullptr) {
        if (size == 0) {
            return;
        }
        record = add_topic_data(topic, topic_length);
        if (record == nullptr) {
            terminate();
            return;
        }
    }
    uint8_t *const data = record->packet + data_offset;
    if (record->packet_length == data_offset + size && (size == 0 || memcmp(data, payload, size) == 0)) {
        return;
    }
    if (size > 0) {
        memcpy(data, payload, size);
    }
    record->packet_length = data_offset + size;
    write_header(record->packet, PACKET_TOPIC_DATA, record->packet_length - HEADER_SIZE);
    timespec now;
    if (get_time(now, log_source) == -1) {
        terminate();
        return;
    }
    record->changed = now;
}

// Sends that a subscription lives for without a keepalive.
uint32_t get_lives(uint16_t period)
{
    return period == 0 ? 1 : std::max(SUBSCRIPTION_LIFETIME / period, uint32_t{1});
}

int delete_sub(subscription &record)
{
    if (event_remove(record.timer.get()) == -1) {
        return log_failure("couldn't remove subscription timer event");
    }
    subscriptions.remove(record);
    return 0;
}

int send_topic(const subscription &record, const topic_data &data)
{
    if (send_packet(record.requester_address, data.packet, data.packet_length) == -1) {
        return log_failure("couldn't send topic data for %s", data.topic.get());
    }
    return 0;
}

int send_changed_topics(const subscription &record)
{
    unsigned num_sent = 0;
    const topic_data *data;
    const topic_data *next;
    HASH_ITER (hh, topic_data_hash, data, next) {
        bool matches = false;
        if (mosquitto_topic_matches_sub(record.filter.get(), data->topic.get(), &matches) !=
            MOSQ_ERR_SUCCESS) {
            return log_failure("couldn't check if %s matches %s", data->topic.get(), record.filter.get());
        }
        if (!matches || timespec_cmp(&data->changed, &record.last_sent) < 0) {
            continue;
        }
        if (send_topic(record, *data) == -1) {
            return -1;
        }
        if (++num_sent % SEND_BURST == 0) {
            nanosleep(&SEND_PAUSE, nullptr);
        }
    }
    return 0;
}

// Sends what has changed, or ends the subscription when it has expired. -1 after logging why.
int serve_subscription(subscription &record)
{
    if (record.lives == 0) {
        return delete_sub(record) == -1 ? log_failure("couldn't delete subscription") : 0;
    }
    if (send_changed_topics(record) == -1) {
        return -1;
    }
    timespec now;
    if (get_time(now, log_source) == -1) {
        return -1;
    }
    record.last_sent = now;
    record.lives--;
    return 0;
}

void sub_send_cb(int fd, uint32_t events, void *arg)
{
    subscription &record = *static_cast<subscription *>(arg);
    if (timer_take(fd, events, SUBSCRIPTION, log_source) == -1 || serve_subscription(record) == -1) {
        record.timer.reset();
        terminate();
    }
}

// The client that a packet speaks for: the client id is unique on its node only.
bool is_of_client(const subscription &record, const uint8_t *mac, uint32_t client_id)
{
    return record.client_id == client_id && memcmp(record.requester_mac, mac, MAC_SIZE) == 0;
}

subscription *find_sub(const uint8_t *mac, uint32_t client_id, const char *filter)
{
    for (subscription &record : subscriptions) {
        if (is_of_client(record, mac, client_id) && strcmp(record.filter.get(), filter) == 0) {
            return &record;
        }
    }
    return nullptr;
}

// Deletes the subscriptions that the predicate picks.
template <typename Predicate>
int delete_subs(Predicate is_picked)
{
    for (subscription &record : subscriptions) {
        if (is_picked(record) && delete_sub(record) == -1) {
            return log_failure("couldn't delete subscription");
        }
    }
    return 0;
}

std::unique_ptr<subscription> build_sub(const packet &request, uint32_t client_id, uint16_t period,
                                        const char *filter)
{
    std::unique_ptr<subscription> record(new (std::nothrow) subscription{});
    if (!record) {
        log_error("couldn't allocate subscription structure");
        return nullptr;
    }
    record->filter = copy_text(filter);
    if (!record->filter) {
        log_error("couldn't duplicate topic string");
        return nullptr;
    }
    memcpy(record->requester_mac, request.source_mac, MAC_SIZE);
    memcpy(record->requester_address, address_text(request).text, INET_ADDRSTRLEN);
    record->client_id = client_id;
    record->period = period;
    record->lives = get_lives(period);
    return record;
}

// The new subscription, null after logging why.
subscription *add_sub(const packet &request, uint32_t client_id, uint16_t period, const char *filter)
{
    std::unique_ptr<subscription> record = build_sub(request, client_id, period, filter);
    if (!record) {
        log_error("couldn't build subscription structure");
        return nullptr;
    }
    const itimerspec expiry = {.it_interval = {.tv_sec = period, .tv_nsec = 0}, .it_value = AT_ONCE};
    if (timer_start(record->timer, SUBSCRIPTION, expiry, sub_send_cb, record.get(), log_source) == -1) {
        log_error("couldn't start sending subscription data");
        return nullptr;
    }
    return subscriptions.add(std::move(record));
}

int process_subscribe(const packet &received)
{
    const uint8_t *const payload = received.payload.data();
    const auto client_id = load_be<uint32_t>(payload + REQUEST_CLIENT_ID);
    const auto period = load_be<uint16_t>(payload + SUBSCRIBE_PERIOD);
    const char *const filter = reinterpret_cast<const char *>(payload + SUBSCRIBE_FILTER);
    subscription *added = nullptr;
    if (find_sub(received.source_mac, client_id, filter) == nullptr) {
        added = add_sub(received, client_id, period, filter);
        if (added == nullptr) {
            return -1;
        }
    }
    if (acknowledge(received) == -1) {
        if (added != nullptr) {
            static_cast<void>(delete_sub(*added));
        }
        return -1;
    }
    return 0;
}

int process_unsubscribe(const packet &received)
{
    const uint8_t *const payload = received.payload.data();
    const auto client_id = load_be<uint32_t>(payload + REQUEST_CLIENT_ID);
    const char *const filter = reinterpret_cast<const char *>(payload + UNSUBSCRIBE_FILTER);
    const int result = delete_subs([&](const subscription &record) {
        return is_of_client(record, received.source_mac, client_id) &&
               strcmp(record.filter.get(), filter) == 0;
    });
    return result == -1 ? -1 : acknowledge(received);
}

int process_unsubscribe_all(const packet &received)
{
    const auto client_id = load_be<uint32_t>(received.payload.data() + REQUEST_CLIENT_ID);
    return delete_subs(
        [&](const subscription &record) { return is_of_client(record, received.source_mac, client_id); });
}

int process_client_keepalive(const packet &received)
{
    const auto client_id = load_be<uint32_t>(received.payload.data());
    for (subscription &record : subscriptions) {
        // A subscription of period 0 that has sent once stays silent: its timer is not armed again.
        if (is_of_client(record, received.source_mac, client_id)) {
            record.lives = get_lives(record.period);
        }
    }
    return 0;
}

//
// What received packets ask for
//

int process_topic_data(const packet &received)
{
    const char *const topic = reinterpret_cast<const char *>(received.payload.data());
    const auto data = received.payload.subspan(strlen(topic) + 1);
    if (broker_publish_unretained(topic, data.data(), data.size()) == -1) {
        return log_failure("couldn't publish data on topic %s", topic);
    }
    return 0;
}

// An activate or remote download request: the value goes to the processes that wait for it on the topic.
int process_download(const packet &received, const char *topic)
{
    const uint8_t value = received.payload[DOWNLOAD_VALUE];
    if (broker_publish(topic, &value, sizeof value) == -1) {
        return log_failure("couldn't publish %u to %s", value, topic);
    }
    return acknowledge(received);
}

int process_activate(const packet &received)
{
    return process_download(received, ACTIVATE_TOPIC);
}

int process_remote_download(const packet &received)
{
    return process_download(received, REMOTE_DOWNLOAD_TOPIC);
}

int process_summary(const packet &received)
{
    return summary_process(received.source_mac, received.payload.data(), received.payload.size());
}

int process_reset_stats(const packet &received)
{
    const auto port = static_cast<int8_t>(received.payload[0]);
    if (stats_reset_port(port) == -1) {
        return log_failure("couldn't reset port %s's statistics", port_name(port).text);
    }
    return 0;
}

int process_reset_all_stats(const packet &)
{
    return stats_reset_all();
}

int process_goodbye(const packet &received)
{
    if (summary_clear(received.source_mac) == -1) {
        return log_failure("couldn't clear summary");
    }
    return delete_subs([&](const subscription &record) {
        return memcmp(record.requester_mac, received.source_mac, MAC_SIZE) == 0;
    });
}

// How packets of one type are handled, and what is logged where that fails.
struct packet_handling {
    packet_type type;
    int (*process)(const packet &received);
    const char *failure = nullptr; // null where handling cannot fail
};

constexpr packet_handling HANDLING[PACKET_TYPES] = {
    {.type = PACKET_SUMMARY, .process = process_summary, .failure = "couldn't process node summary"},
    {.type = PACKET_SUBSCRIBE, .process = process_subscribe, .failure = "couldn't process subscribe request"},
    {.type = PACKET_UNSUBSCRIBE,
     .process = process_unsubscribe,
     .failure = "couldn't process unsubscribe request"},
    {.type = PACKET_UNSUBSCRIBE_ALL,
     .process = process_unsubscribe_all,
     .failure = "couldn't process unsubscribe all request"},
    {.type = PACKET_ACK, .process = process_ack},
    {.type = PACKET_TOPIC_DATA, .process = process_topic_data, .failure = "couldn't process topic data"},
    {.type = PACKET_CLIENT_KEEPALIVE, .process = process_client_keepalive},
    {.type = PACKET_RESET_STATS,
     .process = process_reset_stats,
     .failure = "couldn't process reset-stats request"},
    {.type = PACKET_RESET_ALL_STATS,
     .process = process_reset_all_stats,
     .failure = "couldn't process reset-all-stats request"},
    {.type = PACKET_ACTIVATE, .process = process_activate, .failure = "couldn't process activate request"},
    {.type = PACKET_REMOTE_DOWNLOAD,
     .process = process_remote_download,
     .failure = "couldn't process remote download request"},
    {.type = PACKET_GOODBYE, .process = process_goodbye, .failure = "couldn't process goodbye message"},
};
static_assert(packet_rows_in_order(HANDLING));

//
// The socket
//

enum class reading { DATAGRAM, NOTHING, FAILURE };

// Reads one datagram and its true size, also where it is larger than the buffer. A datagram may have vanished
// since the loop saw it: the kernel drops those with a wrong checksum only when they are read.
reading read_datagram(uint8_t (&buffer)[MAX_PACKET_SIZE], size_t &size_out, sockaddr_in &sender_out)
{
    for (;;) {
        socklen_t sender_length = sizeof sender_out;
        const ssize_t size = recvfrom(socket_fd, buffer, sizeof buffer, MSG_TRUNC | MSG_DONTWAIT,
                                      reinterpret_cast<sockaddr *>(&sender_out), &sender_length);
        if (size != -1) {
            size_out = static_cast<size_t>(size);
            return reading::DATAGRAM;
        }
        if (errno == EAGAIN) {
            return reading::NOTHING;
        }
        if (errno != EINTR) {
            log_error("couldn't receive packet (errno %d)", errno);
            return reading::FAILURE;
        }
        if (is_terminated()) {
            return reading::FAILURE;
        }
    }
}

int process_packet(const packet &received)
{
    const packet_handling &handling = HANDLING[received.type - 1];
    if (handling.process(received) == -1) {
        log_error("%s", handling.failure);
        return log_failure("couldn't process new packet");
    }
    return 0;
}

int receive_packet()
{
    uint8_t buffer[MAX_PACKET_SIZE];
    size_t size;
    sockaddr_in sender;
    switch (read_datagram(buffer, size, sender)) {
    case reading::NOTHING:
        return 0;
    case reading::FAILURE:
        return log_failure("couldn't receive new packet");
    case reading::DATAGRAM:
        break;
    }
    packet received;
    if (!packet_parse(buffer, size, received)) {
        return 0;
    }
    received.sender = sender.sin_addr;
    return process_packet(received);
}

void close_socket()
{
    close(socket_fd);
    socket_fd = -1;
}

void receive_cb(int, uint32_t events, void *)
{
    if (event_check(events, log_source) == 0 && receive_packet() == 0) {
        return;
    }
    // Closed and forgotten, so that the goodbye of the shutdown fails cleanly.
    close_socket();
    terminate();
}

//
// Start-up
//

// Applies the settings in their order; the caller closes the socket when one fails.
int configure_socket(int fd)
{
    ip_mreqn group{};
    inet_pton(AF_INET, MULTICAST_GROUP, &group.imr_multiaddr);
    group.imr_ifindex = static_cast<int>(if_nametoindex(FIRE_INTERFACE));
    if (group.imr_ifindex == 0) {
        return log_failure("couldn't get index of interface %s (errno %d)", FIRE_INTERFACE, errno);
    }
    if (setsockopt(fd, SOL_SOCKET, SO_PRIORITY, &SOCKET_PRIORITY, sizeof SOCKET_PRIORITY) == -1) {
        return log_failure("couldn't set socket priority (errno %d)", errno);
    }
    if (setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group) == -1) {
        return log_failure("couldn't join multicast group (errno %d)", errno);
    }
    if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &group, sizeof group) == -1) {
        return log_failure("couldn't set multicast interface (errno %d)", errno);
    }
    const int loop = 0;
    if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof loop) == -1) {
        return log_failure("couldn't disable multicast looping (errno %d)", errno);
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(REMOTE_PORT);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == -1) {
        return log_failure("couldn't bind socket (errno %d)", errno);
    }
    // A new subscription's first data comes in bursts, and each packet costs a publication. The kernel grants
    // what net.core.rmem_max allows.
    static_cast<void>(
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &RECEIVE_BUFFER_SIZE, sizeof RECEIVE_BUFFER_SIZE));
    return 0;
}

int open_socket()
{
    unique_fd fd(socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP));
    if (!fd.is_open()) {
        return log_failure("couldn't create new socket (errno %d)", errno);
    }
    if (configure_socket(fd.get()) == -1) {
        return -1;
    }
    socket_fd = fd.release();
    return 0;
}

int start_receiving()
{
    if (event_add(socket_fd, EPOLLIN, receive_cb, nullptr) == -1) {
        return log_failure("couldn't add socket receive event");
    }
    if (broker_subscribe(FIRE_IP_FILTER, fire_ip_cb, nullptr) == -1) {
        return log_failure("couldn't subscribe to %s", FIRE_IP_FILTER);
    }
    const topic_text own_topics(NODE_FILTER_FORMAT, mac_addr_to_str(local_mac_addr));
    if (broker_subscribe(own_topics.text, sub_msg_cb, nullptr) == -1) {
        return log_failure("couldn't subscribe to %s", own_topics.text);
    }
    return 0;
}

} // namespace

int remote_init()
{
    if (hwinfo_get_local_mac_addr(local_mac_addr) == -1) {
        return log_failure("couldn't get local MAC address");
    }
    if (open_socket() == -1) {
        return log_failure("couldn't open socket");
    }
    if (start_receiving() == -1) {
        static_cast<void>(event_remove(socket_fd));
        close_socket();
        return -1;
    }
    return 0;
}
