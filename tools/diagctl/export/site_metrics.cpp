#include "export/site_metrics.h"

#include "export/metrics.h"
#include "screen/site_reports.h"

#include <algorithm>
#include <unordered_map>

namespace
{

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

constexpr const char *DAEMON_UP = "diag_daemon_up"; // no card is asked

class families
{
public:
    MetricFamily &family(const std::string &name, const std::string &help, MetricType type)
    {
        const auto [found, is_new] = places.try_emplace(name, all.size());
        if (is_new) {
            all.push_back({name, help, type, {}});
        }
        return all[found->second];
    }
    void gauge(const std::string &name, const std::string &help, std::vector<ClientMetric::Label> labels,
               double value)
    {
        ClientMetric metric;
        metric.label = std::move(labels);
        metric.gauge.value = value;
        family(name, help, MetricType::Gauge).metric.push_back(std::move(metric));
    }

    std::vector<MetricFamily> all;

private:
    std::unordered_map<std::string, size_t> places;
};

std::string name_of(const network &net, const std::string &mac)
{
    const std::optional<mac_address> parsed = parse_topic_mac(mac);
    const std::string *const name = parsed ? net.names.of(*parsed) : nullptr;
    return name == nullptr ? "" : *name;
}

const std::string *label_of(const ClientMetric &metric, const char *name)
{
    const auto found = std::find_if(metric.label.begin(), metric.label.end(),
                                    [&](const ClientMetric::Label &one) { return one.name == name; });
    return found == metric.label.end() ? nullptr : &found->value;
}

void add_labels(ClientMetric &metric, const network &net, const std::string &label)
{
    const std::string *const mac = label_of(metric, "mac");
    if (mac != nullptr && label_of(metric, "name") == nullptr) {
        metric.label.push_back({"name", name_of(net, *mac)});
    }
    metric.label.push_back({"network", label});
    // No card is local or remote here.
    std::erase_if(metric.label, [](const ClientMetric::Label &one) { return one.name == "location"; });
}

void add_network(families &out, const site &all, const site_network &shown)
{
    network net = site_network_model(all, shown.cards);
    const std::string label = network_label(all, shown);
    for (const mac_address &mac : shown.cards) {
        const std::optional<bool> is_connected = all.is_connected(mac);
        const std::string text = mac_text(mac);
        if (is_connected) {
            out.gauge(
                "diag_card_connected", "Whether the card's broker is connected to a broker of the site.",
                {{"mac", text}, {"network", label}, {"name", name_of(net, text)}}, *is_connected ? 1 : 0);
        }
        if (is_connected == false) {
            net.nodes.erase(mac);
        }
    }
    out.gauge("diag_view_differences",
              "In how many ways the cards of the network differ in what they say of it.",
              {{"network", label}}, static_cast<double>(shown.differences.size()));
    for (MetricFamily &given : network_metrics(net, false)) {
        if (given.name == DAEMON_UP) {
            continue;
        }
        MetricFamily &target = out.family(given.name, given.help, given.type);
        for (ClientMetric &metric : given.metric) {
            add_labels(metric, net, label);
            target.metric.push_back(std::move(metric));
        }
    }
}

} // namespace

std::string network_label(const site &all, const site_network &shown)
{
    const std::string *const name = all.net(shown.cards[0]).names.of(shown.cards[0]);
    return name == nullptr ? mac_text(shown.cards[0]) : *name;
}

std::vector<MetricFamily> site_metrics(const site &all)
{
    families out;
    for (const site_network &shown : all.networks()) {
        add_network(out, all, shown);
    }
    return std::move(out.all);
}
