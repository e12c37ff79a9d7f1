// What the commands do with --site: they look at, and command, all cards that the brokers of a site know.
#pragma once

#include "commands/reading.h"
#include "network/site.h"

// Adds --site, and how to log in at the site's brokers.
void add_site_options(command &added, context &common);

exit_status site_nodes(const context &common, const reading_options &options, node_order order);
exit_status site_lists(const context &common, const reading_options &options);
exit_status site_show(const context &common, const reading_options &options, const std::string &node);
exit_status site_ports(const context &common, const reading_options &options, const std::string &node,
                       unsigned measure_seconds);
exit_status site_pm(const context &common, const reading_options &options, const std::string &node, int port,
                    pm_kind kind, bool is_csv);
exit_status site_export(const context &common, const std::string &listen);
exit_status site_watch(const context &common, bool is_json);
exit_status site_top(const context &common);
// node: empty for all that are connected.
exit_status site_ping(const context &common, const std::string &node, bool is_json);
exit_status site_reset(const context &common, const std::string &node, int port, bool is_yes);
