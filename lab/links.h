// What the kernel knows about the network interfaces of this node.
#pragma once

#include <linux/if_link.h>

#include <map>
#include <string>

struct link_facts {
    bool carrier = false;
    // Spanning-tree state of a bridge port (BR_STATE_... of linux/if_bridge.h), -1 for any other interface.
    int stp_state = -1;
    uint32_t carrier_changes = 0;
    rtnl_link_stats64 counters = {};
};

// A netlink socket that becomes readable whenever an interface changes, -1 with errno on failure.
int links_watch();

// Takes the pending notices from the socket of links_watch.
void links_take_notices(int fd);

// Reads all interfaces, by name. False with errno set when the kernel could not be asked.
bool links_read(std::map<std::string, link_facts> &links);
