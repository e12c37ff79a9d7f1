// The ways in which the network's state is exported.
#pragma once

#include "commands/context.h"
#include "web/http_server.h"

#include <prometheus/metric_family.h>

#include <functional>
#include <vector>

// What http://ADDRESS:PORT/metrics says.
http_answer metrics_answer(const http_request &request,
                           const std::function<std::vector<prometheus::MetricFamily>()> &collect);

struct history_options {
    std::string path; // empty: no history; "-": standard output
    unsigned min_age_hours = 0;
};
exit_status export_history(const context &common, const history_options &options);
