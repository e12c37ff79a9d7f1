#include "export/metrics.h"

#include "topics.h"

#include <algorithm>

namespace
{

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;
using labels = std::vector<ClientMetric::Label>;

constexpr uint64_t PERIOD_SECONDS = 900;
constexpr double PARTS_PER_MILLION = 1e6;

struct flag_metric {
    int topic;
    const char *name;
    const char *help;
};
constexpr flag_metric FLAGS[] = {
    {TOPIC_M301, "diag_node_m301", "Whether the M301 flag of the node is on."},
    {TOPIC_M702, "diag_node_m702", "Whether the M702 flag of the node is on."},
    {TOPIC_COMM_LOSS, "diag_node_comm_loss", "Whether the node reports a loss of communication."},
    {TOPIC_DOWNLOAD_PENDING, "diag_node_download_pending", "Whether a download to the node is pending."},
};

class families
{
public:
    void add(MetricType type, const std::string &name, const std::string &help, const labels &label,
             double value)
    {
        auto family =
            std::find_if(all.begin(), all.end(), [&](const MetricFamily &f) { return f.name == name; });
        if (family == all.end()) {
            family = all.insert(all.end(), {name, help, type, {}});
        }
        ClientMetric metric;
        metric.label = label;
        (type == MetricType::Counter ? metric.counter.value : metric.gauge.value) = value;
        family->metric.push_back(std::move(metric));
    }
    void gauge(const std::string &name, const std::string &help, const labels &label, double value)
    {
        add(MetricType::Gauge, name, help, label, value);
    }

    std::vector<MetricFamily> all;
};

double seconds_of(const moment &when)
{
    return std::chrono::duration<double>(when.wall.time_since_epoch()).count();
}

labels port_labels(const mac_address &mac, int port)
{
    return {{"mac", mac_text(mac)}, {"port", port_text(port)}};
}

// "link_down_count" counts link downs: as a metric, "link_downs_total".
std::string counter_name(std::string name)
{
    constexpr std::string_view COUNT = "_count";
    if (name.ends_with(COUNT)) {
        name.replace(name.size() - COUNT.size(), COUNT.size(), "s");
    }
    return "diag_port_" + name + "_total";
}

void add_statistics(families &out, const labels &port, const stats_record &record)
{
    for (const stats_field &field : STATS_FIELDS) {
        const auto value = static_cast<double>(field_value(record, field));
        const std::string name = field.name;
        if (field.offset == STATS_ERROR_RATIO_PPM) {
            out.gauge("diag_port_error_ratio", "Share of errored frames since the last reset, 0 to 1.", port,
                      value / PARTS_PER_MILLION);
        } else if (field.treatment == stats_treatment::PASSED) {
            out.gauge("diag_port_" + name, "The port's statistics: " + name + ".", port, value);
        } else {
            out.add(MetricType::Counter, counter_name(name),
                    "The port's statistics since their last reset: " + name + ".", port, value);
        }
    }
}

// Of the closed quarter hours of the last day.
void add_performance(families &out, const labels &port, const port_records &records)
{
    uint64_t periods = 0;
    uint64_t down_seconds = 0;
    uint64_t last_time = 0;
    for (const auto &[slot, record] : records.pm) {
        if (!record.value || !slot.starts_with(PM_PERIOD)) {
            continue;
        }
        const pm_record &value = *record.value;
        periods++;
        down_seconds +=
            std::min<uint64_t>(load_be<uint32_t>(value.data() + PM_LINK_DOWN_SECONDS), PERIOD_SECONDS);
        last_time = std::max(last_time, static_cast<uint64_t>(closing_time(value)));
    }
    out.gauge("diag_port_pm_periods", "Closed quarter hours of the last day with a performance record.", port,
              static_cast<double>(periods));
    if (periods > 0) {
        out.gauge("diag_port_availability_ratio",
                  "Share of the time that the link was up, in the closed quarter hours of the last day.",
                  port,
                  1 - static_cast<double>(down_seconds) / static_cast<double>(periods * PERIOD_SECONDS));
        out.gauge("diag_port_pm_last_period_timestamp_seconds", "When the last quarter hour closed.", port,
                  static_cast<double>(last_time));
    }
}

void add_ports(families &out, const network &net, const node &shown)
{
    for (int port = 0; port < LUM_FRONT_PORTS; port++) {
        const labels label = port_labels(shown.mac, port);
        const int colour = shown.colours ? (*shown.colours)[static_cast<size_t>(port)] : -1;
        const bool has_colour = colour >= 0 && colour < PORT_STATUS_NONE;
        for (int i = 0; has_colour && i < PORT_STATUS_NONE; i++) {
            labels with_colour = label;
            with_colour.push_back({"colour", colour_name(i)});
            out.gauge("diag_port_status", "1 for the colour that the port has, 0 for the others.",
                      with_colour, i == colour ? 1 : 0);
        }
        const int media = shown.media ? (*shown.media)[static_cast<size_t>(port)] : LUM_TYPE_NONE;
        if (media < LUM_TYPE_NONE) {
            labels with_media = label;
            with_media.push_back({"media", hwinfo_lumtype_enum_to_str(media)});
            out.gauge("diag_port_media_info", "The media of the port.", with_media, 1);
        }
        for (int i = 0; i < PORT_LISTS; i++) {
            const auto which = static_cast<port_list>(i);
            const port_list_info &info = PORT_LIST_INFOS[which];
            const bool is_listed = (net.listed(which, shown.mac) >> port & 1) != 0;
            if (net.lists[which].value && (has_colour || is_listed)) {
                out.gauge(std::string("diag_port_") + info.name,
                          std::string("Whether the port is in the network's ") + info.label + ".", label,
                          is_listed ? 1 : 0);
            }
        }
    }
    for (const auto &[port, records] : shown.ports) {
        if (records.stats.value) {
            add_statistics(out, port_labels(shown.mac, port), *records.stats.value);
        }
        add_performance(out, port_labels(shown.mac, port), records);
    }
}

void add_node(families &out, const network &net, const node &shown)
{
    const std::string mac = mac_text(shown.mac);
    const auto fact_of = [&](int topic) { return shown.facts[static_cast<size_t>(topic)].value; };
    const auto version = [&](size_t i) { return i < shown.versions.size() ? shown.versions[i].version : ""; };
    const std::string *const name = net.names.of(shown.mac);
    out.gauge(
        "diag_node_info",
        "What a node is; number is empty while no list names the node, name where the names file doesn't.",
        {{"mac", mac},
         {"name", name == nullptr ? "" : *name},
         {"number", shown.number ? std::to_string(*shown.number) : ""},
         {"location", net.is_local(shown.mac) ? "local" : "remote"},
         {NODE_JOB_NAME, fact_of(TOPIC_JOB_NAME).value_or("")},
         {NODE_JOB_REV, fact_of(TOPIC_JOB_REV).value_or("")},
         {"os_version", version(0)},
         {"boot_version", version(1)},
         {"app_version", version(2)}},
        1);
    if (shown.last_change) {
        out.gauge("diag_node_last_change_timestamp_seconds",
                  "When something of the node other than its statistics has changed, seen by this exporter.",
                  {{"mac", mac}}, seconds_of(*shown.last_change));
    }
    for (const flag_metric &flag : FLAGS) {
        if (const auto value = fact_of(flag.topic)) {
            out.gauge(flag.name, flag.help, {{"mac", mac}}, *value == "on" ? 1 : 0);
        }
    }
    add_ports(out, net, shown);
}

} // namespace

std::vector<MetricFamily> network_metrics(const network &net, bool is_daemon_up)
{
    families out;
    out.gauge("diag_daemon_up", "Whether the card's daemon answers commands.", {}, is_daemon_up ? 1 : 0);
    size_t present = 0;
    for (const auto &[mac, shown] : net.nodes) {
        if (net.has(shown)) {
            present++;
            add_node(out, net, shown);
        }
    }
    out.gauge("diag_nodes", "Nodes present in the network, the local one included.", {},
              static_cast<double>(present));
    if (net.ring_degraded.value) {
        out.gauge("diag_network_degraded", "Whether a ring of the network is open.", {},
                  *net.ring_degraded.value ? 1 : 0);
    }
    for (const auto &[ring, state] : net.rings) {
        if (state.value && *state.value >= 0) {
            out.gauge("diag_ring_closed", "Whether a configured ring of the local node is closed.",
                      {{"ring", std::to_string(ring)}}, *state.value == RING_STATUS_CLOSED ? 1 : 0);
        }
    }
    for (const miswired_link &link : net.miswired_links.value.value_or(std::vector<miswired_link>{})) {
        out.gauge("diag_miswired_link", "A link between the wrong ports, by node number.",
                  {{"node", std::to_string(link.number)},
                   {"port", port_text(link.port)},
                   {"peer_node", std::to_string(link.peer_number)},
                   {"peer_port", port_text(link.peer_port)}},
                  1);
    }
    return std::move(out.all);
}
