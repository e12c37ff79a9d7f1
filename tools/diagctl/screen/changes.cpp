#include "screen/changes.h"

#include <cstdio>

void print_change(const network &net, const std::string &topic, const std::string &text, const moment &now,
                  bool is_json)
{
    if (!is_json) {
        printf("%s %s\n", date_text(now).c_str(), text.c_str());
        return;
    }
    const std::optional<topic_place> place = parse_topic_place(topic);
    const json object = {
        {"time", utc_text(now.wall)},
        {"topic", topic},
        {"mac", place ? json(mac_text(place->mac)) : json()},
        {"port", place && place->port ? json(port_text(*place->port)) : json()},
        {"change", text},
        {"value", topic_json(net, topic)},
    };
    puts(object.dump().c_str());
}
