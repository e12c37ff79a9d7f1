#include "stats.h"

#include "broker.h"
#include "common/bytes.h"
#include "common/lumlog.h"
#include "common/netif.h"
#include "common/record_list.h"
#include "common/text.h"
#include "common/unique_fd.h"
#include "hwinfo/hwinfo.h"
#include "records.h"
#include "summary.h"
#include "timer.h"
#include "topics.h"
#include "utils.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

namespace
{

// Operators search for the messages of this file as they are, "udpate" included.
constexpr const char *log_source = "stats";

constexpr timer_names PM = {"PM", "PM timer"};
constexpr time_t FIRST_TICK_SECONDS = 30;
constexpr int PM_PERIOD_MINUTES = 15;
constexpr time_t PM_PERIOD_SECONDS = 900;
constexpr int BOUNDARY_SECONDS = 30; // a tick that is nearer to a boundary is on it
constexpr int MINUTE_SECONDS = 60;
constexpr time_t UNKNOWN_TIME = -1; // in tv_sec
constexpr long HALF_SECOND_NS = 500'000'000;

using stats_block = std::array<uint8_t, STATS_BLOCK_SIZE>; // in host byte order, fields not aligned
using pm_record = std::array<uint8_t, PM_RECORD_SIZE>;     // likewise

// One of the two ways in which a port can be down, and the time it has spent so.
struct down_time {
    const char *name;
    size_t count_offset;                          // of the number of intervals in the statistics block
    size_t seconds_offset;                        // of their length
    bool down = true;                             // until the first report that it is up
    timespec since = {UNKNOWN_TIME, 0};           // monotonic, while down: start of what is not yet in total
    timespec total = {.tv_sec = 0, .tv_nsec = 0}; // accrued
};

// A tracked port. It exists as long as the port's last type was a fire type, and its subscriptions refer to
// it.
struct port_record {
    int port;
    topic_text stats_topic; // where its statistics are published
    unsigned media = LUM_TYPE_UNKNOWN;
    port_status status = PORT_STATUS_NONE;
    down_time link = {"link", STATS_LINK_DOWN_COUNT, STATS_LINK_DOWN_SECONDS};
    down_time erps = {"ERPS", STATS_ERPS_DOWN_COUNT, STATS_ERPS_DOWN_SECONDS};
    bool first_stats = true; // no statistics message has come yet
    stats_block reset_baseline = {};
    stats_block current = {};
    stats_block period_baseline = {};
    unsigned period_index = 0; // slot of the running period, which still holds the one of 24 hours ago
    std::array<pm_record, PM_PERIODS> periods = {};
    unsigned day_index = 0; // slot of the next day
    std::array<pm_record, PM_DAYS> days = {};
    unsigned day_start_index = 0; // slot of the running day's first period
    port_record *prev = nullptr;
    port_record *next = nullptr;
};

char *macstr; // the local MAC address in topics
record_list<port_record> ports;
// Ports whose subscriptions could only in part be made or dropped. The process is about to stop, but messages
// for what is left can still come, so the records stay.
record_list<port_record> abandoned_ports;

//
// Topics
//

topic_text local_topic(int port, const char *name)
{
    return topic_text(PORT_FACT_FORMAT, port_name(port).text, name);
}

topic_text stats_topic(int port)
{
    return topic_text(STATS_FORMAT, macstr, port_name(port).text);
}

// Periods and days are published alike.
struct pm_series {
    const char *name;
    unsigned slots;
    const char *description;
};
constexpr pm_series PERIODS = {PM_PERIOD, PM_PERIODS, "PM period"};
constexpr pm_series DAYS = {PM_DAY, PM_DAYS, "daily PM"};

using slot_text = formatted_text<20>;

slot_text slot_name(const pm_series &series, unsigned slot)
{
    return slot_text("%s%u", series.name, slot);
}

topic_text slot_topic(int port, const pm_series &series, unsigned slot)
{
    return topic_text(PM_FORMAT, macstr, port_name(port).text, slot_name(series, slot).text);
}

topic_text last_slot_topic(int port, const pm_series &series)
{
    return topic_text(PM_LAST_FORMAT, macstr, port_name(port).text, series.name);
}

//
// Statistics blocks and PM records
//

uint64_t get_difference(const stats_field &field, const stats_block &current, const stats_block &baseline)
{
    const uint64_t difference = load_host(current.data() + field.offset, field.width) -
                                load_host(baseline.data() + field.offset, field.width);
    return difference & (UINT64_MAX >> (8 * (sizeof difference - field.width)));
}

void add_to_counter(stats_block &block, size_t offset, uint32_t increment)
{
    uint8_t *const counter = block.data() + offset;
    store_host(counter, load_host<uint32_t>(counter) + increment);
}

void take_payload(port_record &record, const uint8_t *payload)
{
    for (const stats_field &field : STATS_FIELDS) {
        switch (field.origin) {
        case stats_origin::COPIED: // memcpy of a length that is not constant takes longer
            store_host(record.current.data() + field.offset, field.width,
                       load_host(payload + field.offset, field.width));
            break;
        case stats_origin::ADDED_ON_DSL:
            if (record.media == LUM_TYPE_DSL) {
                add_to_counter(record.current, field.offset, load_host<uint32_t>(payload + field.offset));
            }
            break;
        case stats_origin::KEPT:
            break;
        }
    }
}

// The port's own counters start from what they are now.
void take_first_baselines(port_record &record)
{
    record.period_baseline = record.current;
    for (const stats_field &field : STATS_FIELDS) {
        if (field.origin == stats_origin::COPIED && field.treatment == stats_treatment::DIFFERENCED) {
            memcpy(record.reset_baseline.data() + field.offset, record.current.data() + field.offset,
                   field.width);
        }
    }
}

// Errored frames per million frames since the last reset. Clients know the figure in single precision.
uint32_t get_error_ratio(const port_record &record)
{
    constexpr const stats_field &errored_frames = stats_field_at(STATS_ERRORED_FRAMES);
    constexpr const stats_field &good_frames = stats_field_at(STATS_GOOD_FRAMES);
    const uint64_t errored = get_difference(errored_frames, record.current, record.reset_baseline);
    const uint64_t good = get_difference(good_frames, record.current, record.reset_baseline);
    const uint64_t all = good + errored;
    if (all == 0) {
        return 0;
    }
    // Stored after each step: registers of more than single precision must not carry the excess on.
    const volatile float frames = static_cast<float>(all);
    volatile float ratio = static_cast<float>(errored);
    ratio = ratio * 1000000.0F;
    ratio = ratio / frames;
    ratio = ratio + 0.5F;
    // Beyond 32 bits only when the sum has wrapped.
    return ratio < 4294967296.0F ? static_cast<uint32_t>(ratio) : UINT32_MAX;
}

// Fills a record but for its time; count gives what a differenced field has counted.
template <typename Count>
void fill_record(const port_record &record, pm_record &pm, Count count)
{
    for (const pm_field &field : PM_FIELDS) {
        uint64_t value = 0;
        switch (field.treatment) {
        case pm_treatment::DIFFERENCED:
        case pm_treatment::DIFFERENCED_ON_DSL:
            value = count(field);
            break;
        case pm_treatment::PASSED:
            value = load_host(record.current.data() + field.source->offset, field.source->width);
            break;
        case pm_treatment::CLOSING_TIME:
            break;
        }
        store_host(pm.data() + field.offset, field.width, value);
    }
}

// The running period, as it would be closed now.
void fill_pmstats(const port_record &record, pm_record &pm)
{
    fill_record(record, pm, [&](const pm_field &field) {
        const bool is_counted = field.treatment == pm_treatment::DIFFERENCED || record.media == LUM_TYPE_DSL;
        return is_counted ? get_difference(*field.source, record.current, record.period_baseline) : 0;
    });
}

// A day: all stored periods, whatever their age.
void fill_day(const port_record &record, pm_record &day)
{
    fill_record(record, day, [&](const pm_field &field) {
        uint64_t sum = 0;
        for (const pm_record &period : record.periods) {
            sum += load_host(period.data() + field.offset, field.width);
        }
        return sum;
    });
}

// Clients read 64 bits; a clock of 32, as some processors' is unless the build asks for more, ends in 2038.
static_assert(sizeof(time_t) == sizeof(int64_t));

void set_closing_time(pm_record &pm)
{
    store_host(pm.data() + PM_TIME, time(nullptr));
}

bool pmstats_problematic(const pm_record &pm)
{
    for (const pm_field &field : PM_FIELDS) {
        if (load_host(pm.data() + field.offset, field.width) > field.limit) {
            return true;
        }
    }
    return false;
}

void pmstats_in_be(pm_record &out, const pm_record &in)
{
    for (const pm_field &field : PM_FIELDS) {
        store_be(out.data() + field.offset, field.width, load_host(in.data() + field.offset, field.width));
    }
}

//
// Publishing
//

int publish_stats(const port_record &record)
{
    stats_block published;
    for (const stats_field &field : STATS_FIELDS) {
        const uint64_t value = field.treatment == stats_treatment::DIFFERENCED
                                   ? get_difference(field, record.current, record.reset_baseline)
                                   : load_host(record.current.data() + field.offset, field.width);
        store_be(published.data() + field.offset, field.width, value);
    }
    const char *const topic = record.stats_topic.text;
    if (broker_publish(topic, published.data(), published.size()) == -1) {
        return log_failure("couldn't publish port statistics to %s", topic);
    }
    return 0;
}

// Publishes the record of a slot and names the slot as the last one.
int publish_slot(int port, const pm_series &series, unsigned slot, const pm_record &pm)
{
    pm_record published;
    pmstats_in_be(published, pm);
    const topic_text topic = slot_topic(port, series, slot);
    if (broker_publish(topic.text, published.data(), published.size()) == -1) {
        return log_failure("couldn't publish %s to topic %s", series.description, topic.text);
    }
    const slot_text name = slot_name(series, slot);
    const topic_text last_topic = last_slot_topic(port, series);
    if (broker_publish(last_topic.text, name.text, strlen(name.text)) == -1) {
        return log_failure("couldn't publish %s to %s", name.text, last_topic.text);
    }
    return 0;
}

int publish_pm(const port_record &record)
{
    return publish_slot(record.port, PERIODS, record.period_index, record.periods[record.period_index]);
}

int publish_day_pm(const port_record &record)
{
    return publish_slot(record.port, DAYS, record.day_index, record.days[record.day_index]);
}

int unpublish_topic(const topic_text &topic)
{
    if (broker_unpublish(topic.text) == -1) {
        return log_failure("couldn't unpublish topic %s", topic.text);
    }
    return 0;
}

// Clears every slot, published or not: an earlier run of the daemon may have left some.
int unpublish_port_pm(int port)
{
    for (const pm_series *series : {&PERIODS, &DAYS}) {
        if (unpublish_topic(last_slot_topic(port, *series)) == -1) {
            return -1;
        }
        for (unsigned slot = 0; slot < series->slots; slot++) {
            if (unpublish_topic(slot_topic(port, *series, slot)) == -1) {
                return -1;
            }
        }
    }
    return 0;
}

int unpublish_port(int port)
{
    if (unpublish_topic(stats_topic(port)) == -1) {
        return -1;
    }
    if (unpublish_port_pm(port) == -1) {
        return log_failure("couldn't unpublish port %s's PM data", port_name(port).text);
    }
    if (summary_update_status(port, PORT_STATUS_NONE) == -1) {
        return log_failure("couldn't update port %s's status", port_name(port).text);
    }
    return 0;
}

//
// Down time
//

// get_time with the text that operators know of this module.
int get_current_time(timespec &now)
{
    if (clock_gettime(CLOCK_MONOTONIC, &now) == -1) {
        return log_failure("couldn't get current time (errno %d)", errno);
    }
    return 0;
}

bool is_running(const down_time &cause)
{
    return cause.down && cause.since.tv_sec != UNKNOWN_TIME;
}

int add_running_interval(port_record &record, down_time &cause)
{
    timespec now;
    if (get_current_time(now) == -1) {
        return log_failure("couldn't update port %s's %s down time", port_name(record.port).text, cause.name);
    }
    const timespec elapsed = timespec_diff(&now, &cause.since);
    cause.total = timespec_sum(&cause.total, &elapsed);
    cause.since = now;
    const auto seconds =
        static_cast<uint32_t>(cause.total.tv_sec + (cause.total.tv_nsec >= HALF_SECOND_NS ? 1 : 0));
    store_host(record.current.data() + cause.seconds_offset, seconds);
    return 0;
}

// Adds what has passed of the running interval since it was last added.
int update_down_time(port_record &record, down_time &cause)
{
    return is_running(cause) ? add_running_interval(record, cause) : 0;
}

// Takes a report of whether the port is down in this way.
int report_down(port_record &record, down_time &cause, bool down)
{
    timespec now;
    if (get_current_time(now) == -1) {
        return -1;
    }
    if (!down) {
        if (update_down_time(record, cause) == -1) {
            return -1;
        }
    } else if (!is_running(cause)) { // else a repetition
        add_to_counter(record.current, cause.count_offset, 1);
        cause.since = now;
    }
    cause.down = down;
    return 0;
}

//
// Status
//

port_status get_port_status(const port_record &record)
{
    if (record.link.down || record.erps.down) {
        return PORT_STATUS_RED;
    }
    pm_record running;
    fill_pmstats(record, running);
    if (pmstats_problematic(running)) {
        return PORT_STATUS_RED;
    }
    // Green stays green, even where a stored period has a problem that was never seen while it ran.
    if (record.status == PORT_STATUS_GREEN) {
        return PORT_STATUS_GREEN;
    }
    for (unsigned slot = 0; slot < PM_PERIODS; slot++) {
        if (slot != record.period_index && pmstats_problematic(record.periods[slot])) {
            return PORT_STATUS_YELLOW;
        }
    }
    return PORT_STATUS_GREEN;
}

int update_port_status(port_record &record)
{
    const port_status old_status = record.status;
    record.status = get_port_status(record);
    if (record.status != old_status && summary_update_status(record.port, record.status) == -1) {
        log_error("couldn't update port %s's status", port_name(record.port).text);
        // Once more for the callback or the reset that wants it.
        return log_failure("couldn't update port %s's status", port_name(record.port).text);
    }
    return 0;
}

//
// Facts of a port
//

// Whether a message is to be taken: neither a removal, which says nothing, nor of a wrong length.
bool is_usable(int length, size_t expected_length, const char *complaint)
{
    const auto actual_length = static_cast<size_t>(length);
    if (actual_length == expected_length) {
        return true;
    }
    if (actual_length != 0) {
        log_error("%s (%zu, should be %zu)", complaint, actual_length, expected_length);
    }
    return false;
}

uint8_t first_byte(const void *payload)
{
    return *static_cast<const uint8_t *>(payload);
}

void port_media_cb(const char *, const void *payload, int length, void *arg)
{
    if (!is_usable(length, 1, "invalid media type length")) {
        return;
    }
    const uint8_t media = first_byte(payload);
    port_record &record = *static_cast<port_record *>(arg);
    record.media = media;
    if (summary_update_media(record.port, media) == -1) {
        log_error("couldn't udpate port media in summary");
        terminate();
    }
}

int handle_link(port_record &record, bool down)
{
    if (report_down(record, record.link, down) == -1) {
        return -1;
    }
    if (summary_update_link(record.port, down) == -1) {
        return log_failure("couldn't update link status in summary");
    }
    return update_port_status(record);
}

void port_down_cb(const char *, const void *payload, int length, void *arg)
{
    if (!is_usable(length, 1, "invalid link status length")) {
        return;
    }
    if (handle_link(*static_cast<port_record *>(arg), first_byte(payload) == 1) == -1) {
        terminate();
    }
}

void port_ground_cb(const char *, const void *payload, int length, void *arg)
{
    if (!is_usable(length, 1, "invalid ground fault length")) {
        return;
    }
    if (summary_update_ground(static_cast<port_record *>(arg)->port, first_byte(payload) == 1) == -1) {
        log_error("couldn't update ground fault status in summary");
        terminate();
    }
}

int handle_stats(port_record &record, const uint8_t *payload)
{
    take_payload(record, payload);
    uint32_t error_ratio = 0;
    if (record.first_stats) {
        record.first_stats = false;
        take_first_baselines(record);
    } else {
        error_ratio = get_error_ratio(record);
    }
    store_host(record.current.data() + STATS_ERROR_RATIO_PPM, error_ratio);
    if (update_down_time(record, record.link) == -1 || update_down_time(record, record.erps) == -1 ||
        update_port_status(record) == -1) {
        return -1;
    }
    if (publish_stats(record) == -1) {
        return log_failure("couldn't publish statistics of port %s", port_name(record.port).text);
    }
    return 0;
}

void port_stats_cb(const char *, const void *payload, int length, void *arg)
{
    if (!is_usable(length, STATS_BLOCK_SIZE, "invalid statistics length")) {
        return;
    }
    if (handle_stats(*static_cast<port_record *>(arg), static_cast<const uint8_t *>(payload)) == -1) {
        terminate();
    }
}

void erps_port_stats_cb(const char *, const void *payload, int length, void *arg)
{
    if (!is_usable(length, ERPS_STATUS_SIZE, "published ERPS port status data has wrong length")) {
        return;
    }
    const auto state = load_host<uint32_t>(static_cast<const uint8_t *>(payload) + ERPS_STATUS_STATE);
    port_record &record = *static_cast<port_record *>(arg);
    // The status follows with the next statistics message, link message or tick.
    if (report_down(record, record.erps, (state & ~ERPS_STATE_UP_MASK) != 0) == -1) {
        terminate();
    }
}

//
// Registry
//

struct data_topic {
    const char *name;
    broker_callback callback;
    const char *unsubscribe_preposition; // of the message
};
constexpr data_topic DATA_TOPICS[] = {
    {FACT_MEDIA, port_media_cb, "from"},     {FACT_LINK_DOWN, port_down_cb, "from"},
    {FACT_GROUND, port_ground_cb, "from"},   {FACT_STATS, port_stats_cb, "from"},
    {FACT_STATUS, erps_port_stats_cb, "to"},
};

port_record *find_port(int port)
{
    for (port_record &record : ports) {
        if (record.port == port) {
            return &record;
        }
    }
    return nullptr;
}

int subscribe_port(port_record &record)
{
    for (const data_topic &data : DATA_TOPICS) {
        const topic_text topic = local_topic(record.port, data.name);
        if (broker_subscribe(topic.text, data.callback, &record) == -1) {
            return log_failure("couldn't subscribe to topic %s", topic.text);
        }
    }
    return 0;
}

int unsubscribe_port(int port)
{
    for (const data_topic &data : DATA_TOPICS) {
        const topic_text topic = local_topic(port, data.name);
        if (broker_unsubscribe(topic.text) == -1) {
            return log_failure("couldn't unsubscribe %s topic %s", data.unsubscribe_preposition, topic.text);
        }
    }
    return 0;
}

int track_port(int port, summary_port_type type)
{
    std::unique_ptr<port_record> record(new (std::nothrow)
                                            port_record{.port = port, .stats_topic = stats_topic(port)});
    if (!record) {
        return log_failure("couldn't allocate port structure");
    }
    if (subscribe_port(*record) == -1) {
        abandoned_ports.add(std::move(record));
        return log_failure("couldn't subscribe to port %s's topics", port_name(port).text);
    }
    ports.add(std::move(record));
    if (summary_update_type(port, type) == -1) {
        return log_failure("couldn't update port %s's type", port_name(port).text);
    }
    return 0;
}

int untrack_port(port_record &record)
{
    const int port = record.port;
    std::unique_ptr<port_record> removed = ports.take(record);
    if (unsubscribe_port(port) == -1) {
        abandoned_ports.add(std::move(removed));
        return log_failure("couldn't unsubscribe from port %s's topics", port_name(port).text);
    }
    if (unpublish_port(port) == -1) {
        return log_failure("couldn't unpublish data for port %s", port_name(port).text);
    }
    if (summary_update_link(port, 0) == -1 || summary_update_ground(port, 0) == -1 ||
        summary_update_status(port, PORT_STATUS_NONE) == -1 ||
        summary_update_media(port, LUM_TYPE_NONE) == -1 ||
        summary_update_type(port, SUMMARY_PORT_OTHER) == -1) {
        return log_failure("couldn't clear port status for port %s", port_name(port).text);
    }
    return 0;
}

void port_type_cb(const char *topic, const void *payload, int length, void *)
{
    int port;
    if (find_port_in_local_topic(topic, &port) == -1) {
        log_error("couldn't find port identifier in topic %s", topic);
        return;
    }
    port_record *const record = find_port(port);
    const std::string_view type = payload_text(payload, length);
    const bool is_spur = type == "firespur";
    const bool is_fire_type = is_spur || type == "fire";
    int result = 0;
    if (record == nullptr && is_fire_type) {
        result = track_port(port, is_spur ? SUMMARY_PORT_SPUR : SUMMARY_PORT_FIRE);
    } else if (record != nullptr && !is_fire_type) {
        result = untrack_port(*record);
    }
    if (result == -1) {
        terminate();
    }
}

//
// Periods and days
//

int close_day(port_record &record)
{
    pm_record &day = record.days[record.day_index];
    fill_day(record, day);
    set_closing_time(day);
    if (publish_day_pm(record) == -1) {
        return log_failure("couldn't publish port %s's daily PM", port_name(record.port).text);
    }
    record.day_index = (record.day_index + 1) % PM_DAYS;
    return 0;
}

int close_period(port_record &record)
{
    if (update_down_time(record, record.link) == -1 || update_down_time(record, record.erps) == -1) {
        return -1;
    }
    pm_record &period = record.periods[record.period_index];
    fill_pmstats(record, period);
    set_closing_time(period);
    if (publish_pm(record) == -1) {
        return log_failure("couldn't publish port %s's current PM period", port_name(record.port).text);
    }
    record.period_baseline = record.current;
    record.period_index = (record.period_index + 1) % PM_PERIODS;
    if (record.period_index == record.day_start_index && close_day(record) == -1) {
        return log_failure("couldn't update port %s's daily PM", port_name(record.port).text);
    }
    return 0;
}

itimerspec once_after(time_t seconds)
{
    return {.it_interval = {.tv_sec = 0, .tv_nsec = 0}, .it_value = {.tv_sec = seconds, .tv_nsec = 0}};
}

// Where a tick lies among the quarter hours of the wall clock.
struct pm_tick {
    bool on_boundary;
    time_t next; // seconds to the next boundary, beyond the one that the tick is on
};

pm_tick place_tick(int minute, int second)
{
    if (minute % PM_PERIOD_MINUTES == 0 && second < BOUNDARY_SECONDS) {
        return {true, PM_PERIOD_SECONDS - second};
    }
    if ((minute + 1) % PM_PERIOD_MINUTES == 0 && second > MINUTE_SECONDS - BOUNDARY_SECONDS) {
        return {true, PM_PERIOD_SECONDS + MINUTE_SECONDS - second};
    }
    const int minutes_left = PM_PERIOD_MINUTES - minute % PM_PERIOD_MINUTES;
    return {false, time_t{minutes_left} * MINUTE_SECONDS - second};
}

// Closes what ends now; next_out is the time to the next tick.
int handle_tick(time_t &next_out)
{
    const time_t now = time(nullptr);
    const tm *const utc = now == time_t{-1} ? nullptr : gmtime(&now);
    if (utc == nullptr) {
        return log_failure("couldn't get current broken-down time");
    }
    const pm_tick tick = place_tick(utc->tm_min, utc->tm_sec);
    for (port_record &record : ports) {
        if (!tick.on_boundary) {
            // The period goes on, and a day begins with it: only 96 boundaries in a row close one.
            record.day_start_index = record.period_index;
        } else if (close_period(record) == -1) {
            return log_failure("couldn't update PM data");
        }
        if (update_port_status(record) == -1) {
            return -1;
        }
    }
    next_out = tick.next;
    return 0;
}

void pm_cb(int fd, uint32_t events, void *)
{
    time_t next;
    if (timer_take(fd, events, PM, log_source) == -1 || handle_tick(next) == -1 ||
        timer_arm(fd, PM, once_after(next), log_source) == -1) {
        terminate();
    }
}

//
// Resets
//

// A port that is down enters the new account down: one interval, and what has not been added yet of its time.
int carry_down_time(port_record &record, down_time &cause)
{
    if (!cause.down) {
        return 0;
    }
    add_to_counter(record.current, cause.count_offset, 1);
    return update_down_time(record, cause);
}

int reset_port(port_record &record)
{
    // Before the down times are touched: what they add belongs to the new account.
    record.reset_baseline = record.current;
    record.period_baseline = record.current;
    if (carry_down_time(record, record.link) == -1 || carry_down_time(record, record.erps) == -1) {
        return -1;
    }
    record.periods.fill({});
    record.days.fill({});
    record.day_index = 0;
    record.period_index = 0;
    record.day_start_index = 0;
    if (unpublish_port_pm(record.port) == -1) {
        log_error("couldn't unpublish PM topics for port %s", port_name(record.port).text);
    }
    if (publish_stats(record) == -1) {
        return log_failure("couldn't publish statistics of port %s", port_name(record.port).text);
    }
    return update_port_status(record);
}

} // namespace

int stats_init()
{
    uint8_t mac[MAC_SIZE];
    if (hwinfo_get_local_mac_addr(mac) == -1) {
        return log_failure("couldn't get local MAC address");
    }
    macstr = copy_text(mac_addr_to_str(mac)).release();
    if (macstr == nullptr) {
        return log_failure("couldn't duplicate local MAC address string");
    }
    if (broker_subscribe(PORT_TYPE_FILTER, port_type_cb, nullptr) == -1) {
        return log_failure("couldn't subscribe to topic %s", PORT_TYPE_FILTER);
    }
    unique_fd timer;
    if (timer_start(timer, PM, once_after(FIRST_TICK_SECONDS), pm_cb, nullptr, log_source) == -1) {
        static_cast<void>(broker_unsubscribe(PORT_TYPE_FILTER));
        timer_stop(timer);
        return -1;
    }
    timer.release(); // the event loop watches it until the process ends
    return 0;
}

int stats_reset_port(int port)
{
    port_record *const record = find_port(port);
    if (record == nullptr) {
        return log_failure("statistics reset: port %s does not exist", port_name(port).text);
    }
    return reset_port(*record);
}

int stats_reset_all()
{
    int result = 0;
    for (const port_record &record : ports) {
        if (stats_reset_port(record.port) == -1) {
            result = log_failure("couldn't reset statistics of port %s", port_name(record.port).text);
        }
    }
    return result;
}
