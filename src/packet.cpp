#include "packet.h"

#include "common/bytes.h"
#include "common/lumlog.h"
#include "common/netif.h"

#include <sys/types.h>

#include <algorithm>
#include <cstring>

namespace
{

// What a packet lacks is a fault of the fire network's exchange: operators find it under that module's name.
constexpr const char *log_source = "remote";

// What a payload must have to be handled, and what is logged where it has not.
constexpr uint8_t NO_TEXT = UINT8_MAX;
struct payload_check {
    packet_type type;
    uint8_t min_payload = 0;
    uint8_t text_offset = NO_TEXT; // of the topic or filter, up to its NUL, in the payload
    const char *invalid = nullptr; // the payload is too short or its text has no NUL
    const char *empty = nullptr;   // nothing follows the text; null where nothing has to
};

constexpr payload_check CHECKS[PACKET_TYPES] = {
    {.type = PACKET_SUMMARY},
    {.type = PACKET_SUBSCRIBE,
     .min_payload = SUBSCRIBE_FILTER + 2, // one character and the NUL
     .text_offset = SUBSCRIBE_FILTER,
     .invalid = "received invalid subscribe request, ignoring"},
    {.type = PACKET_UNSUBSCRIBE,
     .min_payload = UNSUBSCRIBE_FILTER + 2,
     .text_offset = UNSUBSCRIBE_FILTER,
     .invalid = "received invalid unsubscribe request, ignoring"},
    {.type = PACKET_UNSUBSCRIBE_ALL,
     .min_payload = REQUEST_CLIENT_ID + CLIENT_ID_SIZE,
     .invalid = "received invalid unsubscribe all request, ignoring"},
    {.type = PACKET_ACK,
     .min_payload = REQUEST_ID_SIZE,
     .invalid = "received invalid acknowledgement, ignoring"},
    {.type = PACKET_TOPIC_DATA,
     .text_offset = 0,
     .invalid = "received invalid topic data, ignoring",
     .empty = "received empty topic data, ignoring"},
    {.type = PACKET_CLIENT_KEEPALIVE,
     .min_payload = CLIENT_ID_SIZE,
     .invalid = "received invalid client keepalive, ignoring"},
    {.type = PACKET_RESET_STATS,
     .min_payload = 1,
     .invalid = "received invalid reset-stats request, ignoring"},
    {.type = PACKET_RESET_ALL_STATS},
    {.type = PACKET_ACTIVATE,
     .min_payload = DOWNLOAD_VALUE + 1,
     .invalid = "received invalid activate or remote download request, ignoring"},
    {.type = PACKET_REMOTE_DOWNLOAD,
     .min_payload = DOWNLOAD_VALUE + 1,
     .invalid = "received invalid activate or remote download request, ignoring"},
    {.type = PACKET_GOODBYE},
};
static_assert(packet_rows_in_order(CHECKS));

// What is wrong with the payload, null when it may be handled.
const char *find_fault(const payload_check &check, std::span<const uint8_t> payload)
{
    if (payload.size() < check.min_payload) {
        return check.invalid;
    }
    if (check.text_offset == NO_TEXT) {
        return nullptr;
    }
    const auto nul =
        std::find(payload.begin() + static_cast<ptrdiff_t>(check.text_offset), payload.end(), uint8_t{0});
    if (nul == payload.end()) {
        return check.invalid;
    }
    return nul + 1 == payload.end() ? check.empty : nullptr;
}

} // namespace

void packet_write_header(uint8_t *header, packet_type type, const uint8_t *source_mac, size_t payload_length)
{
    header[PACKET_OFFSET_VERSION] = PACKET_VERSION;
    header[PACKET_OFFSET_TYPE] = type;
    memcpy(header + PACKET_OFFSET_SOURCE_MAC, source_mac, MAC_SIZE);
    store_be(header + PACKET_OFFSET_LENGTH, static_cast<uint16_t>(payload_length));
}

bool packet_parse(const uint8_t *buffer, size_t size, packet &packet_out)
{
    if (size > MAX_PACKET_SIZE) {
        log_error("received packet is too large for buffer (%zd bytes, buffer is %zu)",
                  static_cast<ssize_t>(size), MAX_PACKET_SIZE);
        return false;
    }
    if (size < HEADER_SIZE) {
        log_error("packet is too small (%zd bytes), ignoring", static_cast<ssize_t>(size));
        return false;
    }
    const uint16_t length = load_be<uint16_t>(buffer + PACKET_OFFSET_LENGTH);
    if (length > size - HEADER_SIZE) {
        log_error("received packet has wrong length (%u, should be %zu), ignoring", length,
                  size - HEADER_SIZE);
        return false;
    }
    const uint8_t type = buffer[PACKET_OFFSET_TYPE];
    if (type == 0 || type > PACKET_TYPES) {
        log_error("packet has invalid type (%02X), ignoring", type);
        return false;
    }
    const std::span<const uint8_t> payload(buffer + HEADER_SIZE, length);
    const char *const fault = find_fault(CHECKS[type - 1], payload);
    if (fault != nullptr) {
        log_error("%s", fault);
        return false;
    }
    packet_out = {
        .type = type, .source_mac = buffer + PACKET_OFFSET_SOURCE_MAC, .payload = payload, .sender = {}};
    return true;
}
