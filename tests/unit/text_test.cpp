#include "common/bytes.h"
#include "common/text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <optional>

TEST(text, payload_ends_at_its_length_or_first_nul)
{
    EXPECT_EQ(payload_text("abcdef", 3), "abc");
    EXPECT_EQ(payload_text("ab\0cd", 5), "ab");
    EXPECT_EQ(payload_text("abc", 0), "");
    EXPECT_EQ(payload_text("abc", -1), "");
    EXPECT_EQ(payload_text(nullptr, 3), "");
}

TEST(text, number_is_the_whole_text_and_fits_32_bits)
{
    const struct {
        const char *text;
        std::optional<uint32_t> expected;
    } cases[] = {
        {"", 0},
        {"0", 0},
        {"42", 42},
        {"010", 8},
        {"0x10", 16},
        {"0XfF", 255},
        {"4294967295", UINT32_MAX},
        {"0xFFFFFFFF", UINT32_MAX},
        {"037777777777", UINT32_MAX},
        {"4294967296", {}},
        {"18446744073709551617", {}},
        {"0x100000000", {}},
        {"-1", {}},
        {"+1", {}},
        {" 1", {}},
        {"1 ", {}},
        {"1\n", {}},
        {"5x", {}},
        {"08", {}},
        {"0x", {}},
        {"0x-1", {}},
        {"0x 1", {}},
        {"00x1", {}},
        {"x", {}},
    };
    for (const auto &test : cases) {
        uint32_t value = 77;
        EXPECT_EQ(parse_u32(test.text, value), test.expected.has_value()) << '"' << test.text << '"';
        EXPECT_EQ(value, test.expected.value_or(77)) << '"' << test.text << '"';
    }
}

TEST(bytes, wire_order_does_not_depend_on_host_order_or_alignment)
{
    const uint8_t bytes[] = {0xEE, 0x81, 0x02, 0x03, 0x84, 0x05, 0x06, 0x07, 0x88};
    EXPECT_EQ(load_be<uint64_t>(bytes + 1), 0x8102038405060788U);
    EXPECT_EQ(load_be<uint32_t>(bytes + 1), 0x81020384U);
    EXPECT_EQ(load_be<uint16_t>(bytes + 1), 0x8102U);
    EXPECT_EQ(load_le<uint32_t>(bytes + 1), 0x84030281U);
    EXPECT_EQ(load_le<uint16_t>(bytes + 1), 0x0281U);
    EXPECT_EQ(load_be<uint8_t>(bytes + 1), 0x81U);

    uint8_t copy[sizeof bytes] = {0xEE};
    store_be(copy + 1, uint64_t{0x8102038405060788});
    EXPECT_EQ(memcmp(copy, bytes, sizeof bytes), 0);
    store_le(copy + 1, uint32_t{0x84030281});
    EXPECT_EQ(memcmp(copy, bytes, sizeof bytes), 0);
    store_host(copy + 1, load_host<int32_t>(bytes + 1));
    EXPECT_EQ(memcmp(copy, bytes, sizeof bytes), 0);

    for (const size_t width : {sizeof(uint16_t), sizeof(uint32_t), sizeof(uint64_t)}) {
        const uint64_t value = load_be(bytes + 1, width);
        EXPECT_EQ(value, load_be<uint64_t>(bytes + 1) >> (8 * (sizeof(uint64_t) - width)));
        uint8_t host[sizeof bytes] = {};
        store_host(host + 1, width, value);
        EXPECT_EQ(load_host(host + 1, width), value) << width;
        EXPECT_EQ(std::count(host, std::end(host), 0), static_cast<long>(sizeof bytes - width));
        uint8_t wire[sizeof bytes] = {};
        store_be(wire + 1, width, value);
        EXPECT_EQ(memcmp(wire + 1, bytes + 1, width), 0);
        EXPECT_EQ(std::count(wire, std::end(wire), 0), static_cast<long>(sizeof bytes - width));
    }
    uint32_t host = 0;
    store_host(reinterpret_cast<uint8_t *>(&host), sizeof host, 0x81020384);
    EXPECT_EQ(host, 0x81020384);
}
