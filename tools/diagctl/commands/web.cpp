// diagctl web: the network in a browser. docs/console.md says what is served where.
#include "broker/probe.h"
#include "broker/signals.h"
#include "clock.h"
#include "commands/context.h"
#include "commands/site_session.h"
#include "topics.h"
#include "web/console.h"
#include "web/http_server.h"
#include "web/page_files.h"
#include "web/player.h"
#include "web/site_console.h"

#include <fmt/core.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>

namespace
{

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr milliseconds PROBE_TIME(5000);
constexpr milliseconds RETRY_INTERVAL(1000);
constexpr seconds SIGN_OF_LIFE_INTERVAL(2);
constexpr seconds SETTLE_TIME(5); // of a site's brokers, before the first page
constexpr double MAX_SPEED = 1e6;

struct web_options {
    std::string listen = "127.0.0.1:9886";
    std::vector<std::string> names; // under which the host is asked for, beside its addresses
    std::string layout;
    std::string replay;
    double speed = 1;
};

// Only a site has cards' views; a card's own broker has no more below cards/ than the state of its bridge.
bool is_of_site(const recording &played)
{
    return std::any_of(played.messages.begin(), played.messages.end(), [](const recorded_message &message) {
        return message.topic.starts_with("cards/") && message.topic.find("/pub/diag/") != std::string::npos;
    });
}

// A signal ends the command, whatever it waits for.
struct interruption {
};

// A descriptor that is readable from a time on.
class alarm_clock
{
public:
    alarm_clock() : fd(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK))
    {
        if (fd == -1) {
            throw failure(STATUS_FAILURE, fmt::format("couldn't make a timer: {}", strerror(errno)));
        }
    }
    ~alarm_clock() { close(fd); }
    alarm_clock(const alarm_clock &) = delete;
    alarm_clock &operator=(const alarm_clock &) = delete;

    int descriptor() const { return fd; }
    void set(milliseconds from_now)
    {
        const auto time =
            std::chrono::nanoseconds(std::max(from_now, milliseconds(0))) + std::chrono::nanoseconds(1);
        const auto whole = std::chrono::floor<seconds>(time);
        const itimerspec wanted = {{0, 0}, {whole.count(), static_cast<long>((time - whole).count())}};
        timerfd_settime(fd, 0, &wanted, nullptr);
    }

private:
    int fd;
};

const char *type_of(std::string_view name)
{
    constexpr std::pair<std::string_view, const char *> TYPES[] = {
        {".css", "text/css; charset=utf-8"},
        {".html", "text/html; charset=utf-8"},
        {".js", "text/javascript; charset=utf-8"},
        {".svg", "image/svg+xml"},
    };
    const auto *const found = std::find_if(std::begin(TYPES), std::end(TYPES),
                                           [&](const auto &type) { return name.ends_with(type.first); });
    return found == std::end(TYPES) ? "application/octet-stream" : found->second;
}

http_answer json_answer(std::string text)
{
    return {.status = 200,
            .type = "application/json",
            .body = std::make_shared<const std::string>(std::move(text))};
}

// Number in all of the text, not below 0.
std::optional<double> argument(const http_request &request, const char *name)
{
    const auto found = request.arguments.find(name);
    if (found == request.arguments.end()) {
        return {};
    }
    const std::string &text = found->second;
    double value = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    return result.ec == std::errc() && result.ptr == text.data() + text.size() && value >= 0
               ? std::optional(value)
               : std::nullopt;
}

// The names that nobody else can lead here.
std::vector<std::string> served_names(const web_options &options)
{
    std::vector<std::string> names = options.names;
    char host[256] = "";
    if (gethostname(host, sizeof host - 1) == 0) {
        names.emplace_back(host);
    }
    return names;
}

class web
{
public:
    web(const context &common, const web_options &options)
        : broker_where(common.is_site ? broker_address{} : common.address()), names(named_network(common)),
          server(*parse_listen_address(options.listen), served_names(options),
                 [this](const http_request &request) { return answer(request); }),
          inputs({{signals.descriptor(), [this] { take_signal(); }},
                  {server.descriptor(), [this] { look(); }},
                  {timer.descriptor(), [this] { look(); }}})
    {
        load_page();
        if (!options.layout.empty()) {
            load_layout(options.layout);
        }
        std::optional<recording> played;
        if (!options.replay.empty()) {
            played = read_recording(options.replay);
        }
        const bool is_site = common.is_site || (played && is_of_site(*played));
        page.emplace(console_info{.version = DIAG_VERSION,
                                  .broker = played    ? options.replay
                                            : is_site ? site_text(common)
                                                      : broker_where.text(),
                                  .is_site = is_site,
                                  .is_replay = played.has_value(),
                                  .has_layout = files.contains(LAYOUT)},
                     current_moment().wall, [this](std::string event) {
                         has_sent = true;
                         server.send(std::move(event));
                     });
        if (played) {
            open_recording(std::move(*played), is_site, options);
        } else if (is_site) {
            cards.emplace(*page, common.hosts.size(), names.names);
            open_site(common);
        } else {
            state.emplace(*page, names);
        }
    }

    exit_status run()
    {
        try {
            film ? play() : cards ? follow_site() : follow();
        } catch (const interruption &) {
            return STATUS_SUCCESS;
        }
    }

private:
    static constexpr const char *LAYOUT = "/api/layout";

    void load_page()
    {
        for (const page_file &file : page_files()) {
            files[std::string(file.name)] = {.status = 200,
                                             .type = type_of(file.name),
                                             .body = std::make_shared<const std::string>(file.text),
                                             .tag = std::string(file.tag)};
        }
        files["/"] = files["/index.html"];
    }

    void load_layout(const std::string &path)
    {
        std::ifstream file(path);
        const std::string text(std::istreambuf_iterator<char>(file), {});
        if (!file || !is_json_object(text)) {
            throw failure(STATUS_FAILURE, fmt::format("couldn't use the layout {}: {}", path,
                                                      file ? "it isn't a file that the page's map has saved"
                                                           : strerror(errno)));
        }
        files[LAYOUT] = json_answer(text);
    }

    // --- what happens

    [[noreturn]] void play()
    {
        report_ready();
        for (;;) {
            serve_inputs(inputs, session::FOREVER);
        }
    }

    [[noreturn]] void follow()
    {
        look();
        for (;;) {
            try {
                follow_session();
            } catch (const failure &lost) {
                const std::string reason = lost.what();
                tell(reason.substr(0, reason.find('\n')) + ", trying again");
                page->set_connection(false, reason.substr(0, reason.find('\n')), now().wall);
                look();
            }
            report_ready();
            serve_inputs(inputs, RETRY_INTERVAL);
        }
    }

    // Until the broker is lost.
    void follow_session()
    {
        probe_broker(broker_where, PROBE_TIME, inputs);
        session broker(broker_where, nullptr, session::retain_flags::OF_SUBSCRIPTION, inputs);
        network fresh = names;
        bool is_complete = false;
        broker.listen([&](std::string_view topic, bytes payload, bool is_retained) {
            if (is_complete) {
                take(topic, payload, is_retained, now());
            } else {
                network_apply(fresh, topic, payload, is_retained, now());
            }
            return true;
        });
        broker.subscribe(all_filters());
        broker.expect_signs_of_life();
        is_complete = true;
        state->replace(std::move(fresh));
        page->set_connection(true, "", now().wall);
        look();
        tell("connected to " + broker_where.text());
        report_ready();
        broker.wait([] { return false; }, session::FOREVER);
    }

    void take(std::string_view topic, bytes payload, bool is_retained, const moment &when)
    {
        const bool was_due = page->due().has_value();
        has_sent = false;
        state->take(topic, payload, is_retained, when);
        if (has_sent || !was_due) {
            look();
        }
    }

    // --- a site

    static std::string site_text(const context &common)
    {
        std::string text;
        for (const broker_address &address : site_addresses(common)) {
            text += (text.empty() ? "" : ", ") + address.text();
        }
        return text;
    }

    void open_site(const context &common)
    {
        brokers.emplace(
            site_addresses(common), common.login(), std::vector<std::string>{VIEWS_FILTER, DIAG_FILTER},
            site_brokers::listener{
                .message =
                    [this](size_t broker, std::string_view topic, bytes payload, bool is_retained) {
                        cards->take(broker, topic, payload, is_retained, current_moment());
                    },
                .change =
                    [this](size_t broker, site_brokers::state is) {
                        if (is == site_brokers::state::LOADING) {
                            cards->forget(broker);
                        }
                        cards->set_there(broker, is == site_brokers::state::THERE);
                    }});
        inputs.push_back({brokers->descriptor(), [this] { look(); }});
        site_since.resize(brokers->count(), now().wall);
        site_states.resize(brokers->count(), site_brokers::state::CONNECTING);
    }

    [[noreturn]] void follow_site()
    {
        const auto patience = steady_clock::now() + SETTLE_TIME;
        for (;;) {
            look();
            if (steady_clock::now() > patience || is_settled()) {
                report_ready();
            }
            serve_inputs(inputs, is_ready ? session::FOREVER : RETRY_INTERVAL);
        }
    }

    bool is_settled() const
    {
        return std::all_of(site_states.begin(), site_states.end(), [](site_brokers::state is) {
            return is == site_brokers::state::THERE || is == site_brokers::state::AWAY;
        });
    }

    // The time until it is to be looked at again. Under the lock of the brokers.
    milliseconds look_at_site()
    {
        std::string array;
        bool is_any_there = false;
        std::string reasons;
        for (size_t broker = 0; broker < brokers->count(); broker++) {
            const site_brokers::state is = brokers->state_of(broker);
            const bool is_there = is == site_brokers::state::THERE;
            const std::string where = brokers->address(broker).text();
            if (std::exchange(site_states[broker], is) != is) {
                site_since[broker] = now().wall;
                if (is == site_brokers::state::THERE || is == site_brokers::state::AWAY) {
                    tell(is_there ? "connected to " + where
                                  : fmt::format("no broker at {}: {}, trying again", where,
                                                brokers->reason(broker)));
                }
            }
            is_any_there |= is_there;
            const std::string reason = is_there ? "" : brokers->reason(broker);
            if (!reason.empty()) {
                reasons += fmt::format("{}{}: {}", reasons.empty() ? "" : "; ", where, reason);
            }
            array +=
                fmt::format(R"({}{{"address":{},"connection":"{}","since":{},"reason":{}}})",
                            array.empty() ? "" : ",", quoted_json(where), is_there ? "live" : "lost",
                            time_json(site_since[broker]), reason.empty() ? "null" : quoted_json(reason));
        }
        // A broker that has begun to tell everything shows nothing of it before the end.
        milliseconds wait = SIGN_OF_LIFE_INTERVAL;
        if (is_any_there && (is_ready || is_settled())) {
            wait = cards->look(current_moment());
        }
        page->set_brokers("[" + array + "]");
        if (is_any_there || is_settled()) {
            page->set_connection(is_any_there, reasons, now().wall);
        }
        return std::min<milliseconds>(wait, RETRY_INTERVAL);
    }

    void take_signal()
    {
        const int number = signals.take();
        if (number != 0 && number != SIGWINCH && number != SIGTSTP) {
            throw interruption();
        }
    }

    // What the brokers of a site say comes from threads of the library.
    std::unique_lock<std::mutex> lock() { return brokers ? brokers->lock() : std::unique_lock<std::mutex>(); }

    console_model &model()
    {
        return film ? film->shown() : cards ? static_cast<console_model &>(*cards) : *state;
    }

    // Does what is due, and sets the time for what is due next.
    void look()
    {
        if (brokers) {
            brokers->look_after();
        }
        const auto guard = lock();
        milliseconds wait = session::FOREVER;
        if (film) {
            wait = film->play();
        } else if (brokers) {
            wait = look_at_site();
        }
        const auto until = [](steady_clock::time_point due) {
            return std::chrono::ceil<milliseconds>(due - steady_clock::now());
        };
        if (const auto due = page->due(); due && until(*due).count() <= 0) {
            model().flush();
        }
        if (until(sign_of_life_due).count() <= 0) {
            server.send(":\n\n");
            sign_of_life_due = steady_clock::now() + SIGN_OF_LIFE_INTERVAL;
        }
        const milliseconds served = server.serve();
        const auto due = page->due();
        timer.set(std::min({wait, served, until(sign_of_life_due), due ? until(*due) : served}));
    }

    // --- a recording

    void open_recording(recording played, bool is_site, const web_options &options)
    {
        page->set_connection(true, "", played.start);
        std::unique_ptr<console_model> empty;
        if (is_site) {
            // All its brokers were recorded as one.
            page->set_brokers(
                fmt::format(R"([{{"address":{},"connection":"live","since":{},"reason":null}}])",
                            quoted_json(options.replay), time_json(played.start)));
            empty = std::make_unique<site_console>(*page, 1, names.names);
        } else {
            empty = std::make_unique<console>(*page, names);
        }
        film.emplace(std::move(played), std::move(empty), *page, options.speed);
    }

    moment now() const { return film ? film->time_of(film->position()) : current_moment(); }

    // --- what is asked

    http_answer answer(const http_request &request)
    {
        const std::string &path = request.path;
        if (const auto file = files.find(path); file != files.end()) {
            return file->second;
        }
        if (path == "/api/network") {
            return {.status = 200, .type = "application/json", .body = page->snapshot(now().wall)};
        }
        if (path == "/api/events") {
            return {.status = 200, .type = "text/event-stream", .body = nullptr, .is_stream = true};
        }
        if (path == "/api/log") {
            return json_answer(page->log(static_cast<uint64_t>(
                std::min(argument(request, "after").value_or(0), static_cast<double>(INT64_MAX)))));
        }
        if (path == "/healthz") {
            return page->is_live() ? text_answer(200, "ok") : text_answer(503, "broker lost");
        }
        if (path.starts_with(NODE)) {
            const std::optional<mac_address> mac = parse_topic_mac(path.substr(NODE.size()));
            return found_answer(mac ? model().node_of(*mac) : std::nullopt, "no such node is known");
        }
        if (path.starts_with(PERFORMANCE)) {
            return answer_performance(path.substr(PERFORMANCE.size()));
        }
        if (film && path.starts_with(RECORDING)) {
            return answer_recording(path.substr(RECORDING.size()), argument(request, "to"));
        }
        return text_answer(404, "there is nothing here");
    }

    // "<MAC>/<PORT>"
    http_answer answer_performance(const std::string &port)
    {
        const size_t slash = std::min(port.find('/'), port.size() - 1);
        const std::optional<mac_address> mac = parse_topic_mac(port.substr(0, slash));
        const std::optional<int> number =
            port.empty() ? std::nullopt : parse_port(std::string_view(port).substr(slash + 1));
        return found_answer(mac && number ? model().performance(*mac, *number, now().wall) : std::nullopt,
                            "no records are published for this port");
    }

    static http_answer found_answer(std::optional<std::string> found, const char *otherwise)
    {
        return found ? json_answer(std::move(*found)) : text_answer(404, otherwise);
    }

    http_answer answer_recording(const std::string &command, const std::optional<double> &to)
    {
        if (!command.empty() && !to) {
            return text_answer(400, "to=NUMBER is missing");
        }
        if (command == "/seek") {
            film->seek(*to);
        } else if (command == "/speed") {
            film->set_speed(std::min(*to, MAX_SPEED));
        } else if (command == "/pause") {
            film->pause(*to != 0);
        } else if (!command.empty()) {
            return text_answer(404, "there is nothing here");
        }
        timer.set(milliseconds(0));
        return json_answer(
            fmt::format(R"({{"duration":{},"position":{:.3f},"speed":{},"paused":{},"start":{}}})",
                        film->played().duration(), film->position(), film->speed(), film->is_paused(),
                        time_json(film->played().start)));
    }

    // --- what is said

    void tell(const std::string &text)
    {
        if (text != told) {
            fmt::print(stderr, "diagctl: {}\n", text);
        }
        told = text;
    }

    void report_ready()
    {
        if (is_ready) {
            return;
        }
        is_ready = true;
        if (!server.is_loopback()) {
            fmt::print(
                stderr,
                "diagctl: warning: whoever reaches {} sees the network, and nothing is encrypted on the "
                "way: see docs/operations.md\n",
                server.address());
        }
        fmt::print("The console is at http://{}/, Ctrl-C ends\n", server.address());
        fflush(stdout);
    }

    static constexpr std::string_view NODE = "/api/node/";
    static constexpr std::string_view PERFORMANCE = "/api/pm/";
    static constexpr std::string_view RECORDING = "/api/recording";

    const broker_address broker_where;
    const network names; // nothing but names
    const signal_input signals;
    alarm_clock timer;
    std::map<std::string, http_answer> files;
    std::optional<page_state> page;
    // One of them.
    std::optional<player> film;
    std::optional<console> state;
    std::optional<site_console> cards;
    std::vector<site_brokers::state> site_states;
    std::vector<wall_time> site_since;
    steady_clock::time_point sign_of_life_due{};
    std::string told;
    bool is_ready = false;
    bool has_sent = false; // to the readers of events, which have not been served since
    http_server server;    // its answers are the others'
    std::vector<wait_input> inputs;
    std::optional<site_brokers> brokers; // ends first: its threads call the others
};

} // namespace

void add_web_command(command_line &line, context &common)
{
    auto [added, options] = add_command<web_options>(
        line, common, "web", "Show the network in a browser: serve a page, until Ctrl-C.",
        [](const context &known, const web_options &given) { return web(known, given).run(); });
    added.text({.name = "--listen",
                .help = "Where to serve the page; port 0 takes a free one",
                .value = "ADDRESS:PORT",
                .check = check_listen_address},
               options->listen);
    added.texts(
        {.name = "--served-as",
         .help =
             "Also answer who asks for this host name, beside addresses, localhost and this machine's own "
             "name; several may be given",
         .value = "HOST"},
        options->names);
    added.text(
        {.name = "--layout", .help = "Where the map shows the nodes: a file saved there", .value = "FILE"},
        options->layout);
    added.text({.name = "--replay", .help = "Play a recording instead of showing a broker", .value = "FILE"},
               options->replay);
    added.number({.name = "--speed",
                  .help = "So many times as fast as recorded",
                  .value = "FACTOR",
                  .needed = "--replay"},
                 options->speed, 0.0, MAX_SPEED);
    add_broker_options(added, common);
    add_site_options(added, common);
}
