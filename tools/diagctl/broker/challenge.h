// The client's side of the challenge that guards activate and remote download. Nothing here talks to a
// broker.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

constexpr size_t CHALLENGE_WORDS = 127;
using word_table = std::array<std::string, CHALLENGE_WORDS>;

// The response to a challenge such as "1;17 4 99": the MD5 digest of the words with these indices, in
// hexadecimal. Empty when the challenge is malformed.
std::optional<std::string> challenge_response(std::string_view challenge, const word_table &words);
