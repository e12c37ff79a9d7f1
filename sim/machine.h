// What a simulated process finds around it: the card that it runs on.
#pragma once

#include "shared_bytes.h"
#include "timeline.h"

#include <array>
#include <cstdint>
#include <ctime>
#include <string>

namespace sim
{

class mqtt_broker;

using mac_address = std::array<uint8_t, 6>;

struct network_interface {
    unsigned index;
    bool is_up;
    mac_address mac;
};

// What may fail when a process asks for it.
enum class system_call {
    READ,
    CLOCK_GETTIME,
    TIMERFD_CREATE,
    TIMERFD_SETTIME,
    EPOLL_CTL,
    EPOLL_WAIT,
    RECVFROM,
    SENDTO,
    ALLOCATION,
    HANG_UP, // the descriptor that epoll_wait finds ready is said to be broken
    EPOLL_CREATE1,
    SIGACTION,
    OPEN,
    CLOSE,
    NANOSLEEP,
    SOCKET,
    IOCTL,
    SETSOCKOPT,
    IF_NAMETOINDEX,
    BIND,
    // of the MQTT client library
    NEW,
    CONNECT,
    DISCONNECT,
    GET_SOCKET,
    LOOP,
    LOOP_READ,
    LOOP_WRITE,
    LOOP_MISC,
    PUBLISH,
    SUBSCRIBE,
    UNSUBSCRIBE,
    COUNT,
};

class machine
{
public:
    virtual timeline &clock() = 0;
    virtual time_t wall_clock() const = 0;
    virtual mqtt_broker &broker() = 0;
    // Null when there is none of this name.
    virtual const network_interface *find_interface(const char *name) const = 0;
    virtual int process_id() const = 0;
    // The content of a file, null when there is none.
    virtual const std::string *find_file(const char *path) const = 0;

    // The errno that this call is to fail with, 0 when it works.
    virtual int failure_of(system_call call) = 0;

    // What the process does.
    virtual void send(uint32_t address, uint16_t port, const shared_bytes &datagram) = 0;
    virtual void consume(uint32_t sender, const shared_bytes &datagram) = 0; // has read it from its socket
    virtual void log(const char *line) = 0;
    virtual void misuse(const char *what) = 0; // of memory or descriptors; does not return
    virtual void ended(int status) = 0;        // its memory and descriptors can still be looked at

protected:
    ~machine() = default;
};

} // namespace sim
