#include "links.h"

#include "common/unique_fd.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <span>
#include <vector>

namespace
{

using bytes_view = std::span<const uint8_t>;

// The kernel never splits a message; its dumps come in parts of up to 32 KiB.
constexpr size_t RECEIVE_SIZE = 32768;

// The value at the start of the bytes, zeros when there are too few of them.
template <typename T>
T front(bytes_view bytes)
{
    T value = {};
    if (bytes.size() >= sizeof value) {
        memcpy(&value, bytes.data(), sizeof value);
    }
    return value;
}

bytes_view skip(bytes_view bytes, size_t count)
{
    return count < bytes.size() ? bytes.subspan(count) : bytes_view();
}

template <typename Visitor>
void for_each_attribute(bytes_view bytes, Visitor visit)
{
    for (;;) {
        auto attribute = front<rtattr>(bytes);
        if (attribute.rta_len < sizeof attribute || attribute.rta_len > bytes.size()) {
            return;
        }
        visit(attribute.rta_type & NLA_TYPE_MASK,
              bytes.subspan(sizeof attribute, attribute.rta_len - sizeof attribute));
        bytes = skip(bytes, NLA_ALIGN(attribute.rta_len));
    }
}

void take_port_state(bytes_view link_info, link_facts &facts)
{
    for_each_attribute(link_info, [&facts](int type, bytes_view value) {
        if (type != IFLA_INFO_SLAVE_DATA) {
            return;
        }
        for_each_attribute(value, [&facts](int port_type, bytes_view port_value) {
            if (port_type == IFLA_BRPORT_STATE) {
                facts.stp_state = front<uint8_t>(port_value);
            }
        });
    });
}

void take_link(bytes_view attributes, std::map<std::string, link_facts> &links)
{
    link_facts facts;
    std::string name;
    for_each_attribute(attributes, [&](int type, bytes_view value) {
        switch (type) {
        case IFLA_IFNAME:
            name.assign(value.begin(), value.end());
            name.resize(strlen(name.c_str()));
            break;
        case IFLA_CARRIER:
            facts.carrier = front<uint8_t>(value) != 0;
            break;
        case IFLA_CARRIER_CHANGES:
            facts.carrier_changes = front<uint32_t>(value);
            break;
        case IFLA_STATS64:
            // An older kernel gives fewer counters than the header declares.
            memcpy(&facts.counters, value.data(), std::min(value.size(), sizeof facts.counters));
            break;
        case IFLA_LINKINFO:
            take_port_state(value, facts);
            break;
        default:
            break;
        }
    });
    links[name] = facts;
}

} // namespace

int links_watch()
{
    unique_fd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK;
    if (!fd.is_open() || bind(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == -1) {
        return -1;
    }
    return fd.release();
}

void links_take_notices(int fd)
{
    uint8_t buffer[RECEIVE_SIZE];
    // ENOBUFS tells of lost notices: no matter, everything is read anew after any notice.
    while (recv(fd, buffer, sizeof buffer, 0) > 0 || errno == ENOBUFS) {
    }
}

bool links_read(std::map<std::string, link_facts> &links)
{
    unique_fd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    struct {
        nlmsghdr header;
        ifinfomsg link;
    } request = {};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = RTM_GETLINK;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    if (!fd.is_open() || send(fd.get(), &request, sizeof request, 0) == -1) {
        return false;
    }

    links.clear();
    std::vector<uint8_t> buffer(RECEIVE_SIZE);
    for (;;) {
        ssize_t received = recv(fd.get(), buffer.data(), buffer.size(), 0);
        if (received <= 0) {
            return false;
        }
        bytes_view bytes(buffer.data(), static_cast<size_t>(received));
        for (;;) {
            auto header = front<nlmsghdr>(bytes);
            if (header.nlmsg_len < sizeof header || header.nlmsg_len > bytes.size()) {
                break;
            }
            if (header.nlmsg_type == NLMSG_DONE) {
                return true;
            }
            if (header.nlmsg_type == NLMSG_ERROR) {
                errno = EIO;
                return false;
            }
            bytes_view message = bytes.subspan(sizeof header, header.nlmsg_len - sizeof header);
            if (header.nlmsg_type == RTM_NEWLINK) {
                take_link(skip(message, NLMSG_ALIGN(sizeof(ifinfomsg))), links);
            }
            bytes = skip(bytes, NLMSG_ALIGN(header.nlmsg_len));
        }
    }
}
