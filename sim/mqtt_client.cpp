// The client library, as far as the daemon uses it: its functions that talk to a broker come here (--wrap), on the
// process that runs. Those that only look at topics are the library's own.
#include "mqtt_broker.h"
#include "process.h"

#include <mosquitto.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

using namespace sim;

namespace
{

constexpr unsigned MAX_IN_FLIGHT =
    20; // publications that the library sends before it waits for acknowledgements

} // namespace

struct mosquitto {
    void (*on_connect)(mosquitto *, void *, int) = nullptr;
    void (*on_disconnect)(mosquitto *, void *, int) = nullptr;
    void (*on_publish)(mosquitto *, void *, int) = nullptr;
    void (*on_subscribe)(mosquitto *, void *, int, int, const int *) = nullptr;
    void (*on_message)(mosquitto *, void *, const mosquitto_message *) = nullptr;

    std::string settings;
    process *owner = nullptr;
    mqtt_broker *broker = nullptr;
    mqtt_connection *connection = nullptr;
    int fd = -1;
    int last_message_id = 0;
    unsigned in_flight = 0;
    bool is_in_callback = false;
    bool is_leaving = false;        // by disconnect, which waits for what is to be written
    mqtt_packet taken{};            // by the callback that runs; not on the stack, in which a process may end
    std::deque<mqtt_packet> output; // until the next write
    std::deque<mqtt_packet> queued; // until others are acknowledged
};

namespace
{

bool is_usable(const mosquitto *client)
{
    return client != nullptr && client->connection != nullptr && !client->connection->is_closed;
}

void close_connection(mosquitto &client)
{
    if (client.connection != nullptr) {
        client.broker->disconnect(*client.connection);
        client.connection = nullptr;
        if (client.owner->is_alive()) {
            client.owner->close(client.fd);
        }
        client.fd = -1;
    }
}

void write_output(mosquitto &client)
{
    if (!client.broker->conduct().reads) {
        return;
    }
    while (!client.output.empty()) {
        client.broker->send(*client.connection, std::move(client.output.front()));
        client.output.pop_front();
    }
    if (client.is_leaving) {
        close_connection(client);
        client.on_disconnect(&client, nullptr, 0);
    }
}

// The library writes at once what is sent outside of its callbacks.
void send_packet(mosquitto &client, mqtt_packet packet)
{
    client.output.push_back(std::move(packet));
    if (!client.is_in_callback) {
        write_output(client);
    }
}

int lose_connection(mosquitto &client, int reason = MOSQ_ERR_CONN_LOST)
{
    const int error = errno;
    close_connection(client);
    client.on_disconnect(&client, nullptr, reason);
    errno = error;
    return reason;
}

bool fails(const mosquitto &client, system_call call)
{
    return client.owner->fails(call);
}

// An interrupted call leaves the connection as it is.
int fail_connection(mosquitto &client)
{
    return errno == EINTR ? MOSQ_ERR_ERRNO : lose_connection(client, MOSQ_ERR_ERRNO);
}

void take_acknowledgement(mosquitto &client, int message_id)
{
    client.on_publish(&client, nullptr, message_id);
    client.in_flight--;
    if (!client.queued.empty()) {
        client.in_flight++;
        send_packet(client, std::move(client.queued.front()));
        client.queued.pop_front();
    }
}

void take_message(mosquitto &client, const mqtt_packet &packet)
{
    const mosquitto_message message = {
        .mid = packet.message_id,
        .topic = const_cast<char *>(client.broker->topics().name(packet.topic).data()),
        .payload = const_cast<uint8_t *>(packet.payload.data()),
        .payloadlen = static_cast<int>(packet.payload.size()),
        .qos = 1,
        .retain = packet.is_retained};
    client.on_message(&client, nullptr, &message);
}

int take_packet(mosquitto &client, const mqtt_packet &packet)
{
    client.is_in_callback = true;
    switch (packet.type) {
    case mqtt_packet::kind::CONNACK:
        client.on_connect(&client, nullptr, packet.code);
        if (packet.code != 0) {
            return lose_connection(client, MOSQ_ERR_CONN_REFUSED);
        }
        break;
    case mqtt_packet::kind::PUBLISH:
        take_message(client, packet);
        break;
    case mqtt_packet::kind::PUBACK:
        take_acknowledgement(client, packet.message_id);
        break;
    case mqtt_packet::kind::SUBACK:
        client.on_subscribe(&client, nullptr, packet.message_id, 1, &packet.code);
        break;
    default:
        break;
    }
    client.is_in_callback = false;
    return MOSQ_ERR_SUCCESS;
}

} // namespace

namespace sim
{

bool has_input(const mosquitto &client)
{
    return client.connection != nullptr &&
           (client.connection->is_closed || !client.connection->arrived.empty());
}

void drop_client(mosquitto *client)
{
    close_connection(*client);
    delete client;
}

} // namespace sim

extern "C" {

int __wrap_mosquitto_lib_init()
{
    return MOSQ_ERR_SUCCESS;
}

int __wrap_mosquitto_lib_cleanup()
{
    return MOSQ_ERR_SUCCESS;
}

mosquitto *__wrap_mosquitto_new(const char *id, bool is_clean, void *)
{
    if (process::running().fails(system_call::NEW)) {
        return nullptr;
    }
    auto *const client = new mosquitto;
    client->owner = &process::running();
    client->settings = std::string(id) + (is_clean ? ", clean" : "");
    client->broker = &client->owner->host().broker();
    client->owner->attach_session(-1, client);
    return client;
}

void __wrap_mosquitto_destroy(mosquitto *client)
{
    client->owner->attach_session(-1, nullptr);
    drop_client(client);
}

void __wrap_mosquitto_connect_callback_set(mosquitto *client, void (*callback)(mosquitto *, void *, int))
{
    client->on_connect = callback;
}

void __wrap_mosquitto_disconnect_callback_set(mosquitto *client, void (*callback)(mosquitto *, void *, int))
{
    client->on_disconnect = callback;
}

void __wrap_mosquitto_publish_callback_set(mosquitto *client, void (*callback)(mosquitto *, void *, int))
{
    client->on_publish = callback;
}

void __wrap_mosquitto_subscribe_callback_set(mosquitto *client,
                                             void (*callback)(mosquitto *, void *, int, int, const int *))
{
    client->on_subscribe = callback;
}

void __wrap_mosquitto_message_callback_set(mosquitto *client,
                                           void (*callback)(mosquitto *, void *, const mosquitto_message *))
{
    client->on_message = callback;
}

int __wrap_mosquitto_int_option(mosquitto *client, mosq_opt_t option, int value)
{
    client->settings += ", option " + std::to_string(option) + " = " + std::to_string(value);
    return MOSQ_ERR_SUCCESS;
}

int __wrap_mosquitto_connect(mosquitto *client, const char *address, int port, int keepalive_s)
{
    if (fails(*client, system_call::CONNECT)) {
        return MOSQ_ERR_ERRNO;
    }
    client->fd = client->owner->open({.kind = file_kind::SESSION});
    if (strcmp(address, mqtt_broker::ADDRESS) == 0 && port == mqtt_broker::PORT) {
        client->connection = client->broker->connect(
            *client->owner, client->fd, client->settings + ", keepalive " + std::to_string(keepalive_s));
    }
    if (client->connection == nullptr) {
        client->owner->close(client->fd);
        client->fd = -1;
        errno = ECONNREFUSED;
        return MOSQ_ERR_ERRNO;
    }
    return MOSQ_ERR_SUCCESS;
}

int __wrap_mosquitto_disconnect(mosquitto *client)
{
    if (client == nullptr) {
        return MOSQ_ERR_INVAL;
    }
    if (!is_usable(client)) {
        return MOSQ_ERR_NO_CONN;
    }
    if (fails(*client, system_call::DISCONNECT)) {
        return MOSQ_ERR_ERRNO;
    }
    client->is_leaving = true;
    write_output(*client);
    return MOSQ_ERR_SUCCESS;
}

int __wrap_mosquitto_socket(mosquitto *client)
{
    return fails(*client, system_call::GET_SOCKET) ? -1 : client->fd;
}

bool __wrap_mosquitto_want_write(mosquitto *client)
{
    return !client->output.empty();
}

int __wrap_mosquitto_loop_write(mosquitto *client, int)
{
    if (client->connection == nullptr) {
        return MOSQ_ERR_NO_CONN;
    }
    if (fails(*client, system_call::LOOP_WRITE)) {
        return fail_connection(*client);
    }
    if (client->connection->is_closed) {
        return lose_connection(*client, MOSQ_ERR_CONN_LOST);
    }
    write_output(*client);
    return MOSQ_ERR_SUCCESS;
}

// As many packets as there are publications under way, one at least.
int __wrap_mosquitto_loop_read(mosquitto *client, int)
{
    if (fails(*client, system_call::LOOP_READ)) {
        return fail_connection(*client);
    }
    for (size_t left = std::max(client->in_flight + client->queued.size(), size_t{1}); left > 0; left--) {
        if (client->connection == nullptr) {
            return MOSQ_ERR_NO_CONN;
        }
        if (client->connection->arrived.empty()) {
            return client->connection->is_closed ? lose_connection(*client, MOSQ_ERR_CONN_LOST)
                                                 : MOSQ_ERR_SUCCESS;
        }
        client->taken = std::move(client->connection->arrived.front());
        client->connection->arrived.pop_front();
        if (const int result = take_packet(*client, client->taken); result != MOSQ_ERR_SUCCESS) {
            return result;
        }
    }
    return MOSQ_ERR_SUCCESS;
}

int __wrap_mosquitto_loop_misc(mosquitto *client)
{
    if (fails(*client, system_call::LOOP_MISC)) {
        return MOSQ_ERR_ERRNO;
    }
    return is_usable(client) ? MOSQ_ERR_SUCCESS : MOSQ_ERR_NO_CONN;
}

int __wrap_mosquitto_loop(mosquitto *client, int timeout_ms, int)
{
    if (fails(*client, system_call::LOOP)) {
        return fail_connection(*client);
    }
    const nanoseconds end = client->owner->host().clock().now() + milliseconds(timeout_ms);
    if (client->connection == nullptr) {
        return MOSQ_ERR_NO_CONN;
    }
    if (!has_input(*client)) {
        client->owner->wait_until(end);
        client->owner->take_signal();
    }
    const int result = __wrap_mosquitto_loop_read(client, 1);
    return result == MOSQ_ERR_SUCCESS ? __wrap_mosquitto_loop_write(client, 1) : result;
}

int __wrap_mosquitto_publish(mosquitto *client, int *message_id, const char *topic, int length,
                             const void *payload, int qos, bool retain)
{
    const size_t topic_length = strlen(topic);
    if (topic_length == 0 || qos != 1 || mosquitto_pub_topic_check(topic) != MOSQ_ERR_SUCCESS) {
        return MOSQ_ERR_INVAL;
    }
    if (mosquitto_validate_utf8(topic, static_cast<int>(topic_length)) != MOSQ_ERR_SUCCESS) {
        return MOSQ_ERR_MALFORMED_UTF8;
    }
    if (!is_usable(client)) {
        return MOSQ_ERR_NO_CONN;
    }
    if (fails(*client, system_call::PUBLISH)) {
        return MOSQ_ERR_ERRNO;
    }
    *message_id = ++client->last_message_id;
    mqtt_packet packet = {.type = mqtt_packet::kind::PUBLISH,
                          .message_id = *message_id,
                          .topic = client->broker->topics().number(topic),
                          .is_retained = retain,
                          .payload = shared_bytes(payload, static_cast<size_t>(length))};
    if (client->in_flight >= MAX_IN_FLIGHT) {
        client->queued.push_back(std::move(packet));
    } else {
        client->in_flight++;
        send_packet(*client, std::move(packet));
    }
    return MOSQ_ERR_SUCCESS;
}

int __wrap_mosquitto_subscribe(mosquitto *client, int *message_id, const char *filter, int qos)
{
    if (qos != 1 || mosquitto_sub_topic_check(filter) != MOSQ_ERR_SUCCESS) {
        return MOSQ_ERR_INVAL;
    }
    if (!is_usable(client)) {
        return MOSQ_ERR_NO_CONN;
    }
    if (fails(*client, system_call::SUBSCRIBE)) {
        return MOSQ_ERR_ERRNO;
    }
    *message_id = ++client->last_message_id;
    send_packet(*client, {.type = mqtt_packet::kind::SUBSCRIBE,
                          .message_id = *message_id,
                          .topic = client->broker->topics().number(filter)});
    return MOSQ_ERR_SUCCESS;
}

int __wrap_mosquitto_unsubscribe(mosquitto *client, int *, const char *filter)
{
    if (!is_usable(client)) {
        return MOSQ_ERR_NO_CONN;
    }
    if (fails(*client, system_call::UNSUBSCRIBE)) {
        return MOSQ_ERR_ERRNO;
    }
    send_packet(*client, {.type = mqtt_packet::kind::UNSUBSCRIBE,
                          .message_id = ++client->last_message_id,
                          .topic = client->broker->topics().number(filter)});
    return MOSQ_ERR_SUCCESS;
}

} // extern "C"
