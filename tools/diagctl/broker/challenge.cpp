#include "broker/challenge.h"

#include "common/md5.h"
#include "common/text.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

namespace
{

constexpr std::string_view CHALLENGE_PREFIX = "1;";
constexpr size_t MIN_WORD_LENGTH = 6;
constexpr size_t MAX_WORD_LENGTH = 31;

bool is_word(std::string_view line)
{
    return line.size() >= MIN_WORD_LENGTH && line.size() <= MAX_WORD_LENGTH &&
           std::all_of(line.begin(), line.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

} // namespace

std::optional<word_table> read_words(const std::string &path, std::string &error)
{
    std::ifstream file(path);
    if (!file) {
        error = strerror(errno);
        return {};
    }
    word_table words;
    size_t lines = 0;
    for (std::string line; std::getline(file, line); lines++) {
        if (!is_word(line)) {
            error = "line " + std::to_string(lines + 1) + " isn't 6 to 31 printable ASCII characters";
            return {};
        }
        if (lines < words.size()) {
            words[lines] = std::move(line);
        }
    }
    if (lines != words.size()) {
        error =
            "it has " + std::to_string(lines) + " lines, a word table has " + std::to_string(words.size());
        return {};
    }
    return words;
}

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
