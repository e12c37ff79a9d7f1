#include "commands/site_session.h"

#include "clock.h"
#include "screen/site_reports.h"

#include <fmt/core.h>

#include <algorithm>
#include <charconv>
#include <cstdio>

namespace
{

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds REFRESH(500); // of a view: thousands of cards are many lines

} // namespace

std::vector<broker_address> site_addresses(const context &common)
{
    std::vector<broker_address> addresses;
    for (const std::string &host : common.hosts) {
        broker_address address = {host, common.port};
        const size_t colon = host.rfind(':');
        if (colon != std::string::npos && host.find(':') == colon) {
            const char *const end = host.data() + host.size();
            if (std::from_chars(host.data() + colon + 1, end, address.port).ptr != end) {
                throw failure(STATUS_USAGE, fmt::format("'{}' is no HOST or HOST:PORT", printable(host)));
            }
            address.host = host.substr(0, colon);
        }
        addresses.push_back(std::move(address));
    }
    return addresses;
}

void add_site_options(command &added, context &common)
{
    added.flag({.name = "--site",
                .help =
                    "The broker is a site's, to which cards' brokers connect; --host may be given again, as "
                    "HOST or HOST:PORT, for a second one"},
               common.is_site);
}

site_session::site_session(const context &common, std::vector<std::string> filters, message_listener given,
                           change_detail wanted)
    : listener(std::move(given)), detail(wanted), all(common.hosts.size()), start(current_moment())
{
    const node_names names = read_names(common);
    for (size_t broker = 0; broker < common.hosts.size(); broker++) {
        all.account(broker).net.names = names;
    }
    if (std::find(filters.begin(), filters.end(), VIEWS_FILTER) == filters.end()) {
        filters.insert(filters.begin(), VIEWS_FILTER);
    }
    connections.emplace(
        site_addresses(common), common.login(), std::move(filters),
        site_brokers::listener{
            .message = [this](size_t broker, std::string_view topic, bytes payload,
                              bool is_retained) { take(broker, topic, payload, is_retained); },
            .change = [this](size_t broker, site_brokers::state now) { take_state(broker, now); }});
    connections->load(signals);
    const auto guard = lock();
    report_foreign();
    if (all.cards().empty()) {
        throw failure(STATUS_FAILURE,
                      "no card has told these brokers anything\n"
                      "Is this a site's broker, and do the cards' brokers have bridge.conf? Without --site a "
                      "card's own broker is asked.");
    }
}

void site_session::report_foreign() const
{
    for (size_t broker = 0; broker < connections->count(); broker++) {
        const site_account &account = all.account(broker);
        if (account.foreign > 0) {
            fmt::print(stderr, "diagctl: {} message{} at {} of no card, the first on {}\n", account.foreign,
                       account.foreign == 1 ? "" : "s", connections->address(broker).text(),
                       printable(account.first_foreign.substr(0, 100)));
        }
        if (!account.odd_address.empty()) {
            fmt::print(
                stderr,
                "diagctl: nothing is shown of card {} at {}: topics have upper-case letters and dashes\n",
                printable(account.odd_address), connections->address(broker).text());
        }
        if (account.cards.size() >= SITE_CARDS_MAX) {
            fmt::print(stderr, "diagctl: of more than {} cards at {} the others are left out\n",
                       SITE_CARDS_MAX, connections->address(broker).text());
        }
    }
}

void site_session::take(size_t broker, std::string_view topic, bytes payload, bool is_retained)
{
    const site_changes items =
        site_apply(all.account(broker), topic, payload, is_retained, current_moment(), detail);
    if (listener) {
        listener(broker, topic, payload, items);
    }
}

void site_session::take_state(size_t broker, site_brokers::state now)
{
    if (now == site_brokers::state::LOADING) {
        all.clear(broker);
    }
    all.set_there(broker, now == site_brokers::state::THERE);
}

mac_address site_session::resolve(const std::string &text)
{
    const auto guard = lock();
    const std::vector<mac_address> found = all.find_cards(parse_node(text, all.account(0).net.names));
    if (found.size() == 1) {
        return found[0];
    }
    if (found.empty()) {
        throw failure(
            STATUS_FAILURE,
            fmt::format("no card {} is known at this site; 'diagctl nodes --site' lists them", text));
    }
    std::string reason = fmt::format("several cards are called {}, use a MAC address:", text);
    for (const mac_address &mac : found) {
        reason += "\n  " + mac_text(mac);
    }
    throw failure(STATUS_FAILURE, reason);
}

exit_status site_session::run(live_view &view)
{
    view.min_refresh = REFRESH;
    const auto guarded = [this](auto &function) {
        if (function) {
            function = [this, inner = std::move(function)](auto &&...given) {
                const auto guard = lock();
                return inner(given...);
            };
        }
    };
    guarded(view.render);
    guarded(view.print);
    guarded(view.take_key);
    return view.run(
        live_view::waiting([&](milliseconds limit, wait_input &keyboard, const auto &take_signal) {
            const wait_end end = connections->wait(signals, limit, keyboard, take_signal);
            if (end == wait_end::DONE) {
                view.changed();
            }
            return end != wait_end::INTERRUPTED;
        }));
}

exit_status site_session::show(const report &shown, const reading_options &options)
{
    if (options.is_watch) {
        live_view view;
        prepare_watch(view, shown, options);
        return run(view);
    }
    const auto guard = lock();
    print_report(shown, options, 2);
    return fflush(stdout) == 0 ? STATUS_SUCCESS : STATUS_FAILURE;
}

bool site_session::wait(milliseconds limit)
{
    return connections->wait(signals, limit) != wait_end::INTERRUPTED;
}

bool site_session::wait_for(int descriptor, milliseconds limit)
{
    return connections->wait(signals, limit, descriptor) != wait_end::INTERRUPTED;
}

bool site_session::go_on(milliseconds time)
{
    const auto end = steady_clock::now() + time;
    auto left = time;
    while (left.count() > 0) {
        if (!wait(left)) {
            return false;
        }
        left = std::chrono::duration_cast<milliseconds>(end - steady_clock::now());
    }
    return true;
}
