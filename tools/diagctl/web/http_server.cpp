#include "web/http_server.h"

#include "failure.h"

#include <arpa/inet.h>
#include <fmt/core.h>
#include <microhttpd.h>
#include <netdb.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <string_view>
#include <utility>

namespace
{

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

// Beyond so many connections the one that has said nothing for longest makes room: a thousand that never ask for anything
// take only each other's places.
constexpr size_t MAX_PEERS = 1000;
constexpr size_t MAX_READERS = 200;
constexpr size_t SPARE_DESCRIPTORS = 64; // the broker, files, and connections that are being closed
// Of a connection: request line and headers have to fit.
constexpr size_t PEER_MEMORY = size_t{16} * 1024;
constexpr int SEND_BUFFER = 128 * 1024; // of the kernel: a slow reader's past
constexpr size_t MAX_BODY_BYTES = size_t{16} * 1024 * 1024;
constexpr size_t MAX_EVENT_BYTES = size_t{4} * 1024 * 1024;
constexpr size_t EVENT_BLOCK = size_t{8} * 1024;
constexpr unsigned STALL_SECONDS = 10; // a reader takes something in this time
constexpr seconds REQUEST_TIME(10);    // from the connection, or the last answer, to all of a request
constexpr seconds ANSWER_TIME(60);     // for all of an answer
constexpr milliseconds LOOK_INTERVAL(1000);
constexpr int BACKLOG = 512;

constexpr const char *STREAM_START = "retry: 1000\n\n:\n\n";

// Everything comes from here, nothing of it is framed, guessed at or read by other sites.
constexpr struct {
    const char *name;
    const char *value;
} HEADERS[] = {
    {"Content-Security-Policy",
     "default-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'; object-src 'none'"},
    {"Cross-Origin-Opener-Policy", "same-origin"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    {"Referrer-Policy", "no-referrer"},
    {"X-Content-Type-Options", "nosniff"},
    {"X-Frame-Options", "DENY"},
};

struct address_list {
    addrinfo *first = nullptr;
    ~address_list()
    {
        if (first != nullptr) {
            freeaddrinfo(first);
        }
    }
};

[[noreturn]] void report_listen(const std::string &address, const char *reason)
{
    throw failure(STATUS_FAILURE, fmt::format("couldn't listen on {}: {}", address, reason));
}

const char *header_of(MHD_Connection *connection, const char *name)
{
    return MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
}

bool is_address(const std::string &host)
{
    in6_addr parsed{};
    return inet_pton(AF_INET, host.c_str(), &parsed) == 1 || inet_pton(AF_INET6, host.c_str(), &parsed) == 1;
}

// "Console:9886" is "console", "[::1]:9886" is "::1".
std::string host_name(std::string_view host)
{
    if (host.starts_with('[')) {
        host = host.substr(1, std::min(host.find(']'), host.size()) - 1);
    } else {
        host = host.substr(0, host.find(':'));
    }
    std::string name(host);
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(tolower(c)); });
    return name;
}

bool is_loopback_address(const sockaddr_storage &address)
{
    if (address.ss_family == AF_INET) {
        const auto *const v4 = reinterpret_cast<const sockaddr_in *>(&address);
        return ntohl(v4->sin_addr.s_addr) >> 24U == IN_LOOPBACKNET;
    }
    const auto *const v6 = reinterpret_cast<const sockaddr_in6 *>(&address);
    return IN6_IS_ADDR_LOOPBACK(&v6->sin6_addr) != 0;
}

std::string joined(const std::string &host, const std::string &port)
{
    const bool is_v6 = host.find(':') != std::string::npos;
    return (is_v6 ? "[" + host + "]" : host) + ":" + port;
}

std::string address_text(const sockaddr_storage &address, socklen_t size)
{
    char host[NI_MAXHOST] = "";
    char port[NI_MAXSERV] = "";
    getnameinfo(reinterpret_cast<const sockaddr *>(&address), size, host, sizeof host, port, sizeof port,
                NI_NUMERICHOST | NI_NUMERICSERV);
    return joined(host, port);
}

// The library's sockets are descriptors of ours.
unsigned raise_descriptor_limit()
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, MAX_PEERS + 2 * SPARE_DESCRIPTORS);
    setrlimit(RLIMIT_NOFILE, &limit);
    return static_cast<unsigned>(limit.rlim_cur);
}

} // namespace

http_answer text_answer(unsigned status, const std::string &text)
{
    return {.status = status, .body = std::make_shared<const std::string>(text + "\n")};
}

std::optional<listen_address> parse_listen_address(const std::string &text)
{
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) {
        return {};
    }
    std::string host = text.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    const std::string port = text.substr(colon + 1);
    const bool is_number = !port.empty() && port.size() <= 5 &&
                           port.find_first_not_of("0123456789") == std::string::npos &&
                           std::stoi(port) <= UINT16_MAX;
    return is_number && (is_address(host) || host == "localhost") ? std::optional(listen_address{host, port})
                                                                  : std::nullopt;
}

std::string check_listen_address(const std::string &text)
{
    return parse_listen_address(text)
               ? ""
               : "'" + text + "' is not ADDRESS:PORT, such as 127.0.0.1:9886 or [::1]:9886";
}

// A connection.
struct http_server::peer {
    int descriptor;
    steady_clock::time_point since;    // of the connection or its last request
    steady_clock::time_point deadline; // then it is dropped
    bool has_asked = false;            // and is being answered
    std::shared_ptr<const std::string> body = nullptr;

    void wait_for_request()
    {
        since = steady_clock::now();
        deadline = since + REQUEST_TIME;
        has_asked = false;
        body.reset();
    }
    // The library notices and closes it.
    void drop() { shutdown(descriptor, SHUT_RDWR); }
};

// Who follows the events.
struct http_server::reader {
    http_server &server;
    MHD_Connection *connection;
    event_stream::place place;
    bool is_suspended = false; // until there are more
};

// What the library calls: no exception leaves.
struct http_server::callbacks {
    static void notice_connection(void *owner, MHD_Connection *connection, void **context,
                                  MHD_ConnectionNotificationCode code)
    {
        auto &self = *static_cast<http_server *>(owner);
        auto *known = static_cast<peer *>(*context);
        if (code == MHD_CONNECTION_NOTIFY_STARTED) {
            const int descriptor =
                MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
            known = new peer{.descriptor = descriptor, .since = {}, .deadline = {}};
            known->wait_for_request();
            self.peers.insert(known);
            *context = known;
            self.make_room(*known);
        } else {
            self.peers.erase(known);
            delete known;
            *context = nullptr;
        }
    }

    static peer &peer_of(MHD_Connection *connection)
    {
        return *static_cast<peer *>(
            MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT)->socket_context);
    }

    static void notice_completed(void *, MHD_Connection *connection, void **, MHD_RequestTerminationCode)
    {
        peer_of(connection).wait_for_request();
    }

    static MHD_Result add_argument(void *arguments, MHD_ValueKind, const char *key, const char *value)
    {
        auto &all = *static_cast<std::map<std::string, std::string> *>(arguments);
        all[key] = value == nullptr ? "" : value;
        return MHD_YES;
    }

    // Called with the headers, and again with the end of the request, when there is none.
    static MHD_Result take_request(void *owner, MHD_Connection *connection, const char *url,
                                   const char *method, const char *, const char *, size_t *,
                                   void **context) noexcept
    {
        auto &self = *static_cast<http_server *>(owner);
        const bool is_complete = std::exchange(*context, owner) != nullptr;
        std::optional<http_answer> answer;
        try {
            if (!is_complete) {
                answer = self.refusal(connection, method, url);
                if (!answer) {
                    return MHD_YES;
                }
            } else {
                http_request request = {.path = url, .arguments = {}};
                MHD_get_connection_values(connection, MHD_GET_ARGUMENT_KIND, add_argument,
                                          &request.arguments);
                answer = self.handle(request);
            }
            return self.respond(connection, *answer) ? MHD_YES : MHD_NO;
        } catch (const std::exception &) {
            return MHD_NO; // which closes the connection
        }
    }

    static ssize_t read_events(void *context, uint64_t, char *buffer, size_t size)
    {
        auto &self = *static_cast<reader *>(context);
        const size_t used = self.server.events.read(self.place, buffer, size);
        if (used == 0) {
            self.is_suspended = true;
            MHD_suspend_connection(self.connection);
        }
        return static_cast<ssize_t>(used);
    }

    static void free_reader(void *context)
    {
        auto *const self = static_cast<reader *>(context);
        self->server.readers.erase(self);
        delete self;
    }

    static void free_body(void *body) { delete static_cast<std::shared_ptr<const std::string> *>(body); }
};

http_server::http_server(const listen_address &address, const std::optional<std::vector<std::string>> &names,
                         request_handler answer)
    : handle(std::move(answer)), events(MAX_EVENT_BYTES)
{
    if (names) {
        allowed_names = {"localhost"};
        for (const std::string &allowed : *names) {
            allowed_names->push_back(host_name(allowed));
        }
    }
    listen_on(address);
}

http_server::~http_server()
{
    // The library ends no connection that is suspended.
    for (reader *each : readers) {
        if (each->is_suspended) {
            MHD_resume_connection(each->connection);
        }
    }
    MHD_stop_daemon(daemon);
}

void http_server::listen_on(const listen_address &address)
{
    const std::string wanted = joined(address.host, address.port);
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    address_list found;
    if (const int result = getaddrinfo(address.host.c_str(), address.port.c_str(), &hints, &found.first);
        result != 0) {
        report_listen(wanted, gai_strerror(result));
    }
    const addrinfo &first = *found.first;
    const int listening = socket(first.ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(listening, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setsockopt(listening, SOL_SOCKET, SO_SNDBUF, &SEND_BUFFER, sizeof SEND_BUFFER);
    if (listening == -1 || bind(listening, first.ai_addr, first.ai_addrlen) == -1 ||
        listen(listening, BACKLOG) == -1) {
        const int cause = errno;
        close(listening);
        report_listen(wanted, strerror(cause));
    }
    sockaddr_storage taken{};
    socklen_t size = sizeof taken;
    getsockname(listening, reinterpret_cast<sockaddr *>(&taken), &size);
    name = address_text(taken, size);
    is_local = is_loopback_address(taken);
    start(listening);
}

void http_server::start(int listening)
{
    const unsigned limit = raise_descriptor_limit();
    daemon =
        MHD_start_daemon(MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME, 0, nullptr, nullptr,
                         callbacks::take_request, this, MHD_OPTION_LISTEN_SOCKET, listening,
                         MHD_OPTION_CONNECTION_LIMIT, limit - static_cast<unsigned>(SPARE_DESCRIPTORS),
                         MHD_OPTION_CONNECTION_TIMEOUT, STALL_SECONDS, MHD_OPTION_CONNECTION_MEMORY_LIMIT,
                         PEER_MEMORY, MHD_OPTION_NOTIFY_CONNECTION, callbacks::notice_connection, this,
                         MHD_OPTION_NOTIFY_COMPLETED, callbacks::notice_completed, this, MHD_OPTION_END);
    if (daemon == nullptr) {
        close(listening);
        report_listen(name, "the HTTP library doesn't start");
    }
}

int http_server::descriptor() const
{
    return MHD_get_daemon_info(daemon, MHD_DAEMON_INFO_EPOLL_FD)->epoll_fd;
}

milliseconds http_server::serve()
{
    constexpr int MAX_ROUNDS = 8; // then the owner's other business
    MHD_UNSIGNED_LONG_LONG wait = 0;
    for (int round = 0; round < MAX_ROUNDS && wait == 0; round++) {
        MHD_run(daemon);
        if (MHD_get_timeout(daemon, &wait) != MHD_YES) {
            wait = static_cast<MHD_UNSIGNED_LONG_LONG>(LOOK_INTERVAL.count());
        }
    }
    drop_late();
    return std::min(milliseconds(wait), LOOK_INTERVAL);
}

void http_server::drop_late()
{
    const auto now = steady_clock::now();
    if (now - looked < LOOK_INTERVAL) {
        return;
    }
    looked = now;
    for (peer *each : peers) {
        if (now > each->deadline) {
            each->drop();
        }
    }
}

// The oldest goes first, one that hasn't asked for anything before one that is being answered.
void http_server::make_room(const peer &newest)
{
    const auto drop_oldest = [&](const auto &is_candidate) {
        peer *oldest = nullptr;
        for (peer *each : peers) {
            if (each != &newest && is_candidate(*each) &&
                (oldest == nullptr || each->since < oldest->since)) {
                oldest = each;
            }
        }
        if (oldest != nullptr) {
            oldest->drop();
            oldest->body.reset();
            oldest->since = steady_clock::time_point::max(); // never chosen again
        }
        return oldest != nullptr;
    };
    const auto is_left = [](const peer &each) { return each.since != steady_clock::time_point::max(); };
    if (peers.size() > MAX_PEERS) {
        static_cast<void>(drop_oldest([&](const peer &each) { return is_left(each) && !each.has_asked; }) ||
                          drop_oldest(is_left));
    }
    const auto held = [&] {
        std::set<const std::string *> bodies;
        size_t size = 0;
        for (const peer *each : peers) {
            size += each->body && bodies.insert(each->body.get()).second ? each->body->size() : 0;
        }
        return size;
    };
    while (newest.body && held() > MAX_BODY_BYTES &&
           drop_oldest([&](const peer &each) { return each.body && each.body != newest.body; })) {
    }
}

// An address is no name that somebody else could lead here.
bool http_server::is_host_allowed(const char *host) const
{
    const std::string asked = host == nullptr ? "" : host_name(host);
    return !allowed_names || is_address(asked) ||
           std::find(allowed_names->begin(), allowed_names->end(), asked) != allowed_names->end();
}

std::optional<http_answer> http_server::refusal(MHD_Connection *connection, const std::string &method,
                                                const std::string &path) const
{
    const char *const site = header_of(connection, "Sec-Fetch-Site");
    const bool is_foreign =
        site != nullptr && site != std::string_view("same-origin") && site != std::string_view("none");
    if (!is_host_allowed(header_of(connection, MHD_HTTP_HEADER_HOST))) {
        return text_answer(MHD_HTTP_FORBIDDEN,
                           "this host is not served under that name, see diagctl web --name");
    }
    if (is_foreign && path.starts_with("/api/")) {
        return text_answer(MHD_HTTP_FORBIDDEN, "for pages of this host only");
    }
    if (method != MHD_HTTP_METHOD_GET) {
        return text_answer(MHD_HTTP_METHOD_NOT_ALLOWED, "only GET");
    }
    const char *const length = header_of(connection, MHD_HTTP_HEADER_CONTENT_LENGTH);
    const bool has_body = (length != nullptr && length != std::string_view("0")) ||
                          header_of(connection, MHD_HTTP_HEADER_TRANSFER_ENCODING) != nullptr;
    return has_body ? std::optional(text_answer(MHD_HTTP_CONTENT_TOO_LARGE, "a request has no body"))
                    : std::nullopt;
}

bool http_server::respond(MHD_Connection *connection, const http_answer &answer)
{
    peer &asking = callbacks::peer_of(connection);
    asking.has_asked = true;
    asking.since = steady_clock::now();
    asking.deadline = asking.since + ANSWER_TIME;
    asking.body = answer.body;
    make_room(asking);

    if (answer.is_stream && readers.size() >= MAX_READERS) {
        return respond(connection,
                       text_answer(MHD_HTTP_SERVICE_UNAVAILABLE, "too many read the events already"));
    }
    const std::string tag = answer.tag.empty() ? "" : '"' + answer.tag + '"';
    const char *const known = header_of(connection, MHD_HTTP_HEADER_IF_NONE_MATCH);
    const bool is_known =
        !tag.empty() && known != nullptr && std::string_view(known).find(tag) != std::string_view::npos;

    MHD_Response *response = nullptr;
    if (answer.is_stream) {
        asking.deadline = steady_clock::time_point::max();
        auto *const added = new reader{.server = *this, .connection = connection, .place = events.join()};
        added->place.current = std::make_shared<const std::string>(STREAM_START);
        readers.insert(added);
        response = MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, EVENT_BLOCK, callbacks::read_events,
                                                     added, callbacks::free_reader);
    } else if (is_known || !answer.body) {
        response = MHD_create_response_from_buffer(0, nullptr, MHD_RESPMEM_PERSISTENT);
    } else {
        response = MHD_create_response_from_buffer_with_free_callback_cls(
            answer.body->size(), const_cast<char *>(answer.body->data()), callbacks::free_body,
            new std::shared_ptr<const std::string>(answer.body));
    }
    if (response == nullptr) {
        return false;
    }
    for (const auto &header : HEADERS) {
        MHD_add_response_header(response, header.name, header.value);
    }
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, answer.type);
    MHD_add_response_header(response, MHD_HTTP_HEADER_CACHE_CONTROL, tag.empty() ? "no-store" : "no-cache");
    if (!tag.empty()) {
        MHD_add_response_header(response, MHD_HTTP_HEADER_ETAG, tag.c_str());
    }
    if (answer.status == MHD_HTTP_METHOD_NOT_ALLOWED) {
        MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, MHD_HTTP_METHOD_GET);
    }
    if (answer.is_stream) {
        MHD_add_response_header(response, "X-Accel-Buffering", "no"); // a proxy passes each event on at once
    }
    const MHD_Result result =
        MHD_queue_response(connection, is_known ? MHD_HTTP_NOT_MODIFIED : answer.status, response);
    MHD_destroy_response(response);
    return result == MHD_YES;
}

void http_server::send(std::string event)
{
    if (readers.empty()) {
        return;
    }
    events.append(std::move(event));
    for (reader *each : readers) {
        if (std::exchange(each->is_suspended, false)) {
            MHD_resume_connection(each->connection);
        }
    }
}
