// diagctl watch --site: what changes at the cards, and where they differ.
#include "commands/site_events.h"
#include "network/json.h"
#include "topics.h"

#include <fmt/core.h>
#include <nlohmann/json.hpp>

#include <cstdio>

namespace
{

constexpr std::chrono::milliseconds LOOK(1000);

void print(const site_event_text &shown, bool is_json)
{
    if (!is_json) {
        fmt::print("{} {}\n", date_text(shown.when), shown.text);
        return;
    }
    json object = {{"time", utc_text(shown.when.wall)}};
    object["mac"] = shown.card ? json(mac_text(*shown.card)) : json();
    object["text"] = shown.text;
    puts(json_text(object).c_str());
}

} // namespace

exit_status site_watch(const context &common, bool is_json)
{
    site_events events(common, {DIAG_FILTER}, change_detail::RECORDS);
    do {
        std::vector<site_event_text> found;
        {
            const auto guard = events.looked().lock();
            found = events.collect();
        }
        for (const site_event_text &shown : found) {
            print(shown, is_json);
        }
        if (fflush(stdout) != 0) {
            return STATUS_FAILURE;
        }
    } while (events.looked().wait(LOOK));
    return STATUS_SUCCESS;
}
