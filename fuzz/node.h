// One node for the fuzzers: the daemon's modules between stand-ins for the event loop, the broker session and the
// system, in one thread and in virtual time.
//
// Besides what the sanitizers see, these abort the program: using a descriptor after its close, leaving one open that
// nothing watches, a read that would block, memory returned twice or by the wrong operator, memory that nobody holds
// any more, and an end of the daemon by its own decision for any reason but those that it is meant to end for.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <string>

namespace fuzz
{

using std::chrono::seconds;
using bytes = std::span<const uint8_t>;

inline constexpr uint8_t LOCAL_MAC[] = {0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E};
inline constexpr const char *OWN_TOPICS = "pub/diag/00-1A-2B-3C-4D-5E/";

// Starts all modules as main does, from variables as they are when a program starts.
void start_node();
// The goodbye, the checks at the end, and all memory back.
void end_node();

// What happens to the node; nothing any more once it has ended. A datagram comes from 10.0.0.sender. A message comes
// from another client, unless no broker takes its topic. Time passes and the daemon serves its timers, or doesn't get
// to run meanwhile.
void receive_datagram(uint8_t sender, bytes datagram);
void publish(const std::string &topic, bytes payload);
void run_for(seconds time);
void stall_for(seconds time);

// The right response to the challenge that is published.
std::string right_response();

} // namespace fuzz
