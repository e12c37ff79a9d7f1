// HTTP for who only looks: GET alone, on the loop of its owner, without a thread. Whoever connects is bounded in time and
// memory, however slow or hostile: see the constants in http_server.cpp.
#pragma once

#include "web/event_stream.h"

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

struct MHD_Connection;
struct MHD_Daemon;

// "ADDRESS:PORT", "[ADDRESS]:PORT" or "localhost:PORT".
struct listen_address {
    std::string host;
    std::string port;
};
std::optional<listen_address> parse_listen_address(const std::string &text);
std::string check_listen_address(const std::string &text); // what is wrong with it

struct http_request {
    std::string path;
    std::map<std::string, std::string> arguments; // what follows the question mark
};

struct http_answer {
    unsigned status;
    const char *type = "text/plain; charset=utf-8";
    std::shared_ptr<const std::string> body; // shared by all who get it
    std::string tag = {};   // of a body that is the same until it has another tag; else it is never kept
    bool is_stream = false; // the events follow, from now on
};
http_answer text_answer(unsigned status, const std::string &text);

class http_server
{
public:
    using request_handler = std::function<http_answer(const http_request &)>;

    // Listens; throws failure. Where names are given, a request must name the server by an address, as localhost or by one of
    // them: a foreign page that has its own name lead here gets nothing.
    http_server(const listen_address &address, const std::optional<std::vector<std::string>> &names,
                request_handler answer);
    ~http_server();
    http_server(const http_server &) = delete;
    http_server &operator=(const http_server &) = delete;

    // "127.0.0.1:9886", with the port that was taken where 0 was wanted.
    const std::string &address() const { return name; }
    bool is_loopback() const { return is_local; }

    // Call serve() when there is something to read, and no later than after the time that it returns.
    int descriptor() const;
    std::chrono::milliseconds serve();

    // To all who read the stream.
    void send(std::string event);
    bool has_readers() const { return !readers.empty(); }

private:
    struct peer;
    struct reader;
    struct callbacks;

    void listen_on(const listen_address &address);
    void start(int listening);
    void drop_late();
    void make_room(const peer &newest);
    bool is_host_allowed(const char *host) const;
    std::optional<http_answer> refusal(MHD_Connection *connection, const std::string &method,
                                       const std::string &path) const;
    bool respond(MHD_Connection *connection, const http_answer &answer);

    std::string name;
    bool is_local = false;
    std::optional<std::vector<std::string>> allowed_names; // none: all
    request_handler handle;
    event_stream events;
    std::set<peer *> peers;
    std::set<reader *> readers;
    std::chrono::steady_clock::time_point looked{};
    MHD_Daemon *daemon = nullptr;
};
