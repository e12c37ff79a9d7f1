#include "card.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <utility>

namespace card
{

namespace
{

uint32_t parse_address(const std::string &text)
{
    in_addr address{};
    EXPECT_EQ(inet_pton(AF_INET, text.c_str(), &address), 1) << text;
    return ntohl(address.s_addr);
}

// "[ERROR] diag(100) - broker:87 - text" without level, process and line number. Keeps the line where the file of all
// messages that tests have seen is asked for.
std::string shorten(const std::string &line)
{
    if (const char *const path = getenv("DIAG_SEEN_MESSAGES"); path != nullptr) {
        std::ofstream(path, std::ios::app) << line << '\n';
    }
    const size_t source = line.find(" - ") + 3;
    const size_t text = line.find(" - ", source) + 3;
    return line.substr(source, line.rfind(':', text - 3) - source) + ": " + line.substr(text);
}

class simulated_card final : public sim::lone_card
{
public:
    // Lets everything happen that happens now.
    void settle() { run_for(0s); }
    sim::topic_id number(const std::string &topic) { return topics().number(topic); }

    time_t wall_clock() const override
    {
        return wall_start_ + std::chrono::duration_cast<std::chrono::seconds>(now() - wall_set_).count();
    }
    const sim::network_interface *find_interface(const char *name) const override
    {
        const auto found = interfaces_.find(name);
        return found == interfaces_.end() ? nullptr : &found->second;
    }
    const std::string *find_file(const char *path) const override
    {
        const auto found = files_.find(path);
        return found == files_.end() ? nullptr : &found->second;
    }
    int failure_of(system_call call) override
    {
        if (!failure_ || failure_->call != call || failure_->skipped-- > 0) {
            return 0;
        }
        const failure met = *std::exchange(failure_, {});
        if (met.then) {
            met.then();
        }
        return met.error;
    }
    void send(uint32_t address, uint16_t port, const sim::shared_bytes &bytes) override
    {
        EXPECT_EQ(port, 50004);
        const in_addr to = {.s_addr = htonl(address)};
        char text[INET_ADDRSTRLEN];
        sent_.push_back({inet_ntop(AF_INET, &to, text, sizeof text), std::string(bytes.text()), now()});
    }
    void log(const char *line) override { log_.push_back(shorten(line)); }
    void ended(int status) override { exit_status_ = status; }
    void published(const sim::mqtt_message &message) override
    {
        if (message.is_from_daemon) {
            published_.push_back(
                {topics().name(message.topic), std::string(message.payload.text()), message.is_retained});
        }
    }
    void received(const sim::mqtt_packet &packet) override
    {
        using kind = sim::mqtt_packet::kind;
        requests_.push_back((packet.type == kind::PUBLISH     ? "PUBLISH "
                             : packet.type == kind::SUBSCRIBE ? "SUBSCRIBE "
                                                              : "UNSUBSCRIBE ") +
                            topics().name(packet.topic));
        if (packet.type == kind::PUBLISH) {
            message_ids_.push_back(packet.message_id);
        }
    }

    struct failure {
        system_call call;
        int error;
        unsigned skipped;
        std::function<void()> then;
    };
    std::optional<failure> failure_;
    time_t wall_start_ = 1'700'000'000;
    duration wall_set_ = now();
    std::optional<int> exit_status_;
    lines log_;
    lines requests_;
    std::vector<int> message_ids_;
    messages published_;
    datagrams sent_;
    std::map<std::string, sim::network_interface> interfaces_ = {
        {"eth0", {2, true, {0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E}}}, {"fire", {3, true, {}}}};
    std::map<std::string, std::string> files_ = {{"/REVISION", "eos image:1.2.3\n"},
                                                 {"/REVISION_PRIAPP", "priapp:4.5.6\n"},
                                                 {"/proc/cmdline", "quiet bootrev=\"eboot:7.8.9\"\n"},
                                                 {"/card/address", "0x05"}};
};

std::unique_ptr<simulated_card> present;

} // namespace

//
// The daemon
//

node::node()
{
    present = std::make_unique<simulated_card>();
}

node::~node()
{
    present.reset();
}

void start_node(int number)
{
    stop();
    present = std::make_unique<simulated_card>();
    start({"-n", std::to_string(number)});
    ASSERT_TRUE(is_running());
    EXPECT_EQ(take_log(), lines());
    take_published();
    take_requests();
    take_datagrams();
    take_message_ids();
}

void start(const lines &options)
{
    present->exit_status_.reset();
    daemon().start(options);
    present->settle();
}

void stop()
{
    if (is_running()) {
        EXPECT_EQ(daemon().find_leak(), 0U) << "bytes that nothing refers to";
        EXPECT_EQ(daemon().find_unwatched(), -1);
        daemon().send_sigterm();
        EXPECT_EQ(exit_status(), 0);
    }
    EXPECT_EQ(take_log(), lines());
}

bool is_running()
{
    return daemon().is_alive();
}

std::optional<int> exit_status()
{
    return present->exit_status_;
}

sim::process &daemon()
{
    return present->daemon();
}

lines take_log()
{
    return std::exchange(present->log_, {});
}

void run_as_daemon(const std::function<void()> &call)
{
    daemon().call(call);
    present->settle();
}

void fail(system_call call, int error, unsigned skipped, const std::function<void()> &then)
{
    present->failure_ = {call, error, skipped, then};
}

//
// Time
//

duration now()
{
    return present->now();
}

void advance(duration time)
{
    present->clock().run_until(now() + time);
}

void set_wall_clock(time_t seconds)
{
    present->wall_start_ = seconds;
    present->wall_set_ = now();
}

bool has_timer(duration in, duration interval)
{
    return std::ranges::any_of(daemon().descriptors(), [&](const sim::descriptor &each) {
        return each.kind == sim::file_kind::TIMER && each.expiry == now() + in && each.interval == interval;
    });
}

long count_timers()
{
    return std::ranges::count(daemon().descriptors(), sim::file_kind::TIMER, &sim::descriptor::kind);
}

//
// The broker
//

sim::mqtt_broker &broker()
{
    return present->broker();
}

void publish(const std::string &topic, const std::string &payload, bool retain)
{
    broker().publish(present->number(topic), sim::shared_bytes(payload), retain);
    present->settle();
}

std::string retained(const std::string &topic)
{
    const sim::shared_bytes *const found = broker().find(present->number(topic));
    return found == nullptr ? "" : std::string(found->text());
}

messages take_published()
{
    present->settle();
    return std::exchange(present->published_, {});
}

lines take_requests()
{
    present->settle();
    return std::exchange(present->requests_, {});
}

std::vector<int> take_message_ids()
{
    return std::exchange(present->message_ids_, {});
}

void PrintTo(const message &message, std::ostream *stream)
{
    const bool is_text =
        std::ranges::all_of(message.payload, [](char byte) { return byte >= ' ' && byte <= '~'; });
    *stream << message.topic << " = " << (is_text ? '"' + message.payload + '"' : hex(message.payload))
            << (message.retain ? "" : " (not retained)");
}

//
// The fire network
//

void receive_datagram(const std::string &bytes, const std::string &from)
{
    daemon().receive({parse_address(from), sim::shared_bytes(bytes)});
    present->settle();
}

datagrams take_datagrams()
{
    return std::exchange(present->sent_, {});
}

void PrintTo(const datagram &datagram, std::ostream *stream)
{
    *stream << "to " << datagram.address << ": " << hex(datagram.bytes);
}

//
// The card
//

std::map<std::string, sim::network_interface> &interfaces()
{
    return present->interfaces_;
}

std::map<std::string, std::string> &files()
{
    return present->files_;
}

//
// Bytes as text
//

std::string hex(std::string_view bytes)
{
    std::string text;
    for (const char byte : bytes) {
        char digits[4];
        snprintf(digits, sizeof digits, "%s%02X", text.empty() ? "" : " ", static_cast<unsigned char>(byte));
        text += digits;
    }
    return text;
}

std::string bytes(std::string_view hex_digits)
{
    std::string digits;
    std::ranges::copy_if(hex_digits, std::back_inserter(digits), [](char each) { return each != ' '; });
    std::string result;
    for (size_t i = 0; i < digits.size(); i += 2) {
        result += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    }
    return result;
}

} // namespace card
