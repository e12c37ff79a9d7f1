// The network as Prometheus metrics: model in, metric families out. The metrics are documented in diagctl(1).
// Nothing here talks to a broker or listens.
#pragma once

#include "network/model.h"

#include <prometheus/metric_family.h>

// What is present and well-formed; a node that has left has no metrics. is_daemon_up: whether the daemon
// answers.
std::vector<prometheus::MetricFamily> network_metrics(const network &net, bool is_daemon_up);
