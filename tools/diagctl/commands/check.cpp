// diagctl check: a verdict for monitoring, by the conventions of monitoring plugins: one line with performance data, and the
// exit status.
#include "broker/requests.h"
#include "commands/site_session.h"
#include "screen/site_reports.h"
#include "screen/text.h"
#include "topics.h"

#include <fmt/core.h>

#include <algorithm>
#include <charconv>
#include <cstdio>

namespace
{

enum verdict { VERDICT_OK, VERDICT_WARNING, VERDICT_CRITICAL, VERDICT_UNKNOWN };
constexpr const char *VERDICTS[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};
const std::vector<std::string> SEVERITIES = {"ok", "warning", "critical"};
constexpr size_t MAX_NAMED = 5; // ports or nodes in the line

// More than these is a warning, and critical; nothing: never.
struct limits {
    std::optional<unsigned> warning;
    std::optional<unsigned> critical;
};

struct watched_list {
    port_list list;
    const char *option;
    const char *help;
    const char *measure; // in the performance data
    const char *counted; // behind "2 ports"
};
constexpr watched_list WATCHED[PORT_LISTS] = {
    {LIST_LINK_DOWN, "--ports-down", "More ports down than the first are a WARNING, than the second CRITICAL",
     "ports_down", "down"},
    {LIST_GROUND, "--ground-faults", "The same of ports with a ground fault", "ground_faults",
     "with a ground fault"},
    {LIST_MISWIRED, "--miswired", "The same of miswired ports", "miswired", "miswired"},
};

struct check_options {
    std::string port_limits[PORT_LISTS] = {"0", "0", "0"}; // by port_list
    unsigned ring_severity = VERDICT_WARNING;
    std::string expected; // a count, "names", or empty
    unsigned seconds = 5;
    // Of a site.
    std::string unreachable_limits = ",0";
    unsigned views_severity = VERDICT_WARNING;
};

std::optional<unsigned> parse_count(std::string_view text)
{
    unsigned value = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    return result.ec == std::errc() && result.ptr == text.data() + text.size() ? std::optional(value)
                                                                               : std::nullopt;
}

// "0", "0,4" or ",4"; what is CRITICAL is a WARNING before.
std::optional<limits> parse_limits(std::string_view text)
{
    const size_t comma = std::min(text.find(','), text.size());
    const std::string_view warning = text.substr(0, comma);
    const std::string_view critical = text.substr(std::min(comma + 1, text.size()));
    const limits parsed = {parse_count(warning), parse_count(critical)};
    const bool is_right =
        (warning.empty() || parsed.warning) && (critical.empty() || parsed.critical) && !text.empty();
    const bool is_ordered = !parsed.warning || !parsed.critical || *parsed.warning <= *parsed.critical;
    return is_right && is_ordered ? std::optional(parsed) : std::nullopt;
}

std::string check_limits(const std::string &text)
{
    return parse_limits(text) ? ""
                              : "'" + text +
                                    "' is not MAX or MAX,MAX: more than the first is a warning, more than "
                                    "the second, which isn't less, is critical; either may be left out";
}

std::string check_expected(const std::string &text)
{
    return text == "names" || parse_count(text) ? ""
                                                : "'" + text + "' is neither a number of nodes nor 'names'";
}

// The findings of a check, the gravest first, and the performance data.
class findings
{
public:
    void add(verdict severity, const std::string &text)
    {
        all.push_back({severity, text});
        worst = rank(severity) > rank(worst) ? severity : worst;
    }
    void measure(const std::string &text) { data += (data.empty() ? "" : " ") + text; }

    int print()
    {
        std::stable_sort(all.begin(), all.end(),
                         [](const auto &a, const auto &b) { return rank(a.severity) > rank(b.severity); });
        std::string text;
        for (const auto &[severity, words] : all) {
            text += (text.empty() ? "" : ", ") + words;
        }
        std::replace(text.begin(), text.end(), '|', '/');
        fmt::print("DIAG {} - {}{}{}\n", VERDICTS[worst], text, data.empty() ? "" : " | ", data);
        return worst;
    }

private:
    // What is known to be wrong counts more than what isn't known.
    static int rank(verdict severity)
    {
        constexpr int RANKS[] = {0, 2, 3, 1}; // by verdict
        return RANKS[severity];
    }

    struct finding {
        verdict severity;
        std::string text;
    };
    std::vector<finding> all;
    std::string data;
    verdict worst = VERDICT_OK;
};

std::string shortened(const std::vector<std::string> &items)
{
    std::string text;
    for (size_t i = 0; i < std::min(items.size(), MAX_NAMED); i++) {
        text += (i == 0 ? "" : ", ") + items[i];
    }
    return items.size() > MAX_NAMED ? fmt::format("{} and {} more", text, items.size() - MAX_NAMED) : text;
}

std::string limit_text(const std::optional<unsigned> &limit)
{
    return limit ? std::to_string(*limit) : "";
}

verdict severity_of(size_t count, const limits &allowed)
{
    return allowed.critical && count > *allowed.critical ? VERDICT_CRITICAL
           : allowed.warning && count > *allowed.warning ? VERDICT_WARNING
                                                         : VERDICT_OK;
}

void check_list(const network &net, const watched_list &watched, const limits &allowed, findings &out)
{
    const fact<port_list_value> &list = net.lists[watched.list];
    if (!list.value) {
        out.add(VERDICT_UNKNOWN,
                fmt::format("{} {}", PORT_LIST_INFOS[watched.list].label, fact_text(list, "missing", "")));
        return;
    }
    unsigned count = 0;
    std::vector<std::string> ports;
    for (const listed_ports &record : *list.value) {
        const std::string *const name = net.names.of(record.mac);
        for (const char port : port_letters(record.ports)) {
            count++;
            ports.push_back(fmt::format("{}/{}", name == nullptr ? mac_text(record.mac) : *name, port));
        }
    }
    out.measure(fmt::format("{}={};{};{};0", watched.measure, count, limit_text(allowed.warning),
                            limit_text(allowed.critical)));
    if (count > 0) {
        out.add(severity_of(count, allowed), fmt::format("{} port{} {} ({})", count, count == 1 ? "" : "s",
                                                         watched.counted, shortened(ports)));
    }
}

void check_ring(const network &net, verdict severity, findings &out)
{
    if (!net.ring_degraded.value) {
        // The daemon publishes the lists as it starts, but nothing of a ring until a node has told of one: a
        // card that is alone may never get there.
        out.add(net.ring_degraded.is_published ? VERDICT_UNKNOWN : VERDICT_OK,
                "ring " + fact_text(net.ring_degraded, "not told of", ""));
        return;
    }
    const bool is_degraded = *net.ring_degraded.value;
    out.measure(fmt::format("ring_degraded={};{};{};0;1", int{is_degraded},
                            severity == VERDICT_WARNING ? "0" : "", severity == VERDICT_CRITICAL ? "0" : ""));
    out.add(is_degraded ? severity : VERDICT_OK, is_degraded ? "ring degraded" : "ring normal");
}

void check_nodes(const network &net, const std::string &expected, findings &out)
{
    const size_t present = sorted_nodes(net, node_order::MAC).size();
    std::vector<std::string> missing;
    size_t wanted = 0;
    if (expected == "names") {
        if (net.names.all().empty()) {
            throw failure(STATUS_USAGE,
                          "no names are known that could be expected: name their file with --names");
        }
        wanted = net.names.all().size();
        for (const auto &[mac, name] : net.names.all()) {
            const auto found = net.nodes.find(mac);
            if (found == net.nodes.end() || !net.has(found->second)) {
                missing.push_back(name);
            }
        }
    } else {
        wanted = parse_count(expected).value_or(0);
    }
    out.measure(fmt::format("nodes={};;{};0", present, wanted == 0 ? "" : fmt::format("{}:", wanted)));
    const std::string text = fmt::format("{} node{}", present, present == 1 ? "" : "s");
    if (!missing.empty()) {
        out.add(VERDICT_CRITICAL,
                fmt::format("{} of {} nodes missing ({})", missing.size(), wanted, shortened(missing)));
    } else if (expected != "names" && present < wanted) {
        out.add(VERDICT_CRITICAL, fmt::format("{} instead of {}", text, wanted));
    } else {
        out.add(VERDICT_OK, text);
    }
}

void check_present(const network &net, const check_options &options, findings &out)
{
    check_nodes(net, options.expected, out);
    for (const watched_list &watched : WATCHED) {
        check_list(net, watched, parse_limits(options.port_limits[watched.list]).value(), out);
    }
}

// How long the daemon takes to answer: what it has published stays on the broker when it is gone.
void check_daemon(requests &asked, unsigned seconds, findings &out)
{
    const auto start = std::chrono::steady_clock::now();
    asked.run({.command = "noop", .limit = std::chrono::seconds(seconds)});
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
    out.measure(fmt::format("answer_time={:.4f}s;;{};0", taken.count(), seconds));
}

void check_network(const context &common, const check_options &options, findings &out)
{
    network net = named_network(common);
    session broker(common.address());
    requests asked(broker);
    feed(broker, net);
    broker.subscribe(network_filters());
    if (!net.local.is_published) {
        report_no_daemon(common.address());
    }
    check_present(net, options, out);
    check_ring(net, static_cast<verdict>(options.ring_severity), out);
    check_daemon(asked, options.seconds, out);
}

// Cards whose state is known; what the others have left on the brokers is old.
void check_cards(const site &all, const check_options &options, network &net, findings &out)
{
    std::vector<std::string> unreachable;
    size_t unknown = 0;
    const std::vector<mac_address> cards = all.cards();
    for (const mac_address &mac : cards) {
        const std::optional<bool> is_connected = all.is_connected(mac);
        unknown += is_connected ? 0U : 1U;
        if (is_connected == false) {
            const std::string *const name = net.names.of(mac);
            unreachable.push_back(name == nullptr ? mac_text(mac) : *name);
            net.nodes.erase(mac);
        }
    }
    const limits allowed = parse_limits(options.unreachable_limits).value();
    out.measure(fmt::format("cards={};;;0 unreachable={};{};{};0", cards.size(), unreachable.size(),
                            limit_text(allowed.warning), limit_text(allowed.critical)));
    if (!unreachable.empty()) {
        out.add(severity_of(unreachable.size(), allowed),
                fmt::format("{} of {} cards unreachable ({})", unreachable.size(), cards.size(),
                            shortened(unreachable)));
    }
    if (unknown > 0) {
        out.add(VERDICT_UNKNOWN, fmt::format("{} card{} without a bridge that says whether it is connected",
                                             unknown, unknown == 1 ? "" : "s"));
    }
}

std::vector<std::string> differences_of(site_session &looked)
{
    const auto guard = looked.lock();
    std::vector<std::string> texts;
    for (const site_network &shown : looked.cards().networks()) {
        for (const view_difference &item : shown.differences) {
            texts.push_back(difference_text(looked.cards(), item));
        }
    }
    return texts;
}

// A change comes to all cards within seconds: only differences that last count.
void check_views(site_session &looked, const check_options &options, findings &out)
{
    constexpr std::chrono::milliseconds LOOK(200);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(options.seconds);
    std::vector<std::string> found = differences_of(looked);
    while (!found.empty() && std::chrono::steady_clock::now() < end && looked.go_on(LOOK)) {
        found = differences_of(looked);
    }
    const auto severity = static_cast<verdict>(options.views_severity);
    out.measure(fmt::format("views_differ={};{};{};0", found.size(), severity == VERDICT_WARNING ? "0" : "",
                            severity == VERDICT_CRITICAL ? "0" : ""));
    if (!found.empty()) {
        out.add(severity,
                fmt::format("views differ: {}{}", found[0],
                            found.size() == 1 ? "" : fmt::format(" and {} more", found.size() - 1)));
    }
}

void check_site(const context &common, const check_options &options, findings &out)
{
    site_session looked(common, {NODE_TOPICS_FILTER});
    check_views(looked, options, out);
    const auto guard = looked.lock();
    const site_brokers &brokers = looked.brokers();
    for (size_t broker = 0; broker < brokers.count(); broker++) {
        if (brokers.state_of(broker) != site_brokers::state::THERE) {
            out.add(VERDICT_WARNING, fmt::format("no broker at {}", brokers.address(broker).text()));
        }
    }
    network net = site_network_model(looked.cards(), looked.cards().cards());
    check_cards(looked.cards(), options, net, out);
    if (const std::vector<std::string> texts = malformed_lists(looked.cards(), looked.cards().cards());
        !texts.empty()) {
        out.add(VERDICT_UNKNOWN, shortened(texts));
    }
    check_present(net, options, out);
}

// What to do stands in the second one.
std::string first_line(const std::string &text)
{
    return text.substr(0, text.find('\n'));
}

exit_status run_check(const context &common, const check_options &options)
{
    findings out;
    try {
        common.is_site ? check_site(common, options, out) : check_network(common, options, out);
    } catch (const failure &error) {
        const bool is_card_at_fault = error.status == STATUS_NO_BROKER;
        out.add(is_card_at_fault ? VERDICT_CRITICAL : VERDICT_UNKNOWN, first_line(error.what()));
    } catch (const std::exception &error) {
        out.add(VERDICT_UNKNOWN, error.what());
    }
    return static_cast<exit_status>(out.print());
}

} // namespace

exit_status print_wrong_check(const std::string &reason)
{
    findings out;
    out.add(VERDICT_UNKNOWN, first_line(reason));
    return static_cast<exit_status>(out.print());
}

void add_check_command(command_line &line, context &common)
{
    auto [added, options] =
        add_command<check_options>(line, common, "check",
                                   "Judge the network for a monitoring service: one line, exit status 0 OK, "
                                   "1 WARNING, 2 CRITICAL, 3 UNKNOWN.",
                                   run_check);
    added.text(
        {.name = "--expect",
         .help = "So many nodes must be there, or with 'names' every node of the names file; else CRITICAL",
         .value = "N|names",
         .check = check_expected},
        options->expected);
    for (const watched_list &watched : WATCHED) {
        added.text(
            {.name = watched.option, .help = watched.help, .value = "MAX[,MAX]", .check = check_limits},
            options->port_limits[watched.list]);
    }
    add_site_options(added, common);
    added.choice({.name = "--ring-degraded",
                  .help = "What a degraded ring is: ok, warning (as without) or critical",
                  .value = "VERDICT",
                  .excluded = "--site"},
                 SEVERITIES, options->ring_severity);
    added.text({.name = "--unreachable",
                .help = "Of a site: more cards that aren't connected; as without, one is CRITICAL",
                .value = "MAX[,MAX]",
                .needed = "--site",
                .check = check_limits},
               options->unreachable_limits);
    added.choice({.name = "--views-differ",
                  .help = "Of a site, what it is when cards differ in what they say of their network: ok, "
                          "warning (as without) or critical",
                  .value = "VERDICT",
                  .needed = "--site"},
                 SEVERITIES, options->views_severity);
    added.number({.name = "--timeout",
                  .help = "How long the daemon may take to answer; of a site, how long views may differ",
                  .value = "SECONDS"},
                 options->seconds, 1, 60);
    added.exit_status_help("Exit status: 0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN; 3 also for wrong usage.");
    add_broker_options(added, common);
}
