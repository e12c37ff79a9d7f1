// A site as Prometheus metrics: those of each network with labels network and name, and what only a site knows.
#pragma once

#include "network/site.h"

#include <prometheus/metric_family.h>

// How metrics call a network: as its first card is called, else that one's MAC address.
std::string network_label(const site &all, const site_network &shown);

// A card that isn't connected has none but diag_card_connected.
std::vector<prometheus::MetricFamily> site_metrics(const site &all);
