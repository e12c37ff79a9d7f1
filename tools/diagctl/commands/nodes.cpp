// diagctl nodes: a table of the nodes.
#include "commands/reading.h"

namespace
{

struct {
    reading_options options;
    node_order order = node_order::MAC;
} nodes;

} // namespace

void add_nodes_command(CLI::App &app, command_context &context)
{
    CLI::App *const command = add_command(app, context, "nodes", "Show a table of the nodes.", [&context] {
        return reading_of_network(context.address, nodes.options, [](const network &net) {
            return report_nodes(net, nodes.order, current_moment());
        });
    });
    add_reading_options(*command, nodes.options);
    command->add_option("--sort", nodes.order, "Order of the nodes: mac, number, faults or change")
        ->type_name("ORDER")
        ->transform(CLI::CheckedTransformer(std::map<std::string, node_order>{{"mac", node_order::MAC},
                                                                              {"number", node_order::NUMBER},
                                                                              {"faults", node_order::FAULTS},
                                                                              {"change", node_order::CHANGE}})
                        .description(""));
}
