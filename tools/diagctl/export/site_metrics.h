// A site as Prometheus metrics: those of each network with labels network and name, and what only a site knows.
#pragma once

#include "network/site.h"

#include <prometheus/metric_family.h>

// A card that isn't connected has none but diag_card_connected.
std::vector<prometheus::MetricFamily> site_metrics(const site &all);
