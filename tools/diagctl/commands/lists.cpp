// diagctl lists: what is wrong in the network.
#include "commands/reading.h"
#include "commands/site.h"
#include "network/json.h"

namespace
{

exit_status run_lists(const context &common, const reading_options &options)
{
    if (common.is_site) {
        return site_lists(common, options);
    }
    reading looked(common, options);
    return looked.show({.lines = [&] { return lists_lines(looked.net()); },
                        .object = [&] { return lists_json(looked.net()); }});
}

} // namespace

void add_lists_command(command_line &line, context &common)
{
    auto [added, options] =
        add_command<reading_options>(line, common, "lists",
                                     "Show the network's lists: ports with the link down, a ground fault or "
                                     "miswired, miswired links, and whether the network would survive a cut.",
                                     run_lists);
    add_reading_options(added, common, *options);
    add_site_options(added, common);
}
