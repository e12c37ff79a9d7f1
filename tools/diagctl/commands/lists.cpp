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
    const auto options = std::make_shared<reading_options>();
    command added =
        line.add("lists",
                 "Show the network's lists: ports with the link down, a ground fault or miswired, miswired "
                 "links, and whether the network would survive a cut.",
                 [&common, options] { return run_lists(common, *options); });
    add_reading_options(added, common, *options);
    add_site_options(added, common);
}
