// What the exporters of a card and of a site have in common.
#pragma once

#include "web/http_server.h"

#include <prometheus/metric_family.h>

#include <functional>
#include <vector>

// What http://ADDRESS:PORT/metrics says.
http_answer metrics_answer(const http_request &request,
                           const std::function<std::vector<prometheus::MetricFamily>()> &collect);
