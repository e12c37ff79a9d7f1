// diagctl show: all that is known of one node.
#include "commands/reading.h"
#include "commands/site.h"
#include "network/json.h"

namespace
{

struct show_options : reading_options {
    std::string node;
};

exit_status run_show(const context &common, const show_options &options)
{
    if (common.is_site) {
        return site_show(common, options, options.node);
    }
    reading looked(common, options);
    looked.select(options.node);
    return looked.show({.lines = [&] { return node_lines(looked.net(), looked.selected()); },
                        .object = [&] { return node_json(looked.net(), looked.selected()); }});
}

} // namespace

void add_show_command(command_line &line, context &common)
{
    auto [added, options] =
        add_command<show_options>(line, common, "show", "Show all that is known of a node.", run_show);
    add_node_argument(added, options->node);
    add_reading_options(added, common, *options);
    add_site_options(added, common);
}
