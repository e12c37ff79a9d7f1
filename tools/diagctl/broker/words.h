// Where the words come from that answer the daemon's challenge.
#pragma once

#include "broker/challenge.h"

constexpr const char *SECRETS_PATH = "/etc/diag/secrets";

// Reads a file such as the daemon was built with: 127 lines of 6 to 31 printable ASCII characters. Only its
// owner, who is root or the user, may write it, and nobody but its group may read it beside.
word_table read_words(const std::string &path);

// The table of the file that the user names, else of SECRETS_PATH where there is one, else the one of this
// build, if it has one.
word_table find_words(const std::string &path);
