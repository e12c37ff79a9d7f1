// What an input of the fuzzers means: a sequence of steps, each a byte that picks a kind from the fuzzer's own table,
// followed by
//
//     DATAGRAM    sender (1)  length (2)  bytes of the datagram
//     PACKET      sender (1)  type (1)  node (1)  length (2)  payload: a datagram with a right header
//     RUN         seconds (1), modulo 16: time passes
//     STALL       seconds (2): time passes without the daemon
//     FACT        topic (1)  which (1)  length (2)  payload: a message on a topic of the card's processes
//     OWN_TOPIC   length (1)  end of a topic of this node  length (2)  payload
//     TOPIC       length (1)  topic  length (2)  payload
//     COMMAND     length (2)  request of a client, in which a last "%" stands for the right response
//
// Lengths and values are big-endian; what is missing at the end counts as zero or empty. Node 0 is the node itself.
#pragma once

#include "subject.h"

#include <array>
#include <filesystem>
#include <string_view>

namespace fuzz
{

using bytes = std::span<const uint8_t>;

enum class step { DATAGRAM, PACKET, RUN, STALL, FACT, OWN_TOPIC, TOPIC, COMMAND };
using step_table = std::array<step, 8>;

// The table of the fuzzer "receive", "local" or "request".
const step_table &steps_of(std::string_view fuzzer);

// The content of a file.
std::vector<uint8_t> read_input(const std::filesystem::path &path);

// Takes a started daemon through the steps.
void play(subject &daemon, bytes input, const step_table &kinds);

} // namespace fuzz
