#include "command.h"

#include "auth.h"
#include "broker.h"
#include "common/lumlog.h"
#include "common/netif.h"
#include "common/text.h"
#include "common/unique_fd.h"
#include "hwinfo/hwinfo.h"
#include "remote.h"
#include "stats.h"
#include "summary.h"
#include "timer.h"
#include "topics.h"
#include "utils.h"

// An index that finds no memory ends the process at once, as is uthash's way.
#include <uthash.h>

#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

namespace
{

constexpr const char *log_source = "command";

constexpr uint8_t ACTIVATE_VALUE = 5; // on ACTIVATE_TOPIC
constexpr timer_names KEEPALIVE = {"keepalive", "keepalive"};
constexpr itimerspec KEEPALIVE_PERIOD = {.it_interval = {.tv_sec = 300, .tv_nsec = 0},
                                         .it_value = {.tv_sec = 300, .tv_nsec = 0}};
constexpr uint16_t DEFAULT_PERIOD = 10; // of a subscription, in seconds
constexpr unsigned long MAX_PERIOD = 65535;
constexpr uint32_t MAX_TARGETS = 99;
constexpr size_t FAILED_NODES_SIZE = 410; // for MAX_TARGETS numbers

struct command_record;
using command_ptr = std::unique_ptr<command_record>;

// Carries a request out. arguments live during the call only and may be cut into pieces.
using command_handler = void (*)(char *arguments, command_ptr record);

// One card that a list of nodes stands for.
struct target_entry {
    command_record *record;
    bool failed;
    uint8_t mac[MAC_SIZE]; // zero when no card with the number is known
    uint8_t node;
};

// A request, from its arrival to its only response. Whoever sends the response frees it: the handler, or the
// callback of the last result that it waits for.
struct command_record {
    uint32_t cid;
    uint32_t tid;
    command_handler handler; // tells unitarget_cb what was requested
    // Requests to other nodes hold the addresses of the entries: the array never moves.
    std::unique_ptr<target_entry[]> targets; // null unless the command names nodes
    uint32_t target_count;
    uint32_t ok_count;
    uint32_t failed_count;

    bool is_complete() const { return ok_count + failed_count == target_count; }
};

// A client with subscriptions on other nodes.
struct client {
    uint32_t cid;
    uint32_t subscription_count; // acknowledged subscribes less acknowledged unsubscribes
    UT_hash_handle hh;
};

uint8_t local_nodenum;
client *clients; // by client id, in the order of their first subscriptions

//
// Responses
//

// The text of a response, which its owner frees; null when there is no memory.
std::unique_ptr<char[]> build_response(const command_record &record, const char *verdict, const char *reason)
{
    const auto format = [&](char *text, size_t size) {
        return snprintf(text, size, "%u;%u;%s%s%s", record.cid, record.tid, verdict,
                        reason != nullptr ? ";" : "", reason != nullptr ? reason : "");
    };
    const size_t size = static_cast<size_t>(format(nullptr, 0)) + 1;
    std::unique_ptr<char[]> text(new (std::nothrow) char[size]);
    if (text) {
        format(text.get(), size);
    }
    return text;
}

int send_response(const command_record &record, const char *verdict, const char *reason)
{
    const std::unique_ptr<char[]> text = build_response(record, verdict, reason);
    if (!text) {
        return log_failure("couldn't build %s response", verdict);
    }
    if (broker_publish_unretained(RESPONSE_TOPIC, text.get(), strlen(text.get())) == -1) {
        return log_failure("couldn't publish response %s to %s", text.get(), RESPONSE_TOPIC);
    }
    return 0;
}

int send_ack(const command_record &record)
{
    return send_response(record, "ACK", nullptr);
}

int send_nack(const command_record &record, const char *reason)
{
    return send_response(record, "NACK", reason);
}

int acknowledge(const command_record &record)
{
    if (send_ack(record) == -1) {
        return log_failure("couldn't send ACK response");
    }
    return 0;
}

int refuse(const command_record &record, const char *reason)
{
    if (send_nack(record, reason) == -1) {
        return log_failure("couldn't send NACK response");
    }
    return 0;
}

// A client that is left without its response would wait for ever: the daemon ends.
void end_unless_sent(int result)
{
    if (result == -1) {
        terminate();
    }
}

// The callback of the last result that the request waits for has its address and frees it.
void leave_to_callback(command_ptr record)
{
    static_cast<void>(record.release());
}

//
// Clients with subscriptions on other nodes
//

void process_sub(char *arguments, command_ptr record);
void process_unsub(char *arguments, command_ptr record);

client *find_client(uint32_t cid)
{
    client *found;
    HASH_FIND(hh, clients, &cid, sizeof cid, found);
    return found;
}

void remove_client(client *removed)
{
    HASH_DEL(clients, removed);
    const std::unique_ptr<client> released(removed);
}

int count_subscription(uint32_t cid)
{
    client *holder = find_client(cid);
    if (holder == nullptr) {
        holder = new (std::nothrow) client{};
        if (holder == nullptr) {
            return log_failure("couldn't allocate client structure");
        }
        holder->cid = cid;
        HASH_ADD(hh, clients, cid, sizeof holder->cid, holder);
    }
    holder->subscription_count++;
    return 0;
}

int finish_subscription_request(bool acknowledged, const command_record &record)
{
    if (record.handler != process_sub && record.handler != process_unsub) {
        return -1;
    }
    if (!acknowledged) {
        return refuse(record, "can't reach remote node");
    }
    if (record.handler == process_sub) {
        return count_subscription(record.cid) == -1 ? -1 : acknowledge(record);
    }
    client *const holder = find_client(record.cid);
    if (holder == nullptr) {
        log_error("no client for unsubscribed subscription");
        return 0;
    }
    if (--holder->subscription_count == 0) {
        remove_client(holder);
    }
    return acknowledge(record);
}

// The result of a subscribe or unsubscribe request.
void unitarget_cb(int acknowledged, void *arg)
{
    const command_ptr record(static_cast<command_record *>(arg));
    if (finish_subscription_request(acknowledged != 0, *record) == -1) {
        log_error("couldn't handle request result");
        terminate();
    }
}

int send_keepalives()
{
    const client *each;
    const client *next;
    HASH_ITER (hh, clients, each, next) {
        if (remote_send_client_keepalive(each->cid) == -1) {
            return log_failure("couldn't send keepalive for client %u", each->cid);
        }
    }
    return 0;
}

void keepalive_cb(int fd, uint32_t events, void *)
{
    if (timer_take(fd, events, KEEPALIVE, log_source) == -1 || send_keepalives() == -1) {
        terminate();
    }
}

//
// Lists of nodes
//

// What is done to the nodes of a list: by publishing a byte on a local topic, here or, on request, there.
struct target_operation {
    const char *local_topic;
    int (*request)(const uint8_t *mac, uint8_t value, request_result_cb callback, void *arg);
};
constexpr target_operation ACTIVATE = {ACTIVATE_TOPIC, remote_activate};
constexpr target_operation REMOTE_DOWNLOAD = {REMOTE_DOWNLOAD_TOPIC, remote_set_remote_download};

// False when the array is full.
bool add_target(command_record &record, uint8_t node, const uint8_t *mac)
{
    if (record.target_count == MAX_TARGETS) {
        return false;
    }
    target_entry &added = record.targets[record.target_count++];
    added.record = &record;
    added.node = node;
    if (mac != nullptr) {
        memcpy(added.mac, mac, MAC_SIZE);
    } else {
        added.failed = true;
        record.failed_count++;
    }
    return true;
}

// Adds every card with the number, or one failed entry when there is none.
bool add_targets(command_record &record, uint8_t node)
{
    uint8_t macs[MAX_TARGETS * MAC_SIZE];
    const size_t count = summary_get_mac_addrs(node, macs, sizeof macs);
    if (count == 0) {
        return add_target(record, node, nullptr);
    }
    for (size_t i = 0; i < count; i++) {
        if (!add_target(record, node, macs + i * MAC_SIZE)) {
            return false;
        }
    }
    return true;
}

// Makes the targets of a list of node numbers, which blanks separate. -1 with the reason for the client.
int parse_node_list(const char *list, command_record &record, const char *&reason)
{
    record.targets.reset(new (std::nothrow) target_entry[MAX_TARGETS]{});
    if (!record.targets) {
        log_error("couldn't allocate targets array");
        reason = "internal error";
        return -1;
    }
    const char *rest = list;
    for (;;) {
        rest += strspn(rest, " ");
        const std::string_view token(rest, strcspn(rest, " "));
        if (token.empty()) {
            return 0;
        }
        rest += token.size();
        uint32_t node;
        if (!parse_u32(token, node) || node > MAX_NODE_NUMBER) {
            log_error("invalid node number %.*s", static_cast<int>(token.size()), token.data());
            reason = "invalid input";
            return -1;
        }
        if (!add_targets(record, static_cast<uint8_t>(node))) {
            log_error("too many targets in %s", list);
            reason = "node list is too large";
            return -1;
        }
    }
}

int send_nack_multitarget(const command_record &record)
{
    char reason[FAILED_NODES_SIZE] = "failed nodes:";
    size_t length = strlen(reason);
    for (uint32_t i = 0; i < record.target_count; i++) {
        if (!record.targets[i].failed) {
            continue;
        }
        length += static_cast<size_t>(
            snprintf(reason + length, sizeof reason - length, " %u", record.targets[i].node));
        if (length >= sizeof reason) {
            return log_failure("NACK message is too long");
        }
    }
    return send_nack(record, reason);
}

// The result of a request to one target.
void multitarget_cb(int acknowledged, void *arg)
{
    auto *const entry = static_cast<target_entry *>(arg);
    command_record &pending = *entry->record;
    entry->failed = acknowledged == 0;
    (entry->failed ? pending.failed_count : pending.ok_count)++;
    if (!pending.is_complete()) {
        return;
    }
    const command_ptr record(&pending);
    if (record->failed_count == 0) {
        end_unless_sent(acknowledge(*record));
    } else if (send_nack_multitarget(*record) == -1) {
        log_error("couldn't send NACK response");
        terminate();
    }
}

// Publishes here or starts the request there; the result of a request comes later.
int dispatch(target_entry &entry, const target_operation &operation, uint8_t value)
{
    if (entry.node == local_nodenum) {
        if (broker_publish(operation.local_topic, &value, sizeof value) == -1) {
            return log_failure("couldn't publish %u to %s", value, operation.local_topic);
        }
        entry.record->ok_count++;
        return 0;
    }
    if (operation.request(entry.mac, value, multitarget_cb, &entry) == -1) {
        return log_failure("couldn't dispatch to node %u", entry.node);
    }
    return 0;
}

void dispatch_targets(command_record &record, const target_operation &operation, uint8_t value)
{
    for (uint32_t i = 0; i < record.target_count; i++) {
        target_entry &entry = record.targets[i];
        if (!entry.failed && dispatch(entry, operation, value) == -1) {
            entry.failed = true;
            record.failed_count++;
        }
    }
}

void run_on_targets(command_ptr record, const target_operation &operation, uint8_t value, const char *list,
                    const char *digest)
{
    bool is_authentic;
    if (auth_check(digest, &is_authentic) == -1) {
        log_error("couldn't check authentication of %s", digest);
        end_unless_sent(refuse(*record, "internal error"));
        return;
    }
    if (!is_authentic) {
        end_unless_sent(refuse(*record, "authentication failure"));
        return;
    }
    const char *reason;
    if (parse_node_list(list, *record, reason) == -1) {
        log_error("couldn't parse node list %s", list);
        end_unless_sent(refuse(*record, reason));
        return;
    }
    dispatch_targets(*record, operation, value);
    if (!record->is_complete()) {
        leave_to_callback(std::move(record));
        return;
    }
    if ((record->failed_count > 0 ? send_nack_multitarget(*record) : send_ack(*record)) == -1) {
        log_error("couldn't send NACK response"); // operators know this text for both
        terminate();
    }
}

//
// The commands
//

// Like the standard conversion, which ignores what it doesn't understand; only signs are refused.
bool parse_period(const char *text, uint16_t &period)
{
    text += strspn(text, " \t\n\v\f\r");
    if (*text == '-' || *text == '+') {
        return false;
    }
    errno = 0;
    const unsigned long number = strtoul(text, nullptr, 0);
    if (errno != 0 || number > MAX_PERIOD) {
        return false;
    }
    period = static_cast<uint16_t>(number);
    return true;
}

// subscribe;TOPIC[;PERIOD]
void process_sub(char *arguments, command_ptr record)
{
    uint16_t period = DEFAULT_PERIOD;
    char *const separator = strchr(arguments, ';');
    if (separator != nullptr) {
        *separator = '\0';
        if (!parse_period(separator + 1, period)) {
            log_error("invalid subscribe period %s", separator + 1);
            end_unless_sent(refuse(*record, "invalid period value"));
            return;
        }
    }
    if (remote_subscribe(arguments, record->cid, period, unitarget_cb, record.get()) == -1) {
        end_unless_sent(refuse(*record, "internal error"));
        return;
    }
    leave_to_callback(std::move(record));
}

// unsubscribe;TOPIC
void process_unsub(char *arguments, command_ptr record)
{
    arguments[strcspn(arguments, ";")] = '\0';
    if (remote_unsubscribe(arguments, record->cid, unitarget_cb, record.get()) == -1) {
        end_unless_sent(refuse(*record, "internal error"));
        return;
    }
    leave_to_callback(std::move(record));
}

void process_disconnect(char *, command_ptr record)
{
    client *const holder = find_client(record->cid);
    if (holder == nullptr) {
        log_error("no active client with ID %u", record->cid);
        end_unless_sent(refuse(*record, "client has no subscriptions"));
        return;
    }
    if (remote_unsubscribe_all(record->cid) == -1) {
        log_error("couldn't send unsubscribe all message for client %u", record->cid);
        end_unless_sent(refuse(*record, "internal error"));
        return;
    }
    remove_client(holder);
    end_unless_sent(acknowledge(*record));
}

void process_noop(char *, command_ptr record)
{
    end_unless_sent(acknowledge(*record));
}

bool parse_mac_and_port(const char *text, uint8_t (&mac)[MAC_SIZE], char &port)
{
    for (size_t i = 0; i < MAC_SIZE; i++) {
        const size_t digits = parse_hex_byte(text, mac[i]);
        text += digits;
        if (digits == 0 || *text != (i + 1 < MAC_SIZE ? '-' : ';')) {
            return false;
        }
        text++;
    }
    port = *text;
    return port != '\0' && isspace(static_cast<unsigned char>(port)) == 0;
}

// The reason of the refusal, null when the port is reset or, on another node, is told to be.
const char *reset_stats(const char *arguments)
{
    uint8_t mac[MAC_SIZE];
    char port_text[2] = "";
    if (!parse_mac_and_port(arguments, mac, port_text[0])) {
        log_error("couldn't parse rest of command %s", arguments);
        return "invalid input";
    }
    int port;
    if (hwinfo_lumport_str_to_enum(port_text, &port) == -1) {
        log_error("couldn't parse port string %s", port_text);
        return "invalid port identifier";
    }
    uint8_t local_mac[MAC_SIZE];
    if (hwinfo_get_local_mac_addr(local_mac) == -1) {
        log_error("couldn't get local MAC address");
        return "internal error";
    }
    if (memcmp(mac, local_mac, MAC_SIZE) == 0) {
        if (stats_reset_port(port) == -1) {
            log_error("couldn't reset port %s's statistics", port_text);
            return "internal error";
        }
    } else if (remote_reset_stats(mac, port) == -1) {
        log_error("couldn't reset remote port's statistics");
        return "internal error";
    }
    return nullptr;
}

// reset-stats;XX-XX-XX-XX-XX-XX;PORT
void process_reset_stats(char *arguments, command_ptr record)
{
    const char *const reason = reset_stats(arguments);
    end_unless_sent(reason == nullptr ? acknowledge(*record) : refuse(*record, reason));
}

void process_reset_all_stats(char *, command_ptr record)
{
    if (stats_reset_all() == -1 || remote_reset_all_stats() == -1) {
        log_error("couldn't reset all statistics");
        end_unless_sent(refuse(*record, "internal error"));
        return;
    }
    end_unless_sent(acknowledge(*record));
}

// activate;NODES;RESPONSE
void process_activate(char *arguments, command_ptr record)
{
    char *const separator = strchr(arguments, ';');
    if (separator == nullptr) {
        log_error("no authentication string in %s", arguments);
        end_unless_sent(refuse(*record, "invalid input"));
        return;
    }
    *separator = '\0';
    run_on_targets(std::move(record), ACTIVATE, ACTIVATE_VALUE, arguments, separator + 1);
}

// Fields between semicolons; empty ones don't count.
char *find_field(char *text)
{
    return text + strspn(text, ";");
}

char *find_field_end(char *field)
{
    return field + strcspn(field, ";");
}

// remote-download;0|1;NODES;RESPONSE
void process_remote_download(char *arguments, command_ptr record)
{
    char *const flag = find_field(arguments);
    char *const list = find_field(find_field_end(flag));
    char *const digest = find_field(find_field_end(list));
    if (*digest == '\0' || find_field_end(flag) != flag + 1 || (*flag != '0' && *flag != '1')) {
        log_error("couldn't parse remote download command %s", arguments);
        end_unless_sent(refuse(*record, "invalid input"));
        return;
    }
    *find_field_end(list) = '\0';
    *find_field_end(digest) = '\0';
    run_on_targets(std::move(record), REMOTE_DOWNLOAD, *flag == '1' ? 1 : 0, list, digest);
}

struct command {
    std::string_view keyword;
    command_handler handler;
};

// The first one whose keyword begins with the request's is meant, so their order matters.
constexpr command COMMANDS[] = {
    {"subscribe", process_sub},           {"unsubscribe", process_unsub},
    {"disconnect", process_disconnect},   {"noop", process_noop},
    {"reset-stats", process_reset_stats}, {"reset-all-stats", process_reset_all_stats},
    {"activate", process_activate},       {"remote-download", process_remote_download},
};

//
// Requests
//

// Takes a decimal number and the semicolon behind it off the front of text.
bool take_number(char *&text, uint32_t &number)
{
    const auto [end, error] = std::from_chars(text, text + strlen(text), number);
    if (error != std::errc() || *end != ';') {
        return false;
    }
    text += end - text + 1;
    return true;
}

void request_cb(const char *, const void *payload, int length, void *)
{
    if (payload == nullptr || length == 0) {
        return;
    }
    command_ptr record(new (std::nothrow) command_record{});
    const std::unique_ptr<char[]> text = record ? copy_text(payload_text(payload, length)) : nullptr;
    if (!text) {
        log_error("couldn't allocate command structure");
        terminate();
        return;
    }
    char *rest = text.get();
    if (!take_number(rest, record->cid) || !take_number(rest, record->tid)) {
        log_error("couldn't parse CID and TID in %s", text.get());
        log_error("couldn't parse common command fields");
        return;
    }
    const std::string_view keyword(rest, strcspn(rest, ";"));
    for (const command &each : COMMANDS) {
        if (each.keyword.starts_with(keyword)) {
            rest += keyword.size();
            record->handler = each.handler;
            each.handler(*rest == ';' ? rest + 1 : rest, std::move(record));
            return;
        }
    }
    log_error("unknown command type in %s", text.get());
    end_unless_sent(refuse(*record, "unknown command"));
}

} // namespace

int command_init(uint8_t node_number)
{
    local_nodenum = node_number;
    unique_fd timer;
    if (timer_start(timer, KEEPALIVE, KEEPALIVE_PERIOD, keepalive_cb, nullptr, log_source) == -1) {
        timer_stop(timer);
        return -1;
    }
    if (broker_subscribe(REQUEST_TOPIC, request_cb, nullptr) == -1) {
        timer_stop(timer);
        return log_failure("couldn't subscribe to %s", REQUEST_TOPIC);
    }
    timer.release(); // the event loop watches it until the process ends
    return 0;
}
