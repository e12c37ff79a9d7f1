// The retained facts of this card on its broker. They are kept here, so that a broker that was restarted gets
// all of them again.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

// Opens the session and starts connecting to 127.0.0.1:1885. False when there is no memory for it.
bool facts_open();

// The session's socket, -1 while there is no connection, and whether output waits for it.
int facts_fd();
bool facts_want_write();

// Reads, writes and keeps the session alive; connects anew when the connection is lost.
void facts_step();

bool facts_connected();

// How often the daemon has announced itself on this broker.
unsigned facts_daemon_starts();

// Publishes a retained value unless it is the one last given for the topic; an empty value removes it.
void fact(const std::string &topic, std::span<const uint8_t> value);
void fact(const std::string &topic, std::string_view value);

// Publishes a retained value in any case.
void fact_again(const std::string &topic, std::span<const uint8_t> value);
