// What people call the nodes, from files in the format of ethers(5): a line "02:00:00:00:00:03 Lobby" for
// each, # begins a comment.
#pragma once

#include "network/payloads.h"

#include <map>
#include <stdexcept>

// A line of the wrong form: "FILE:LINE: ...".
struct bad_names : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class node_names
{
public:
    // Adds the lines of a file's text. What they name anew takes the place of an earlier file's name. Throws
    // bad_names.
    void add(std::string_view text, const std::string &file);

    // The name, null where there is none.
    const std::string *of(const mac_address &mac) const;
    // Every node of this name, in either case.
    std::vector<mac_address> find(std::string_view name) const;

    const std::map<mac_address, std::string> &all() const { return by_mac; }

private:
    std::map<mac_address, std::string> by_mac;
};

// Why a word can't be a node's name; empty where it can.
std::string name_complaint(std::string_view word);
