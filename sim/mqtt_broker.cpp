#include "mqtt_broker.h"

#include "process.h"

#include <algorithm>

namespace sim
{

mqtt_broker::stored &mqtt_broker::retained::operator[](topic_id topic)
{
    const size_t page = topic / PAGE;
    if (pages_.size() <= page) {
        pages_.resize(page + 1);
    }
    if (pages_[page] == nullptr) {
        pages_[page] = std::make_unique<std::array<stored, PAGE>>();
    }
    return (*pages_[page])[topic % PAGE];
}

const mqtt_broker::stored *mqtt_broker::retained::find(topic_id topic) const
{
    const size_t page = topic / PAGE;
    return page >= pages_.size() || pages_[page] == nullptr ? nullptr : &(*pages_[page])[topic % PAGE];
}

void mqtt_broker::start()
{
    is_running_ = true;
}

void mqtt_broker::stop()
{
    is_running_ = false;
    store_.clear();
    close_session();
}

void mqtt_broker::close_session()
{
    if (connection_ != nullptr && !connection_->is_closed) {
        connection_->is_closed = true;
        connection_->to_client.clear();
        connection_->to_broker.clear();
        connection_->client_process->mark_ready(connection_->fd);
        connection_->client_process->run();
    }
}

mqtt_connection *mqtt_broker::connect(process &client, int fd, const std::string &settings)
{
    if (!is_running_) {
        return nullptr;
    }
    connection_ = std::make_unique<mqtt_connection>();
    connection_->client_process = &client;
    connection_->fd = fd;
    connection_->settings = settings;
    connection_->number = ++connections_;
    if (behaviour_.answers_connect) {
        reply({.type = mqtt_packet::kind::CONNACK, .code = behaviour_.connack});
    }
    return connection_.get();
}

void mqtt_broker::disconnect(mqtt_connection &connection)
{
    if (connection_.get() == &connection) {
        receive(connection.number); // what was written before the end arrives
        connection_.reset();
    }
}

void mqtt_broker::send(mqtt_connection &connection, mqtt_packet packet)
{
    if (connection.to_broker.empty()) {
        clock_.after<&mqtt_broker::receive>(random_.between(behaviour_.latency, behaviour_.latency * 2),
                                            *this, connection.number);
    }
    connection.to_broker.push_back(std::move(packet));
}

void mqtt_broker::reply(mqtt_packet packet)
{
    if (connection_->to_client.empty()) {
        clock_.after<&mqtt_broker::arrive>(random_.between(behaviour_.latency, behaviour_.latency * 2), *this,
                                           connection_->number);
    }
    connection_->to_client.push_back(std::move(packet));
}

void mqtt_broker::receive(uint64_t connection)
{
    if (connection_ == nullptr || connection_->number != connection || connection_->is_closed) {
        return;
    }
    std::vector<mqtt_packet> packets;
    packets.swap(connection_->to_broker);
    for (const mqtt_packet &packet : packets) {
        accept(packet);
    }
}

void mqtt_broker::arrive(uint64_t connection)
{
    if (connection_ == nullptr || connection_->number != connection || connection_->is_closed) {
        return;
    }
    std::ranges::move(connection_->to_client, std::back_inserter(connection_->arrived));
    connection_->to_client.clear();
    connection_->client_process->mark_ready(connection_->fd);
    connection_->client_process->run();
}

void mqtt_broker::acknowledge(int message_id)
{
    reply({.type = mqtt_packet::kind::PUBACK, .message_id = message_id});
}

void mqtt_broker::acknowledge_late(uint64_t connection_and_message)
{
    if (connection_ != nullptr && connection_->number == connection_and_message >> 32) {
        acknowledge(static_cast<int>(connection_and_message & UINT32_MAX));
    }
}

void mqtt_broker::accept(const mqtt_packet &packet)
{
    observer_.received(packet);
    switch (packet.type) {
    case mqtt_packet::kind::PUBLISH:
        if (behaviour_.ack_delay > nanoseconds(0)) {
            clock_.after<&mqtt_broker::acknowledge_late>(
                random_.between(nanoseconds(0), behaviour_.ack_delay), *this,
                (connection_->number << 32) | static_cast<uint32_t>(packet.message_id));
        } else if (behaviour_.ack_loss <= 0 || !random_.chance(behaviour_.ack_loss)) {
            acknowledge(packet.message_id);
        }
        deliver(packet.topic, store_[packet.topic], packet.payload, true, packet.is_retained);
        break;
    case mqtt_packet::kind::SUBSCRIBE:
        subscribe(packet);
        break;
    case mqtt_packet::kind::UNSUBSCRIBE:
        std::erase(connection_->filters, packet.topic);
        connection_->filter_changes++;
        break;
    default:
        break;
    }
}

void mqtt_broker::subscribe(const mqtt_packet &packet)
{
    if (std::ranges::find(connection_->filters, packet.topic) == connection_->filters.end()) {
        connection_->filters.push_back(packet.topic);
        connection_->filter_changes++;
    }
    if (behaviour_.answers_subscribe) {
        reply({.type = mqtt_packet::kind::SUBACK,
               .message_id = packet.message_id,
               .code = behaviour_.granted_qos});
    }
    const bool is_one_topic = !topics_.has_wildcard(packet.topic);
    const size_t first = is_one_topic ? packet.topic : 0;
    const size_t limit = is_one_topic ? first + 1 : store_.limit();
    for (size_t i = first; i < limit; i++) {
        const auto topic = static_cast<topic_id>(i);
        const shared_bytes *const payload = find(topic);
        if (payload != nullptr && topics_.matches(packet.topic, topic)) {
            reply({.type = mqtt_packet::kind::PUBLISH,
                   .topic = topic,
                   .is_retained = true,
                   .payload = *payload});
        }
    }
}

bool mqtt_broker::is_wanted(topic_id topic, stored &place)
{
    if (connection_ == nullptr || connection_->is_closed) {
        return false;
    }
    const auto state = static_cast<uint32_t>(connection_->number << 12) + connection_->filter_changes;
    if (place.matched_at != state) {
        place.matched_at = state;
        place.matches = std::ranges::any_of(connection_->filters,
                                            [&](topic_id filter) { return topics_.matches(filter, topic); });
    }
    return place.matches;
}

bool mqtt_broker::deliver(topic_id topic, stored &place, const shared_bytes &payload, bool is_from_daemon,
                          bool retain)
{
    if (retain) {
        place.payload = payload;
        place.is_in_doubt = is_from_daemon && clock_.now() < doubtful_until_;
    }
    const bool is_delivered = is_wanted(topic, place);
    if (is_delivered) {
        reply({.type = mqtt_packet::kind::PUBLISH, .topic = topic, .payload = payload});
    }
    observer_.published({topic, payload, retain, is_from_daemon});
    return is_delivered;
}

bool mqtt_broker::publish(topic_id topic, const shared_bytes &payload, bool retain)
{
    return is_running_ && deliver(topic, store_[topic], payload, false, retain);
}

bool mqtt_broker::is_in_doubt(topic_id topic) const
{
    const stored *const found = store_.find(topic);
    return found != nullptr && found->is_in_doubt;
}

const shared_bytes *mqtt_broker::find(topic_id topic) const
{
    const stored *const found = store_.find(topic);
    return found == nullptr || found->payload.empty() ? nullptr : &found->payload;
}

} // namespace sim
