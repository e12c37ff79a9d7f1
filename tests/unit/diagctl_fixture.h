// A network fed by the tests, and what is shown of it.
#pragma once

#include "common/bytes.h"
#include "screen/changes.h"
#include "screen/top.h"

#include <gtest/gtest.h>

#include <algorithm>

using lines = std::vector<std::string>;

inline const std::string LOCAL = "02-00-00-00-00-01";
inline const std::string REMOTE = "02-00-00-00-00-02";
constexpr mac_address LOCAL_MAC = {2, 0, 0, 0, 0, 1};
constexpr mac_address REMOTE_MAC = {2, 0, 0, 0, 0, 2};
inline const std::string NONE_LISTED(1, '\0');

inline bytes as_bytes(std::string_view text)
{
    return {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
}

inline std::string list_record(const std::string &mac_tail, char number, char ports)
{
    return std::string("\x02\0\0\0\0", 5) + mac_tail + number + ports;
}

inline std::string stats_of(uint64_t good, uint32_t errored, uint32_t ratio)
{
    uint8_t block[STATS_BLOCK_SIZE] = {};
    store_be(block + STATS_GOOD_FRAMES, good);
    store_be(block + STATS_ERRORED_FRAMES, errored);
    store_be(block + STATS_ERROR_RATIO_PPM, ratio);
    return {std::begin(block), std::end(block)};
}

inline std::string text_of(const screen_lines &shown)
{
    std::string text;
    for (const screen_line &line : shown) {
        for (const styled_text &part : line) {
            text += part.text;
        }
        text += '\n';
    }
    return text;
}

class diagctl : public testing::Test
{
protected:
    // A second passes, then a message comes: the sentences of its changes.
    lines apply(const std::string &topic, const std::string &payload, bool is_retained = false)
    {
        now.steady += std::chrono::seconds(1);
        lines texts;
        last = network_apply(net, topic, as_bytes(payload), is_retained, now, detail);
        recent.note(net, topic, last, now);
        for (const change &item : last) {
            texts.push_back(change_text(net, item));
        }
        return texts;
    }
    lines retained(const std::string &topic, const std::string &payload)
    {
        return apply(topic, payload, true);
    }
    lines of_node(const std::string &mac, const std::string &name, const std::string &payload)
    {
        return apply("pub/diag/" + mac + "/" + name, payload);
    }
    void announce_local() { retained("pub/diag/local_node", LOCAL); }
    const node &remote() { return net.nodes.at(REMOTE_MAC); }

    std::string shown(size_t width, size_t height, const stats_target *target = nullptr)
    {
        const screen_lines all = view_render(
            {"broker:1", net, events, recent, target, node_order::MAC, {}, false, width, height}, now);
        for (const screen_line &line : all) {
            widest = std::max(widest, length_of(line));
        }
        return text_of(all);
    }

    network net;
    changes last;
    change_detail detail = change_detail::NETWORK;
    std::deque<event> events;
    trends recent;
    moment now{};
    size_t widest = 0;
};
