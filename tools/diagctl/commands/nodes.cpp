// diagctl nodes: a table of the nodes.
#include "clock.h"
#include "commands/reading.h"
#include "commands/site.h"
#include "network/json.h"

namespace
{

struct nodes_options : reading_options {
    unsigned order = 0; // of ORDERS
};

const std::vector<std::string> ORDERS = {"mac", "number", "faults", "change"}; // by node_order

exit_status run_nodes(const context &common, const nodes_options &options)
{
    if (common.is_site) {
        return site_nodes(common, options, static_cast<node_order>(options.order));
    }
    reading looked(common, options);
    const network &net = looked.net();
    const auto order = static_cast<node_order>(options.order);
    return looked.show({.lines = [&] { return node_table(net, sorted_nodes(net, order), current_moment()); },
                        .object = [&] { return nodes_json(net, order); }});
}

} // namespace

void add_nodes_command(command_line &line, context &common)
{
    auto [added, options] =
        add_command<nodes_options>(line, common, "nodes", "Show a table of the nodes.", run_nodes);
    add_reading_options(added, common, *options);
    add_site_options(added, common);
    added.choice(
        {.name = "--sort", .help = "Order of the nodes: mac, number, faults or change", .value = "ORDER"},
        ORDERS, options->order);
}
