#include "mqtt.h"

#include "internal.h"

#include <mosquitto.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <set>
#include <string_view>

using namespace sim;

namespace
{

constexpr size_t MAX_INFLIGHT = 20;
constexpr size_t MAX_FILTER_LENGTH = 65535;

enum class packet_kind {
    CONNECT,
    CONNACK,
    PUBLISH,
    PUBACK,
    SUBSCRIBE,
    SUBACK,
    UNSUBSCRIBE,
    PING,
    DISCONNECT
};

struct packet {
    packet_kind kind;
    int mid = 0;
    int code = 0; // of the CONNACK, or the granted QoS
    message content = {};
};

enum class client_state { NEW, CONNECTING, CONNECTED, DISCONNECTING };

} // namespace

struct mosquitto {
    std::string id;
    bool clean = false;
    int nodelay = 0;
    void (*on_connect)(mosquitto *, void *, int) = nullptr;
    void (*on_disconnect)(mosquitto *, void *, int) = nullptr;
    void (*on_publish)(mosquitto *, void *, int) = nullptr;
    void (*on_subscribe)(mosquitto *, void *, int, int, const int *) = nullptr;
    void (*on_message)(mosquitto *, void *, const mosquitto_message *) = nullptr;

    client_state state = client_state::NEW;
    int socket = -1;
    bool in_callback = false;
    bool peer_closed = false;
    std::deque<packet> output; // on its way into the socket
    std::deque<packet> input;  // waits in the socket
    std::deque<packet> queued; // publications beyond the number in flight
    std::set<int> in_flight;
    int last_mid = 0;
    int keepalive_s = 0;
    duration last_input{};
    duration last_output{};
    std::optional<duration> ping;
};

namespace
{

struct broker_state {
    broker_behaviour behaviour;
    int library_users = 0;
    mosquitto *client = nullptr;
    std::string client_settings;
    std::vector<std::string> filters;
    std::map<std::string, std::string> retained;
    std::vector<int> unanswered; // identifiers of publications
    messages published;
    std::vector<std::string> requests;
};

broker_state &state()
{
    static broker_state the_state;
    return the_state;
}

bool has_wildcard(std::string_view topic)
{
    return topic.find_first_of("+#") != std::string_view::npos;
}

bool is_filter(std::string_view filter)
{
    for (size_t i = 0; i < filter.size(); i++) {
        const bool starts_level = i == 0 || filter[i - 1] == '/';
        const bool is_last = i + 1 == filter.size();
        if (filter[i] == '#' && !(starts_level && is_last)) {
            return false;
        }
        if (filter[i] == '+' && !(starts_level && (is_last || filter[i + 1] == '/'))) {
            return false;
        }
    }
    return true;
}

// Cuts the first level off; the text is empty and has no data after the last one.
std::string_view cut_level(std::string_view &text)
{
    const size_t slash = text.find('/');
    const std::string_view level = text.substr(0, slash);
    text = slash == std::string_view::npos ? std::string_view() : text.substr(slash + 1);
    return level;
}

bool matches(std::string_view filter, std::string_view topic)
{
    if ((filter[0] == '$') != (topic[0] == '$')) {
        return false;
    }
    while (filter.data() != nullptr && topic.data() != nullptr) {
        const std::string_view level = cut_level(filter);
        if (level == "#") {
            return true;
        }
        const std::string_view topic_level = cut_level(topic);
        if (level != "+" && level != topic_level) {
            return false;
        }
    }
    return topic.data() == nullptr && (filter.data() == nullptr || filter == "#");
}

//
// The broker's side
//

void accept_message(const message &content)
{
    if (content.retain && content.payload.empty()) {
        state().retained.erase(content.topic);
    } else if (content.retain) {
        state().retained[content.topic] = content.payload;
    }
    mosquitto *const client = state().client;
    const bool is_wanted = std::ranges::any_of(
        state().filters, [&](const std::string &filter) { return matches(filter, content.topic); });
    if (client != nullptr && client->socket != -1 && is_wanted) {
        client->input.push_back({.kind = packet_kind::PUBLISH, .content = content});
    }
}

void accept_subscribe(mosquitto &client, const packet &received)
{
    broker_state &broker = state();
    const std::string &filter = received.content.topic;
    broker.requests.push_back("SUBSCRIBE " + filter);
    std::erase(broker.filters, filter);
    broker.filters.push_back(filter);
    if (broker.behaviour.answers_subscribe) {
        client.input.push_back(
            {.kind = packet_kind::SUBACK, .mid = received.mid, .code = broker.behaviour.granted_qos});
    }
    for (const auto &[topic, payload] : broker.retained) {
        if (matches(filter, topic)) {
            client.input.push_back({.kind = packet_kind::PUBLISH, .content = {topic, payload}});
        }
    }
}

void accept(mosquitto &client, const packet &received)
{
    broker_state &broker = state();
    const message &content = received.content;
    switch (received.kind) {
    case packet_kind::CONNECT:
        broker.requests.emplace_back("CONNECT");
        broker.filters.clear();
        if (broker.behaviour.answers_connect) {
            client.input.push_back({.kind = packet_kind::CONNACK, .code = broker.behaviour.connack_code});
        }
        break;
    case packet_kind::PUBLISH:
        broker.requests.push_back("PUBLISH " + content.topic);
        broker.published.push_back(content);
        if (broker.behaviour.answers_publish) {
            client.input.push_back({.kind = packet_kind::PUBACK, .mid = received.mid});
        } else {
            broker.unanswered.push_back(received.mid);
        }
        accept_message(content);
        break;
    case packet_kind::SUBSCRIBE:
        accept_subscribe(client, received);
        break;
    case packet_kind::UNSUBSCRIBE:
        broker.requests.push_back("UNSUBSCRIBE " + content.topic);
        std::erase(broker.filters, content.topic);
        break;
    case packet_kind::PING:
        broker.requests.emplace_back("PINGREQ");
        if (broker.behaviour.answers_ping) {
            client.input.push_back({.kind = packet_kind::PING});
        }
        break;
    case packet_kind::DISCONNECT:
        broker.requests.emplace_back("DISCONNECT");
        break;
    default:
        break;
    }
}

//
// The client library's side
//

void close_socket(mosquitto &client)
{
    if (client.socket != -1) {
        internal::close_descriptor(client.socket);
        client.socket = -1;
    }
    client.input.clear();
}

template <typename... Parameters, typename... Arguments>
void call_back(mosquitto &client, void (*callback)(mosquitto *, void *, Parameters...),
               Arguments... arguments)
{
    client.in_callback = true;
    callback(&client, nullptr, arguments...);
    client.in_callback = false;
}

void report_disconnect(mosquitto &client, int code)
{
    close_socket(client);
    call_back(client, client.on_disconnect, code);
}

// What a failed read or write does to the session; the result of the function.
int lose_connection(mosquitto &client, int code)
{
    const int result = client.state == client_state::DISCONNECTING ? int{MOSQ_ERR_SUCCESS} : code;
    report_disconnect(client, result);
    return result;
}

void write_output(mosquitto &client)
{
    if (!state().behaviour.reads) {
        errno = EAGAIN;
        return;
    }
    while (!client.output.empty()) {
        const packet sent = client.output.front();
        client.output.pop_front();
        client.last_output = now();
        accept(client, sent);
        if (sent.kind == packet_kind::DISCONNECT) {
            report_disconnect(client, MOSQ_ERR_SUCCESS);
        }
    }
}

void send(mosquitto &client, const packet &sent)
{
    client.output.push_back(sent);
    if (!client.in_callback) {
        write_output(client);
    }
}

void send_publication(mosquitto &client, const packet &publication)
{
    client.in_flight.insert(publication.mid);
    send(client, publication);
}

// A packet from the broker.
int handle(mosquitto &client, const packet &received)
{
    client.last_input = now();
    switch (received.kind) {
    case packet_kind::CONNACK:
        call_back(client, client.on_connect, received.code);
        if (received.code != 0) {
            return received.code <= 5 ? MOSQ_ERR_CONN_REFUSED : MOSQ_ERR_PROTOCOL;
        }
        client.state = client_state::CONNECTED;
        break;
    case packet_kind::PUBLISH: {
        std::string topic = received.content.topic;
        // Of exactly its size, so that reading past its end is found.
        std::vector<char> payload(received.content.payload.begin(), received.content.payload.end());
        const mosquitto_message content = {.mid = 1,
                                           .topic = topic.data(),
                                           .payload = payload.empty() ? nullptr : payload.data(),
                                           .payloadlen = static_cast<int>(payload.size()),
                                           .qos = 1,
                                           .retain = received.content.retain};
        call_back(client, client.on_message, &content);
        break;
    }
    case packet_kind::PUBACK:
        if (client.in_flight.erase(received.mid) != 0) {
            call_back(client, client.on_publish, received.mid);
        }
        while (!client.queued.empty() && client.in_flight.size() < MAX_INFLIGHT) {
            const packet next = client.queued.front();
            client.queued.pop_front();
            send_publication(client, next);
        }
        break;
    case packet_kind::SUBACK:
        call_back(client, client.on_subscribe, received.mid, 1, &received.code);
        break;
    case packet_kind::PING:
        client.ping.reset();
        break;
    default:
        break;
    }
    return MOSQ_ERR_SUCCESS;
}

int next_mid(mosquitto &client)
{
    client.last_mid = client.last_mid % 65535 + 1;
    return client.last_mid;
}

int send_request(mosquitto *client, packet_kind kind, int *mid_out, const char *filter)
{
    if (client == nullptr || !is_filter(filter)) {
        return MOSQ_ERR_INVAL;
    }
    if (client->socket == -1) {
        return MOSQ_ERR_NO_CONN;
    }
    const int mid = next_mid(*client);
    if (mid_out != nullptr) {
        *mid_out = mid;
    }
    send(*client, {.kind = kind, .mid = mid, .content = {filter, ""}});
    return MOSQ_ERR_SUCCESS;
}

std::optional<int> refusing(const char *call, std::string_view detail = {})
{
    const failure *const failure = internal::find_failure(call, detail);
    if (failure == nullptr) {
        return std::nullopt;
    }
    errno = failure->library_errno;
    return failure->code;
}

} // namespace

namespace sim
{

broker_behaviour &broker()
{
    return state().behaviour;
}

void answer_publication(size_t nth)
{
    state().client->input.push_back({.kind = packet_kind::PUBACK, .mid = state().unanswered.at(nth)});
    run();
}

void publish(const std::string &topic, const std::string &payload, bool retain)
{
    accept_message({topic, payload, retain});
    run();
}

void retain(const std::string &topic, const std::string &payload)
{
    state().retained[topic] = payload;
}

std::map<std::string, std::string> &retained()
{
    return state().retained;
}

void close_connection()
{
    state().client->peer_closed = true;
    run();
}

messages take_published()
{
    return std::exchange(state().published, {});
}

std::vector<std::string> take_requests()
{
    return std::exchange(state().requests, {});
}

bool is_library_in_use()
{
    return state().library_users != 0 || state().client != nullptr;
}

std::string client_settings()
{
    return state().client_settings;
}

void PrintTo(const message &message, std::ostream *stream)
{
    const bool is_text =
        std::ranges::all_of(message.payload, [](char byte) { return byte >= ' ' && byte <= '~'; });
    *stream << message.topic << " = " << (is_text ? '"' + message.payload + '"' : hex(message.payload))
            << (message.retain ? "" : " (not retained)");
}

namespace internal
{

bool is_mqtt_readable()
{
    const mosquitto *const client = state().client;
    return !client->input.empty() || client->peer_closed;
}

bool is_mqtt_writable()
{
    return state().behaviour.reads;
}

} // namespace internal

} // namespace sim

//
// The client library's functions
//

extern "C" {

int mosquitto_lib_init()
{
    internal::find_failure("mosquitto_lib_init");
    state().library_users++;
    srand(4242); // the library draws its own numbers
    return MOSQ_ERR_SUCCESS;
}

int mosquitto_lib_cleanup()
{
    internal::find_failure("mosquitto_lib_cleanup");
    state().library_users--;
    EXPECT_EQ(state().client, nullptr) << "the library is cleaned up with a client left";
    return MOSQ_ERR_SUCCESS;
}

mosquitto *mosquitto_new(const char *id, bool clean_session, void *)
{
    if (internal::failing("mosquitto_new")) {
        return nullptr;
    }
    auto *const client = new mosquitto;
    client->id = id;
    client->clean = clean_session;
    state().client = client;
    return client;
}

void mosquitto_destroy(mosquitto *client)
{
    internal::find_failure("mosquitto_destroy");
    close_socket(*client);
    delete client;
    state().client = nullptr;
}

void mosquitto_connect_callback_set(mosquitto *client, void (*callback)(mosquitto *, void *, int))
{
    client->on_connect = callback;
}

void mosquitto_disconnect_callback_set(mosquitto *client, void (*callback)(mosquitto *, void *, int))
{
    client->on_disconnect = callback;
}

void mosquitto_publish_callback_set(mosquitto *client, void (*callback)(mosquitto *, void *, int))
{
    client->on_publish = callback;
}

void mosquitto_subscribe_callback_set(mosquitto *client,
                                      void (*callback)(mosquitto *, void *, int, int, const int *))
{
    client->on_subscribe = callback;
}

void mosquitto_message_callback_set(mosquitto *client,
                                    void (*callback)(mosquitto *, void *, const mosquitto_message *))
{
    client->on_message = callback;
}

int mosquitto_int_option(mosquitto *client, mosq_opt_t option, int value)
{
    if (option != MOSQ_OPT_TCP_NODELAY) {
        return MOSQ_ERR_INVAL;
    }
    client->nodelay = value;
    return MOSQ_ERR_SUCCESS;
}

int mosquitto_connect(mosquitto *client, const char *host, int port, int keepalive)
{
    if (const auto result = refusing("mosquitto_connect")) {
        return *result;
    }
    broker_state &broker = state();
    if (broker.behaviour.refused_connections > 0) {
        broker.behaviour.refused_connections--;
        errno = ECONNREFUSED;
        return MOSQ_ERR_ERRNO;
    }
    broker.client_settings = "id=" + client->id + " clean=" + std::to_string(client->clean) +
                             " host=" + host + " port=" + std::to_string(port) +
                             " keepalive=" + std::to_string(keepalive) +
                             " nodelay=" + std::to_string(client->nodelay);
    client->keepalive_s = keepalive;
    client->socket = internal::open_descriptor("mqtt");
    client->state = client_state::CONNECTING;
    client->last_input = client->last_output = now();
    send(*client, {.kind = packet_kind::CONNECT});
    return MOSQ_ERR_SUCCESS;
}

int mosquitto_disconnect(mosquitto *client)
{
    if (const auto result = refusing("mosquitto_disconnect")) {
        return *result;
    }
    if (client == nullptr) {
        return MOSQ_ERR_INVAL;
    }
    if (client->socket == -1) {
        return MOSQ_ERR_NO_CONN;
    }
    client->state = client_state::DISCONNECTING;
    send(*client, {.kind = packet_kind::DISCONNECT});
    return MOSQ_ERR_SUCCESS;
}

int mosquitto_publish(mosquitto *client, int *mid_out, const char *topic, int length, const void *payload,
                      int qos, bool retain)
{
    if (const auto result = refusing("mosquitto_publish", topic)) {
        return *result;
    }
    EXPECT_EQ(qos, 1);
    if (client == nullptr || topic[0] == '\0' || has_wildcard(topic)) {
        return MOSQ_ERR_INVAL;
    }
    packet publication = {
        .kind = packet_kind::PUBLISH, .mid = next_mid(*client), .content = {topic, "", retain}};
    if (length > 0) {
        publication.content.payload.assign(static_cast<const char *>(payload), static_cast<size_t>(length));
    }
    *mid_out = publication.mid;
    if (client->in_flight.size() >= MAX_INFLIGHT) {
        client->queued.push_back(publication);
        return MOSQ_ERR_SUCCESS;
    }
    if (client->socket == -1) {
        return MOSQ_ERR_NO_CONN;
    }
    send_publication(*client, publication);
    return MOSQ_ERR_SUCCESS;
}

int mosquitto_subscribe(mosquitto *client, int *mid_out, const char *filter, int qos)
{
    if (const auto result = refusing("mosquitto_subscribe", filter)) {
        return *result;
    }
    EXPECT_EQ(qos, 1);
    return send_request(client, packet_kind::SUBSCRIBE, mid_out, filter);
}

int mosquitto_unsubscribe(mosquitto *client, int *mid_out, const char *filter)
{
    if (const auto result = refusing("mosquitto_unsubscribe", filter)) {
        return *result;
    }
    return send_request(client, packet_kind::UNSUBSCRIBE, mid_out, filter);
}

int mosquitto_loop_read(mosquitto *client, int max_packets)
{
    if (const auto result = refusing("mosquitto_loop_read")) {
        return *result;
    }
    EXPECT_EQ(max_packets, 1);
    if (client->socket == -1) {
        return lose_connection(*client, MOSQ_ERR_NO_CONN);
    }
    // The library reads as many packets as it has publications outstanding.
    const size_t packets = std::max<size_t>(1, client->in_flight.size() + client->queued.size());
    for (size_t i = 0; i < packets; i++) {
        if (client->input.empty()) {
            if (client->peer_closed) {
                return lose_connection(*client, MOSQ_ERR_CONN_LOST);
            }
            errno = EAGAIN;
            break;
        }
        const packet received = client->input.front();
        client->input.pop_front();
        const int result = handle(*client, received);
        if (result != MOSQ_ERR_SUCCESS) {
            return lose_connection(*client, result);
        }
    }
    return MOSQ_ERR_SUCCESS;
}

int mosquitto_loop_write(mosquitto *client, int max_packets)
{
    if (const auto result = refusing("mosquitto_loop_write")) {
        return *result;
    }
    EXPECT_EQ(max_packets, 1);
    if (client->socket == -1) {
        return lose_connection(*client, MOSQ_ERR_NO_CONN);
    }
    write_output(*client);
    return MOSQ_ERR_SUCCESS;
}

int mosquitto_loop_misc(mosquitto *client)
{
    if (const auto result = refusing("mosquitto_loop_misc")) {
        return *result;
    }
    if (client->socket == -1) {
        return MOSQ_ERR_NO_CONN;
    }
    const duration keepalive = std::chrono::seconds(client->keepalive_s);
    if (client->ping && now() - *client->ping >= keepalive) {
        lose_connection(*client, MOSQ_ERR_KEEPALIVE);
        return MOSQ_ERR_CONN_LOST;
    }
    if (!client->ping && client->state == client_state::CONNECTED &&
        (now() - client->last_output >= keepalive || now() - client->last_input >= keepalive)) {
        client->ping = now();
        send(*client, {.kind = packet_kind::PING});
    }
    return MOSQ_ERR_SUCCESS;
}

int mosquitto_loop(mosquitto *client, int timeout_ms, int max_packets)
{
    if (const auto result = refusing("mosquitto_loop")) {
        return *result;
    }
    EXPECT_EQ(max_packets, 1);
    if (client->socket == -1) {
        return MOSQ_ERR_NO_CONN;
    }
    const duration end = now() + std::chrono::milliseconds(timeout_ms);
    const auto has_work = [client] {
        return !client->input.empty() || client->peer_closed ||
               (!client->output.empty() && state().behaviour.reads);
    };
    if (internal::wait(has_work, [end] { return std::optional(end); }) == internal::wakeup::READY) {
        if (!client->output.empty()) {
            write_output(*client);
        }
        if (!client->input.empty() || client->peer_closed) {
            const int result = mosquitto_loop_read(client, 1);
            if (result != MOSQ_ERR_SUCCESS) {
                return result;
            }
        }
    }
    return mosquitto_loop_misc(client);
}

bool mosquitto_want_write(mosquitto *client)
{
    internal::find_failure("mosquitto_want_write");
    return !client->output.empty();
}

int mosquitto_socket(mosquitto *client)
{
    return internal::failing("mosquitto_socket") ? -1 : client->socket;
}

int mosquitto_topic_matches_sub(const char *filter, const char *topic, bool *result_out)
{
    if (const auto result = refusing("mosquitto_topic_matches_sub", filter == nullptr ? "" : filter)) {
        return *result;
    }
    if (filter == nullptr || topic == nullptr || result_out == nullptr || filter[0] == '\0' ||
        topic[0] == '\0' || !is_filter(filter) || has_wildcard(topic)) {
        return MOSQ_ERR_INVAL;
    }
    *result_out = matches(filter, topic);
    return MOSQ_ERR_SUCCESS;
}

int mosquitto_sub_topic_check(const char *filter)
{
    if (const auto result = refusing("mosquitto_sub_topic_check")) {
        return *result;
    }
    const std::string_view text = filter;
    const bool is_valid = is_filter(text) && text.size() <= MAX_FILTER_LENGTH;
    return is_valid ? MOSQ_ERR_SUCCESS : MOSQ_ERR_INVAL;
}

const char *mosquitto_strerror(int error)
{
    static constexpr const char *TEXTS[] = {
        "No error.",
        "Out of memory.",
        "A network protocol error occurred when communicating with the broker.",
        "Invalid function arguments provided.",
        "The client is not currently connected.",
        "The connection was refused.",
        "Message not found (internal error).",
        "The connection was lost.",
        "A TLS error occurred.",
        "Payload too large.",
        "This feature is not supported.",
        "Authorisation failed.",
        "Access denied by ACL.",
        "Unknown error.",
        nullptr, // of errno
        "Lookup error.",
    };
    if (error == MOSQ_ERR_ERRNO) {
        return strerror(errno);
    }
    return error >= 0 && error < static_cast<int>(std::size(TEXTS)) ? TEXTS[error] : "Unknown error.";
}

} // extern "C"
