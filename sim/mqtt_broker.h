// The MQTT broker of one card: retained values, the session of the daemon, and the faults that a broker may have.
#pragma once

#include "random.h"
#include "shared_bytes.h"
#include "timeline.h"
#include "topic_table.h"

#include <array>
#include <deque>
#include <memory>
#include <string>
#include <vector>

struct mosquitto;

namespace sim
{

class process;

struct mqtt_packet {
    enum class kind { CONNACK, PUBLISH, PUBACK, SUBSCRIBE, SUBACK, UNSUBSCRIBE } type;
    int message_id = 0;
    topic_id topic = 0; // or the filter
    int code = 0;       // of the answer to a connection, or the granted QoS
    bool is_retained = false;
    shared_bytes payload = {};
};

// Both directions between the daemon and the broker. What is on the wire arrives all at once after the latency.
struct mqtt_connection {
    process *client_process = nullptr;
    std::string settings = {}; // of the client, as text
    int fd = -1;
    uint64_t number = 0;
    std::vector<mqtt_packet> to_broker;
    std::vector<mqtt_packet> to_client;
    std::deque<mqtt_packet> arrived; // at the client, unread
    std::vector<topic_id> filters;
    uint32_t filter_changes = 1;
    bool is_closed = false; // by the broker
};

struct mqtt_message {
    topic_id topic;
    const shared_bytes &payload;
    bool is_retained;
    bool is_from_daemon;
};

class mqtt_broker
{
public:
    static constexpr const char *ADDRESS = "127.0.0.1";
    static constexpr int PORT = 1885;

    // What a broker does, besides what it should.
    struct behaviour {
        nanoseconds latency = milliseconds(1); // each way; drawn up to twice that
        nanoseconds ack_delay{};               // drawn up to that
        double ack_loss = 0;
        int connack = 0; // the code
        int granted_qos = 1;
        bool answers_connect = true;
        bool answers_subscribe = true;
        bool reads = true; // false: the client's socket is full
    };
    class observer
    {
    public:
        virtual void published(const mqtt_message &message) = 0;
        // Whatever the daemon sends.
        virtual void received(const mqtt_packet &) {}

    protected:
        ~observer() = default;
    };

    mqtt_broker(timeline &clock, topic_table &topics, observer &watcher, random_stream random)
        : clock_(clock), topics_(topics), observer_(watcher), random_(random)
    {
    }

    void start();
    // Retained values are lost and the session is closed.
    void stop();
    void close_session();
    // For a publication that ack_loss has left without one.
    void acknowledge(int message_id);
    bool is_running() const { return is_running_; }
    behaviour &conduct() { return behaviour_; }

    // A message of another client than the daemon; true when the daemon gets it.
    bool publish(topic_id topic, const shared_bytes &payload, bool retain);
    // The retained value, null when there is none.
    const shared_bytes *find(topic_id topic) const;

    // Until then a publication may be repeated for want of an acknowledgement, an older one after a newer one. Its topic
    // is in doubt until something is published there later.
    void doubt_until(nanoseconds end) { doubtful_until_ = std::max(doubtful_until_, end); }
    bool is_in_doubt(topic_id topic) const;

    // For the client library. Null when nobody listens.
    mqtt_connection *connect(process &client, int fd, const std::string &settings);
    const mqtt_connection *connection() const { return connection_.get(); }
    void disconnect(mqtt_connection &connection);
    void send(mqtt_connection &connection, mqtt_packet packet);
    topic_table &topics() { return topics_; }

private:
    struct stored {
        shared_bytes payload; // empty when nothing is retained
        uint32_t matched_at = 0;
        bool matches = false;
        bool is_in_doubt = false;
    };
    // In pages, as the numbers of topics that a broker holds lie close together.
    class retained
    {
    public:
        static constexpr size_t PAGE = 64;

        stored &operator[](topic_id topic);
        const stored *find(topic_id topic) const;
        size_t limit() const { return pages_.size() * PAGE; } // of the topics
        void clear() { pages_.clear(); }

    private:
        std::vector<std::unique_ptr<std::array<stored, PAGE>>> pages_;
    };
    bool deliver(topic_id topic, stored &place, const shared_bytes &payload, bool is_from_daemon,
                 bool retain);
    bool is_wanted(topic_id topic, stored &place);
    void reply(mqtt_packet packet);
    void accept(const mqtt_packet &packet);
    void receive(uint64_t connection);
    void arrive(uint64_t connection);
    void acknowledge_late(uint64_t connection_and_message);
    void subscribe(const mqtt_packet &packet);

    timeline &clock_;
    topic_table &topics_;
    observer &observer_;
    random_stream random_;
    behaviour behaviour_;
    bool is_running_ = false;
    nanoseconds doubtful_until_{};
    uint64_t connections_ = 0;
    std::unique_ptr<mqtt_connection> connection_;
    retained store_;
};

} // namespace sim
