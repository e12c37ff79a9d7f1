// diagctl top --site: all cards of a site, live.
#include "screen/site_top.h"

#include "clock.h"
#include "commands/site_events.h"
#include "topics.h"

#include <fmt/core.h>

#include <cstdio>

namespace
{

constexpr size_t MAX_EVENTS = 1000;

class site_top_view
{
public:
    explicit site_top_view(const context &common)
        : changes(common, {NODE_TOPICS_FILTER, std::string(DIAG_PREFIX) + "+/+/" + PORT_STATS},
                  change_detail::NETWORK)
    {
        view.render = [this](terminal_size size) { return render(size); };
        view.print = [this] { take_events(); };
        view.take_key = [this](key pressed) { cursor.take_key(pressed, site_rows(cards(), cursor.order)); };
        const auto guard = changes.looked().lock();
        cursor.move(0, site_rows(cards(), cursor.order));
    }

    exit_status run() { return changes.looked().run(view); }

private:
    site &cards() { return changes.looked().cards(); }

    std::string brokers_text()
    {
        const site_brokers &brokers = changes.looked().brokers();
        std::string text;
        for (size_t broker = 0; broker < brokers.count(); broker++) {
            const bool is_there = brokers.state_of(broker) == site_brokers::state::THERE;
            text += (text.empty() ? "" : ", ") + brokers.address(broker).text() + (is_there ? "" : " AWAY");
        }
        return text;
    }

    void take_events()
    {
        for (const site_event_text &item : changes.collect()) {
            if (!is_screen) {
                fmt::print("{} {}\n", date_text(item.when), item.text);
            }
            events.push_back(item);
        }
        while (events.size() > MAX_EVENTS) {
            events.pop_front();
        }
    }

    screen_lines render(terminal_size size)
    {
        take_events();
        return site_render({.brokers = brokers_text(),
                            .all = cards(),
                            .events = events,
                            .order = cursor.order,
                            .selected = cursor.selected,
                            .is_detail = cursor.is_detail,
                            .start = changes.looked().since(),
                            .width = size.width,
                            .height = size.height},
                           current_moment());
    }

    site_events changes;
    std::deque<event> events;
    table_cursor cursor;
    const bool is_screen = terminal_is_screen();
    live_view view;
};

} // namespace

exit_status site_top(const context &common)
{
    return site_top_view(common).run();
}
