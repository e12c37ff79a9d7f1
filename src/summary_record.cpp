#include "summary_record.h"

#include "common/bytes.h"

#include <cstring>

summary_walk summary_next_section(std::span<const uint8_t> &payload, summary_section &section)
{
    if (payload.size() <= SUMMARY_SECTION_HEADER_SIZE) {
        return summary_walk::END;
    }
    section.type = payload[0];
    section.length = load_be<uint16_t>(&payload[1]);
    payload = payload.subspan(SUMMARY_SECTION_HEADER_SIZE);
    if (section.type >= SUMMARY_INFO_COUNT) {
        return summary_walk::UNKNOWN_TYPE;
    }
    if (section.length > payload.size()) {
        return summary_walk::TRUNCATED;
    }
    section.data = payload.first(section.length);
    payload = payload.subspan(section.length);
    return section.length == summary_info_lengths[section.type] ? summary_walk::SECTION
                                                                : summary_walk::WRONG_LENGTH;
}

size_t summary_encode(const uint8_t (&data)[SUMMARY_SIZE], unsigned types,
                      uint8_t (&payload)[SUMMARY_MAX_PAYLOAD])
{
    size_t length = 0;
    for (unsigned type = 0; type < SUMMARY_INFO_COUNT; type++) {
        if ((types & 1U << type) == 0) {
            continue;
        }
        payload[length] = static_cast<uint8_t>(type);
        store_be(payload + length + 1, summary_info_lengths[type]);
        length += SUMMARY_SECTION_HEADER_SIZE;
        memcpy(payload + length, data + summary_info_offsets[type], summary_info_lengths[type]);
        length += summary_info_lengths[type];
    }
    return length;
}
