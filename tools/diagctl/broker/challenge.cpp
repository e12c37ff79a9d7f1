#include "broker/challenge.h"

#include "common/md5.h"
#include "common/text.h"

#include <algorithm>
#include <cstdio>

namespace
{

constexpr std::string_view CHALLENGE_PREFIX = "1;";

} // namespace

std::optional<std::string> challenge_response(std::string_view challenge, const word_table &words)
{
    if (!challenge.starts_with(CHALLENGE_PREFIX)) {
        return {};
    }
    md5_context md5;
    MD5_Init(&md5);
    for (std::string_view rest = challenge.substr(CHALLENGE_PREFIX.size()); !rest.empty();) {
        const size_t end = std::min(rest.find(' '), rest.size());
        const std::string_view text = rest.substr(0, end);
        uint32_t index = 0;
        if (text.empty() || text.find_first_not_of("0123456789") != std::string_view::npos ||
            (text.size() > 1 && text[0] == '0') || !parse_u32(text, index) || index >= words.size()) {
            return {};
        }
        MD5_Update(&md5, words[index].data(), words[index].size());
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    uint8_t digest[MD5_DIGEST_SIZE];
    MD5_Final(digest, &md5);
    std::string response;
    for (const uint8_t byte : digest) {
        char digits[3];
        snprintf(digits, sizeof digits, "%02x", byte);
        response += digits;
    }
    return challenge.size() > CHALLENGE_PREFIX.size() ? std::optional(response) : std::nullopt;
}
