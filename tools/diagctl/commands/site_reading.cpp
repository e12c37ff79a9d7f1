// The commands that look, with --site.
#include "clock.h"
#include "commands/site_session.h"
#include "screen/site_reports.h"
#include "topics.h"

#include <fmt/core.h>
#include <nlohmann/json.hpp>

#include <algorithm>

namespace
{

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds LOOK(100);

// A session of what one card says of itself alone.
class card_session
{
public:
    card_session(const context &common, const std::string &node, const std::string &topics)
        : looked(common, {}), mac(looked.resolve(node))
    {
        looked.subscribe({fmt::format("{}{}/{}", DIAG_PREFIX, mac_text(mac), topics)});
    }

    site_session looked;
    const mac_address mac;
};

nlohmann::ordered_json with_connection(nlohmann::ordered_json object, const site &all, const mac_address &mac)
{
    object.update(connection_json(all.card(mac)));
    return object;
}

// One card of the site.
exit_status show_card(site_session &looked, const mac_address &mac, const reading_options &options,
                      const std::function<screen_lines(const network &, const node &)> &lines,
                      const std::function<nlohmann::ordered_json(const network &, const node &)> &object)
{
    const auto with_model = [&](const auto &shown) {
        const network net = site_card_model(looked.cards(), mac);
        return shown(net, net.nodes.at(mac));
    };
    return looked.show(
        {.lines = [&] { return below_connection(looked.cards(), mac, looked.since(), with_model(lines)); },
         .object = [&] { return with_connection(with_model(object), looked.cards(), mac); }},
        options);
}

[[noreturn]] void report_no_site_records(const std::string &what, const mac_address &mac)
{
    throw failure(STATUS_FAILURE, fmt::format("no {} of card {} at this site", what, mac_text(mac)));
}

} // namespace

exit_status site_nodes(const context &common, const reading_options &options, node_order order)
{
    site_session looked(common, {NODE_TOPICS_FILTER});
    return looked.show(
        {.lines = [&] { return site_nodes_lines(looked.cards(), order, looked.since(), current_moment()); },
         .object = [&] { return site_json(looked.cards(), order); }},
        options);
}

exit_status site_lists(const context &common, const reading_options &options)
{
    site_session looked(common, {});
    return looked.show({.lines = [&] { return site_lists_lines(looked.cards(), looked.since()); },
                        .object = [&] { return site_json(looked.cards(), node_order::MAC); }},
                       options);
}

exit_status site_show(const context &common, const reading_options &options, const std::string &node)
{
    card_session card(common, node, "+");
    return show_card(card.looked, card.mac, options, node_lines, node_json);
}

exit_status site_ports(const context &common, const reading_options &options, const std::string &text,
                       unsigned measure_seconds)
{
    card_session card(common, text, fmt::format("+/{}", PORT_STATS));
    site_session &looked = card.looked;
    const mac_address mac = card.mac;
    const auto has = [&](const auto &is) {
        const auto guard = looked.lock();
        const node *const found = looked.cards().find(mac);
        return found != nullptr && !found->ports.empty() &&
               std::all_of(found->ports.begin(), found->ports.end(),
                           [&](const auto &entry) { return is(entry.second); });
    };
    if (!has([](const port_records &records) { return records.stats.is_published; })) {
        report_no_site_records("port statistics", mac);
    }
    const auto end = steady_clock::now() + std::chrono::seconds(measure_seconds);
    while (!options.is_watch && steady_clock::now() < end && !has([](const port_records &records) {
        return records.sample_before.has_value();
    }) && looked.go_on(LOOK)) {
    }
    return show_card(
        looked, mac, options, [](const network &, const node &shown) { return ports_lines(shown); },
        ports_json);
}

exit_status site_pm(const context &common, const reading_options &options, const std::string &text, int port,
                    pm_kind kind, bool is_csv)
{
    card_session card(common, text, fmt::format("{}/{}+", port_text(port), PM_PREFIX));
    site_session &looked = card.looked;
    const mac_address mac = card.mac;
    {
        const auto guard = looked.lock();
        const node *const found = looked.cards().find(mac);
        if (found == nullptr || !found->ports.contains(port)) {
            report_no_site_records("performance records of port " + port_text(port), mac);
        }
    }
    const auto object = [&](const network &net, const node &shown) {
        return pm_json(net, shown, port, kind);
    };
    if (is_csv) {
        const auto with_model = [&](const auto &shown) {
            const network net = site_card_model(looked.cards(), mac);
            return shown(net, net.nodes.at(mac));
        };
        const auto csv = [&](const network &, const node &shown) { return pm_csv(shown, port, kind); };
        return looked.show(
            {.lines = [&] { return with_model(csv); }, .object = [&] { return with_model(object); }},
            options);
    }
    return show_card(
        looked, mac, options,
        [&](const network &, const node &shown) { return pm_lines(shown, port, kind, current_pm_style()); },
        object);
}
