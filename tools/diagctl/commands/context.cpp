#include "commands/context.h"

#include "clock.h"
#include "topics.h"

#include <fmt/core.h>
#include <mosquitto.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

namespace
{

constexpr const char *SYSTEM_NAMES = "/etc/diag/names";

// Where the user's own settings are.
std::string user_names()
{
    const char *const config = getenv("XDG_CONFIG_HOME");
    const char *const home = getenv("HOME");
    if (config != nullptr && *config == '/') {
        return std::string(config) + "/diag/names";
    }
    return home == nullptr ? "" : std::string(home) + "/.config/diag/names";
}

void add_names_of(node_names &names, const std::string &path, bool is_needed)
{
    std::ifstream file(path);
    const int error = !file ? errno : std::filesystem::is_directory(path) ? EISDIR : 0;
    if (error == ENOENT && !is_needed) {
        return;
    }
    if (error != 0) {
        throw failure(STATUS_FAILURE,
                      fmt::format("couldn't read the names in {}: {}", path, strerror(error)));
    }
    names.add(std::string(std::istreambuf_iterator<char>(file), {}), path);
}

// Each once, though several nodes may have it.
std::set<std::string_view> different_names(const node_names &names)
{
    std::set<std::string_view> different;
    for (const auto &[mac, name] : names.all()) {
        different.insert(name);
    }
    return different;
}

// "Cellar, Lobby", as far as they fit a line or two.
std::string known_names(const node_names &names)
{
    constexpr size_t MAX_NAMES = 20;
    const std::set<std::string_view> different = different_names(names);
    std::string text;
    size_t count = 0;
    for (const std::string_view name : different) {
        if (++count > MAX_NAMES) {
            return text + fmt::format(" and {} more", different.size() - MAX_NAMES);
        }
        text.append(text.empty() ? "" : ", ").append(name);
    }
    return text;
}

} // namespace

void add_broker_options(command &added, context &common)
{
    added.texts({.name = "--host", .help = "Host of the broker", .value = "HOST", .environment = "DIAG_HOST"},
                common.hosts);
    added.number(
        {.name = "--port", .help = "TCP port of the broker", .value = "PORT", .environment = "DIAG_PORT"},
        common.port, 1, 65535);
    added.text(
        {.name = "--user", .help = "User name at the broker", .value = "NAME", .environment = "DIAG_USER"},
        common.user);
    added.text({.name = "--password-file",
                .help = "The password is the first line of this file",
                .value = "FILE",
                .environment = "DIAG_PASSWORD_FILE"},
               common.password_file);
    added.text({.name = "--cafile",
                .help = "TLS, with a broker whose certificate is signed by one of these",
                .value = "FILE",
                .environment = "DIAG_CAFILE"},
               common.ca_file);
    add_names_option(added, common);
}

broker_address context::address() const
{
    if (hosts.size() != 1) {
        throw failure(STATUS_USAGE, "several hosts are for --site only");
    }
    return {hosts[0], port, login()};
}

broker_login context::login() const
{
    broker_login login = {.user = user, .password = "", .ca_file = ca_file};
    if (!password_file.empty()) {
        std::ifstream file(password_file);
        if (!std::getline(file, login.password)) {
            throw failure(STATUS_FAILURE, fmt::format("couldn't read the password in {}", password_file));
        }
    }
    return login;
}

void add_names_option(command &added, context &common)
{
    added.text({.name = "--names",
                .help = "What the nodes are called: a line 'MAC NAME' for each",
                .value = "FILE",
                .environment = "DIAG_NAMES"},
               common.names_file);
}

void add_json_option(command &added, bool &is_json, const char *help)
{
    added.flag({.name = "--json", .help = help}, is_json);
}

void add_node_argument(command &added, std::string &text, bool is_required)
{
    added.text(
        {.name = "NODE", .help = "MAC address, node number, name, or local", .is_required = is_required},
        text);
}

void add_port_argument(command &added, std::string &text, const value_check &check, bool is_required)
{
    const auto check_port = [check](const std::string &word) {
        return !parse_port(word) ? "'" + word + "' is no port: use A to H or CPU" : check ? check(word) : "";
    };
    added.text({.name = "PORT", .help = "A to H or CPU", .is_required = is_required, .check = check_port},
               text);
}

node_names read_names(const context &common)
{
    node_names names;
    try {
        if (!common.names_file.empty()) {
            add_names_of(names, common.names_file, true);
            return names;
        }
        add_names_of(names, SYSTEM_NAMES, false);
        if (const std::string own = user_names(); !own.empty()) {
            add_names_of(names, own, false);
        }
    } catch (const bad_names &error) {
        throw failure(STATUS_FAILURE, error.what());
    }
    return names;
}

std::string listed_names(const context &common)
{
    context asked = common;
    const char *const file = getenv("DIAG_NAMES");
    asked.names_file = file == nullptr ? "" : file;
    const node_names names = read_names(asked);
    std::string text;
    for (const std::string_view name : different_names(names)) {
        text.append(name).append("\n");
    }
    return text;
}

node_reference parse_node(const std::string &text, const node_names &names)
{
    if (const std::optional<node_reference> reference = parse_node_reference(text, names)) {
        return *reference;
    }
    std::string reason = fmt::format(
        "'{}' is no node: use a MAC address, a node number from 1 to 255, a name, or local", printable(text));
    reason += names.all().empty() ? "\nNo names are known: see --names in diagctl(1)."
                                  : fmt::format("\nThe names are {}.", known_names(names));
    throw failure(STATUS_USAGE, reason);
}

const node &resolve_node(const network &net, const std::string &text)
{
    const node_reference reference = parse_node(text, net.names);
    const std::vector<const node *> found = find_nodes(net, reference);
    if (found.size() == 1) {
        return *found[0];
    }
    if (found.empty()) {
        std::string reason = fmt::format("no node {} is known here; 'diagctl nodes' lists them", text);
        if (reference.number) {
            reason +=
                "\nA node's number is known only while a list of faults names the node: use its MAC address.";
        }
        throw failure(STATUS_FAILURE, reason);
    }
    std::string reason = fmt::format(
        "several nodes have the {} {}, use a MAC address:", reference.number ? "number" : "name", text);
    for (const node *candidate : found) {
        reason += "\n  " + mac_text(candidate->mac);
    }
    throw failure(STATUS_FAILURE, reason);
}

network named_network(const context &common)
{
    network net;
    net.names = read_names(common);
    return net;
}

void feed(session &broker, network &net)
{
    broker.listen([&net](std::string_view topic, bytes payload, bool is_retained) {
        network_apply(net, topic, payload, is_retained, current_moment());
        return false;
    });
}

std::vector<std::string> all_filters()
{
    return {DIAG_FILTER, NETWORK_STYLE7_TOPIC, RING_STATUS_FILTER};
}

std::vector<std::string> network_filters()
{
    return {LOCAL_NODE_TOPIC, NODE_TOPICS_FILTER, LISTS_FILTER, NETWORK_STYLE7_TOPIC, RING_STATUS_FILTER};
}

void report_no_daemon(const broker_address &address)
{
    throw failure(STATUS_NO_BROKER,
                  fmt::format("no daemon has announced itself on the broker at {}: {} is missing\n"
                              "Is diag running on that card? Its system log says why it ended.",
                              address.text(), LOCAL_NODE_TOPIC));
}

bool matches(const std::string &filter, const std::string &topic)
{
    bool is_match = false;
    return mosquitto_topic_matches_sub(filter.c_str(), topic.c_str(), &is_match) == MOSQ_ERR_SUCCESS &&
           is_match;
}

bool is_filter(const std::string &text)
{
    return mosquitto_sub_topic_check(text.c_str()) == MOSQ_ERR_SUCCESS;
}
