// What the processes of one card say: the facts that the daemon there is to tell everybody, and what they look like on
// other cards, by the documents and not by the daemon's code.
#pragma once

#include "random.h"
#include "shared_bytes.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace sim
{

constexpr int PORTS = 4;
constexpr const char *PORT_NAMES[PORTS] = {"A", "B", "C", "D"}; // a card's ring goes through A and B
constexpr int RING_PORTS = 2;

struct port_facts {
    bool is_tracked = false;
    uint8_t media = 0;
    bool is_link_down = false;
    bool is_grounded = false;
    bool is_ring_port_down = false;
    uint8_t peer_node = 0; // not 0: miswired, to that node's port
    uint8_t peer_port = 0;
    uint64_t good_frames = 0;
    uint32_t errored_frames = 0;
};

// What every other node publishes of a node.
enum class item {
    PORT_SUMMARY,
    PORT_MEDIA,
    VERSIONS,
    JOB_NAME,
    JOB_REVISION,
    DOWNLOAD_STATUS,
    CF_FREE,
    M301,
    M702,
    COMM_LOSS,
    DOWNLOAD_PENDING,
    REPEATER,
    // only in the network-wide lists
    LINK_DOWN,
    GROUND,
    MISWIRED,
    RINGS,
    COUNT,
};
constexpr size_t ITEMS = static_cast<size_t>(item::COUNT);
constexpr size_t TOPIC_ITEMS = static_cast<size_t>(item::LINK_DOWN);

struct item_description {
    const char *topic; // pub/diag/<MAC>/...; null for the lists
    bool is_from_card; // another process publishes it on the node's own broker
    bool is_static;    // sent each minute only
    bool is_withdrawn; // when the node has gone
};
extern const std::array<item_description, ITEMS> ITEM_DESCRIPTIONS;

struct facts {
    std::array<port_facts, PORTS> ports;
    int32_t ring_state = 2;
    std::array<shared_bytes, ITEMS> own; // as the card's processes publish them, empty when gone

    uint8_t mask(bool port_facts::*fact) const;
    uint8_t miswired() const;
    bool is_degraded() const;
    // What other nodes publish of this item, the port summary excepted.
    std::string on_others(item which) const;
};

// A message of a card's process.
struct fact_message {
    std::string topic;
    shared_bytes payload;
    std::vector<item> changes; // what others see of it ...
    bool is_stamped = true;    // ... within 3 s; else when it is due anyway
};

// Everything that a card says when it starts, and one change drawn by chance.
std::vector<fact_message> all_messages(const facts &told, const std::string &mac);
fact_message change_by_chance(facts &told, const std::string &mac, random_stream &random);
fact_message link_message(const facts &told, int port);
fact_message stats_message(facts &told, int port, random_stream &random);

} // namespace sim
