// diagctl export --site: all cards of a site for Prometheus.
#include "commands/exporting.h"
#include "commands/site_session.h"
#include "export/site_metrics.h"
#include "topics.h"

#include <fmt/core.h>

#include <cstdio>

namespace
{

constexpr std::chrono::seconds LOOK(1); // for clients that say nothing

std::vector<prometheus::MetricFamily> collect(site_session &looked)
{
    const auto guard = looked.lock();
    std::vector<prometheus::MetricFamily> all = site_metrics(looked.cards());
    prometheus::MetricFamily brokers = {
        "diag_site_broker_up", "Whether the broker of the site is there.", prometheus::MetricType::Gauge, {}};
    for (size_t broker = 0; broker < looked.brokers().count(); broker++) {
        prometheus::ClientMetric metric;
        metric.label = {{"broker", looked.brokers().address(broker).text()}};
        metric.gauge.value = looked.brokers().state_of(broker) == site_brokers::state::THERE ? 1 : 0;
        brokers.metric.push_back(std::move(metric));
    }
    all.push_back(std::move(brokers));
    return all;
}

} // namespace

exit_status site_export(const context &common, const std::string &listen)
{
    site_session looked(common, {DIAG_FILTER});
    http_server server(*parse_listen_address(listen), std::nullopt, [&](const http_request &request) {
        return metrics_answer(request, [&] { return collect(looked); });
    });
    fmt::print(stderr, "diagctl: metrics of the site at http://{}/metrics\n", server.address());
    while (looked.wait_for(server.descriptor(), LOOK)) {
        server.serve();
    }
    return STATUS_SUCCESS;
}
