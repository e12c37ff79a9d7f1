#include "packet.h"

#include "log_capture.h"

#include <gtest/gtest.h>

using namespace std::string_literals;

namespace
{

const std::string MAC = "\2\0\0\0\0\x9"s;

std::string datagram(int type, size_t length, const std::string &payload)
{
    return "\1"s + static_cast<char>(type) + MAC + static_cast<char>(length >> 8) +
           static_cast<char>(length) + payload;
}

// What the log says about the datagram, "" when it is accepted.
std::string fault_of(const std::string &bytes, packet &result)
{
    clear_log();
    const bool is_accepted =
        packet_parse(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size(), result);
    EXPECT_EQ(logged_lines().size(), is_accepted ? 0U : 1U);
    return is_accepted ? "" : logged_messages().at(0);
}

} // namespace

// docs/protocol.md gives the least payloads, which the sim tests check.
TEST(packet, text_ends_in_its_payload_and_topic_data_has_more)
{
    const std::string numbers(10, '\0');
    const struct {
        int type;
        std::string payload;
        const char *fault;
    } rows[] = {
        {2, numbers + "a\0"s, nullptr},
        {2, numbers + "\0a"s, nullptr},
        {2, numbers + "ab", "subscribe request"},
        {3, numbers.substr(2) + "a\0"s, nullptr},
        {3, numbers.substr(2) + "ab", "unsubscribe request"},
        {6, "a\0b"s, nullptr},
        {6, "\0b"s, nullptr},
        {6, "ab", "topic data"},
    };
    packet result;
    for (const auto &row : rows) {
        // A NUL behind the declared payload doesn't count.
        for (const std::string &behind : {""s, "\0"s}) {
            const std::string bytes = datagram(row.type, row.payload.size(), row.payload + behind);
            const std::string fault = fault_of(bytes, result);
            EXPECT_EQ(fault, row.fault == nullptr ? ""s : "received invalid "s + row.fault + ", ignoring");
            if (row.fault == nullptr) {
                EXPECT_EQ(result.type, row.type);
                EXPECT_EQ(std::string(result.payload.begin(), result.payload.end()), row.payload);
                EXPECT_EQ(std::string(result.source_mac, result.source_mac + 6), MAC);
            }
        }
    }
    for (const std::string &payload : {"a\0"s, "\0"s}) {
        EXPECT_EQ(fault_of(datagram(6, payload.size(), payload), result),
                  "received empty topic data, ignoring");
    }
}

TEST(packet, header_is_checked_in_order)
{
    const std::string filler(1015, 'x');
    const std::pair<std::string, const char *> rows[] = {
        {datagram(0, 0xFFFF, filler), "received packet is too large for buffer (1025 bytes, buffer is 1024)"},
        {datagram(12, 1014, filler.substr(1)), ""},
        {"", "packet is too small (0 bytes), ignoring"},
        {datagram(12, 0, "").substr(1), "packet is too small (9 bytes), ignoring"},
        {datagram(12, 0, ""), ""},
        {datagram(0, 30, filler.substr(0, 20)),
         "received packet has wrong length (30, should be 20), ignoring"},
        {datagram(12, 256, filler.substr(0, 255)),
         "received packet has wrong length (256, should be 255), ignoring"},
        {datagram(0, 0, ""), "packet has invalid type (00), ignoring"},
        {datagram(13, 0, ""), "packet has invalid type (0D), ignoring"},
        {datagram(255, 0, ""), "packet has invalid type (FF), ignoring"},
        {"\7" + datagram(12, 0, "").substr(1), ""}, // of another version
    };
    packet result;
    for (const auto &[bytes, fault] : rows) {
        EXPECT_EQ(fault_of(bytes, result), fault);
    }
}
