// diagctl ping: is the daemon there?
#include "broker/requests.h"
#include "commands/context.h"
#include "commands/site.h"
#include "network/json.h"

#include <fmt/core.h>
#include <nlohmann/json.hpp>

#include <cstdio>

namespace
{

struct ping_options {
    std::string node; // only at a site
    unsigned count = 1;
    bool is_json = false;
};

constexpr std::chrono::seconds INTERVAL(1);

exit_status run_ping(const context &common, const ping_options &options)
{
    if (common.is_site) {
        return site_ping(common, options.node, options.is_json);
    }
    using std::chrono::steady_clock;
    session broker(common.address());
    requests asked(broker);
    broker.subscribe({});
    for (unsigned i = 0; i < options.count; i++) {
        if (i > 0) {
            broker.wait([] { return false; }, INTERVAL);
        }
        const auto start = steady_clock::now();
        asked.run({.command = "noop"});
        const std::chrono::duration<double, std::milli> taken = steady_clock::now() - start;
        if (options.is_json) {
            const json object = {{"broker", common.address().text()}, {"answer_ms", taken.count()}};
            puts(json_text(object).c_str());
        } else {
            fmt::print("the daemon at {} has answered in {:.1f} ms\n", common.address().text(),
                       taken.count());
        }
        fflush(stdout);
    }
    return STATUS_SUCCESS;
}

} // namespace

void add_ping_command(command_line &line, context &common)
{
    auto [added, options] = add_command<ping_options>(
        line, common, "ping", "Ask the daemon whether it is there, and show how long its answer takes.",
        run_ping);
    add_broker_options(added, common);
    add_site_options(added, common);
    added.text({.name = "NODE", .help = "Only this card of the site", .needed = "--site"}, options->node);
    added.number({.name = "--count", .help = "How often, once a second", .value = "N"}, options->count, 1,
                 1000000);
    add_json_option(added, options->is_json, "Print one JSON object a line");
}
