#include "broker/probe.h"

#include <fmt/core.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace
{

using std::chrono::milliseconds;
using std::chrono::steady_clock;

[[noreturn]] void report(const broker_address &broker, const char *reason)
{
    throw failure(STATUS_NO_BROKER, fmt::format("no broker at {}: {}", broker.text(), reason));
}

// An error number, 0 when the connection stands.
int try_address(const addrinfo &address, milliseconds limit, std::span<wait_input> inputs)
{
    struct closed_at_end {
        int descriptor;
        ~closed_at_end() { close(descriptor); }
    };
    const closed_at_end tried = {socket(address.ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
    if (tried.descriptor == -1) {
        return errno;
    }
    if (connect(tried.descriptor, address.ai_addr, address.ai_addrlen) == 0) {
        return 0;
    }
    if (errno != EINPROGRESS) {
        return errno;
    }
    if (!serve_inputs(inputs, limit, tried.descriptor)) {
        return ETIMEDOUT;
    }
    int error = 0;
    socklen_t size = sizeof error;
    getsockopt(tried.descriptor, SOL_SOCKET, SO_ERROR, &error, &size);
    return error;
}

} // namespace

bool serve_inputs(std::span<wait_input> inputs, milliseconds limit, int writable)
{
    const auto end = steady_clock::now() + limit;
    for (;;) {
        const auto left = std::chrono::ceil<milliseconds>(end - steady_clock::now());
        if (left.count() <= 0) {
            return false;
        }
        std::vector<pollfd> fds = {{writable, POLLOUT, 0}};
        for (const wait_input &input : inputs) {
            fds.push_back({input.descriptor, POLLIN, 0});
        }
        if (poll(fds.data(), fds.size(), static_cast<int>(left.count())) <= 0) {
            continue;
        }
        for (size_t i = 0; i < inputs.size(); i++) {
            if (fds[i + 1].revents != 0) {
                inputs[i].take();
            }
        }
        if (fds[0].revents != 0) {
            return true;
        }
    }
}

void probe_broker(const broker_address &broker, milliseconds limit, std::span<wait_input> inputs)
{
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    if (const int result =
            getaddrinfo(broker.host.c_str(), std::to_string(broker.port).c_str(), &hints, &found);
        result != 0) {
        report(broker, gai_strerror(result));
    }
    const std::unique_ptr<addrinfo, void (*)(addrinfo *)> addresses(found, freeaddrinfo);
    int error = EHOSTUNREACH;
    for (const addrinfo *each = found; each != nullptr && error != 0; each = each->ai_next) {
        error = try_address(*each, limit, inputs);
    }
    if (error != 0) {
        report(broker, strerror(error));
    }
}
