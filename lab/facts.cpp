#include "facts.h"

#include "topics.h"

#include <mosquitto.h>

#include <map>
#include <vector>

namespace
{

constexpr int BROKER_PORT = 1885;
constexpr int KEEPALIVE_SECONDS = 10;

mosquitto *session = nullptr;
bool connected = false;
unsigned daemon_starts = 0;
std::map<std::string, std::vector<uint8_t>> values;

void publish(const std::string &topic, const std::vector<uint8_t> &value)
{
    if (connected) {
        mosquitto_publish(session, nullptr, topic.c_str(), static_cast<int>(value.size()), value.data(), 0,
                          true);
    }
}

void connect_cb(mosquitto *, void *, int result)
{
    if (result != 0) {
        return;
    }
    connected = true;
    // The daemon announces its node there when it has connected.
    mosquitto_subscribe(session, nullptr, LOCAL_NODE_TOPIC, 0);
    for (const auto &[topic, value] : values) {
        publish(topic, value);
    }
}

void disconnect_cb(mosquitto *, void *, int)
{
    connected = false;
}

void message_cb(mosquitto *, void *, const mosquitto_message *message)
{
    if (message->payloadlen > 0) {
        daemon_starts++;
    }
}

} // namespace

bool facts_open()
{
    mosquitto_lib_init();
    session = mosquitto_new("card", true, nullptr);
    if (session == nullptr) {
        return false;
    }
    mosquitto_int_option(session, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_callback_set(session, connect_cb);
    mosquitto_disconnect_callback_set(session, disconnect_cb);
    mosquitto_message_callback_set(session, message_cb);
    // The broker may start later than this card: facts_step tries again.
    mosquitto_connect(session, "127.0.0.1", BROKER_PORT, KEEPALIVE_SECONDS);
    return true;
}

int facts_fd()
{
    return mosquitto_socket(session);
}

bool facts_want_write()
{
    return mosquitto_want_write(session);
}

void facts_step()
{
    if (mosquitto_socket(session) == -1) {
        connected = false;
        mosquitto_reconnect(session);
        return;
    }
    mosquitto_loop_read(session, 1);
    mosquitto_loop_write(session, 1);
    mosquitto_loop_misc(session);
}

bool facts_connected()
{
    return connected;
}

unsigned facts_daemon_starts()
{
    return daemon_starts;
}

void fact_again(const std::string &topic, std::span<const uint8_t> value)
{
    std::vector<uint8_t> &kept = values[topic];
    kept.assign(value.begin(), value.end());
    publish(topic, kept);
}

void fact(const std::string &topic, std::span<const uint8_t> value)
{
    auto kept = values.find(topic);
    if (kept == values.end() ||
        !std::equal(value.begin(), value.end(), kept->second.begin(), kept->second.end())) {
        fact_again(topic, value);
    }
}

void fact(const std::string &topic, std::string_view value)
{
    fact(topic, std::span(reinterpret_cast<const uint8_t *>(value.data()), value.size()));
}
