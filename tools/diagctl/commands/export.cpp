// diagctl export: the network for Prometheus, over HTTP.
#include "broker/requests.h"
#include "broker/signals.h"
#include "clock.h"
#include "commands/context.h"
#include "export/metrics.h"

#include <fmt/core.h>
#include <prometheus/collectable.h>
#include <prometheus/exposer.h>

#include <cstdio>
#include <mutex>

namespace
{

constexpr std::chrono::seconds ASK_INTERVAL(5); // also how long the daemon may take to answer

struct export_options {
    std::string listen = "127.0.0.1:9885";
};

// The network as the server's threads read it.
class exported_network : public prometheus::Collectable
{
public:
    explicit exported_network(network empty) : net(std::move(empty)) {}

    std::vector<prometheus::MetricFamily> Collect() const override
    {
        const std::lock_guard lock(mutex);
        return network_metrics(net, is_daemon_up);
    }
    void apply(std::string_view topic, bytes payload, bool is_retained)
    {
        const std::lock_guard lock(mutex);
        network_apply(net, topic, payload, is_retained, current_moment());
    }
    void set_daemon(bool is_up)
    {
        const std::lock_guard lock(mutex);
        is_daemon_up = is_up;
    }

private:
    mutable std::mutex mutex;
    network net;
    bool is_daemon_up = false;
};

// A daemon that has ended leaves all that it published on the broker: only its answers tell that it is there. Returns when a
// signal comes.
void ask_daemon(session &broker, requests &asked, exported_network &exported)
{
    wait_end end = wait_end::DONE;
    while (end != wait_end::INTERRUPTED) {
        const uint32_t transaction = asked.send("noop");
        bool is_answered = false;
        const auto take_answer = [&] {
            if (!is_answered && asked.answer(transaction)) {
                is_answered = true;
                exported.set_daemon(true);
            }
            return false;
        };
        end = broker.wait(take_answer, ASK_INTERVAL);
        if (!is_answered) {
            asked.forget(transaction);
            exported.set_daemon(false);
        }
    }
}

std::unique_ptr<prometheus::Exposer> listen_on(const std::string &address)
{
    try {
        return std::make_unique<prometheus::Exposer>(address);
    } catch (const std::exception &) {
        throw failure(
            STATUS_FAILURE,
            fmt::format("couldn't listen on {}: is the address this machine's, and the port free?", address));
    }
}

exit_status run_export(const context &common, const export_options &options)
{
    // Before the server's threads exist: they inherit that signals come to the main thread alone.
    const signal_input signals;
    const auto exported = std::make_shared<exported_network>(named_network(common));
    session broker(common.address, &signals);
    requests asked(broker);
    broker.listen([&](std::string_view topic, bytes payload, bool is_retained) {
        exported->apply(topic, payload, is_retained);
        return true;
    });
    broker.subscribe(all_filters());
    const std::unique_ptr<prometheus::Exposer> server = listen_on(options.listen);
    server->RegisterCollectable(exported);
    fmt::print(stderr, "diagctl: metrics of {} at http://{}/metrics\n", common.address.text(),
               options.listen);
    ask_daemon(broker, asked, *exported);
    return STATUS_SUCCESS;
}

} // namespace

void add_export_command(command_line &line, context &common)
{
    const auto options = std::make_shared<export_options>();
    command added = line.add("export", "Serve the network's state as metrics for Prometheus, until Ctrl-C.",
                             [&common, options] { return run_export(common, *options); });
    added.text(
        {.name = "--listen", .help = "Where to serve http://ADDRESS:PORT/metrics", .value = "ADDRESS:PORT"},
        options->listen);
    add_broker_options(added, common);
}
