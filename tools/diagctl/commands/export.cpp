// diagctl export: the network for Prometheus, over HTTP.
#include "broker/signals.h"
#include "commands/action.h"
#include "export/metrics.h"
#include "topics.h"

#include <prometheus/collectable.h>
#include <prometheus/exposer.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace
{

using std::chrono::seconds;

constexpr seconds ASK_INTERVAL(5); // also how long the daemon may take to answer

struct {
    std::string listen = "127.0.0.1:9885";
    std::mutex mutex; // of net and is_daemon_up: the server's threads read them
    network net;
    bool is_daemon_up = false;
} exported;

class exporter : public prometheus::Collectable
{
public:
    std::vector<prometheus::MetricFamily> Collect() const override
    {
        const std::lock_guard lock(exported.mutex);
        return network_metrics(exported.net, exported.is_daemon_up);
    }
};

void take_message(std::string_view topic, std::span<const uint8_t> payload, bool is_retained)
{
    if (!request_take_answer(topic, payload)) {
        const std::lock_guard lock(exported.mutex);
        network_apply(exported.net, topic, payload, is_retained, current_moment());
    }
}

// A daemon that has ended leaves all that it published on the broker: only its answers tell that it is there.
exit_status ask_daemon(const broker_address &address)
{
    std::string error;
    for (;;) {
        const uint32_t transaction = request_send("noop", error);
        bool is_answered = false;
        const auto take_answer = [&] {
            if (!is_answered && request_answer(transaction)) {
                const std::lock_guard lock(exported.mutex);
                is_answered = exported.is_daemon_up = true;
            }
            return false;
        };
        const session_end end =
            transaction == 0 ? session_end::LOST : session_wait(take_answer, ASK_INTERVAL, error);
        if (end == session_end::LOST) {
            return report_lost(address, error);
        }
        if (end == session_end::INTERRUPTED) {
            return STATUS_SUCCESS;
        }
        if (!is_answered) {
            request_forget(transaction);
            const std::lock_guard lock(exported.mutex);
            exported.is_daemon_up = false;
        }
    }
}

exit_status serve(const broker_address &address)
{
    const auto collectable = std::make_shared<exporter>();
    std::optional<prometheus::Exposer> server;
    try {
        server.emplace(exported.listen);
    } catch (const std::exception &) {
        fprintf(stderr, "diagctl: couldn't listen on %s: is the address this machine's, and the port free?\n",
                exported.listen.c_str());
        return STATUS_FAILURE;
    }
    server->RegisterCollectable(collectable);
    fprintf(stderr, "diagctl: metrics of %s:%d at http://%s/metrics\n", address.host.c_str(), address.port,
            exported.listen.c_str());
    return ask_daemon(address);
}

exit_status run_export(const broker_address &address)
{
    // Before the server's threads exist: they inherit that signals come to the main thread alone.
    if (signals_open() == -1) {
        fprintf(stderr, "diagctl: couldn't watch for signals: %s\n", strerror(errno));
        return STATUS_FAILURE;
    }
    const exit_status opened =
        open_session(address, {DIAG_FILTER, NETWORK_STYLE7_TOPIC, RING_STATUS_FILTER}, take_message);
    if (opened != STATUS_SUCCESS) {
        return opened;
    }
    const exit_status status = serve(address);
    session_close();
    return status;
}

} // namespace

void add_export_command(CLI::App &app, command_context &context)
{
    CLI::App *const command = add_command(
        app, context, "export", "Serve the network's state as metrics for Prometheus, until Ctrl-C.",
        [&context] { return run_export(context.address); });
    command->add_option("--listen", exported.listen, "Where to serve http://ADDRESS:PORT/metrics")
        ->type_name("ADDRESS:PORT")
        ->capture_default_str();
}
