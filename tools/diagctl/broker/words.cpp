#include "broker/words.h"

#include "failure.h"

#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

namespace
{

constexpr size_t MIN_WORD_LENGTH = 6;
constexpr size_t MAX_WORD_LENGTH = 31;

bool is_word(std::string_view line)
{
    return line.size() >= MIN_WORD_LENGTH && line.size() <= MAX_WORD_LENGTH &&
           std::all_of(line.begin(), line.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

[[noreturn]] void refuse(const std::string &path, const std::string &reason)
{
    throw failure(STATUS_FAILURE, fmt::format("{} is no word table: {}", path, reason));
}

void check_owner_and_mode(const std::string &path)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) == -1) {
        refuse(path, strerror(errno));
    }
    if (S_ISREG(status.st_mode) && (status.st_mode & (S_IRWXO | S_IWGRP)) != 0) {
        throw failure(STATUS_FAILURE,
                      fmt::format("{} is a secret, but its mode {:o} lets others read or write it\n"
                                  "Look who has had access to it, then: chmod 600 {}",
                                  path, status.st_mode & 07777, path));
    }
    if (status.st_uid != 0 && status.st_uid != geteuid()) {
        throw failure(STATUS_FAILURE,
                      fmt::format("{} belongs to user {}, who may change it: it must be root's or your own",
                                  path, status.st_uid));
    }
}

#ifdef DIAG_TOOLS_SECRETS
const word_table BUILT_IN = {
#include "secrets.inc"
};
#endif

} // namespace

word_table read_words(const std::string &path)
{
    check_owner_and_mode(path);
    std::ifstream file(path);
    if (!file) {
        refuse(path, strerror(errno));
    }
    word_table words;
    size_t lines = 0;
    for (std::string line; std::getline(file, line); lines++) {
        if (!is_word(line)) {
            refuse(path, fmt::format("line {} isn't 6 to 31 printable ASCII characters", lines + 1));
        }
        if (lines < words.size()) {
            words[lines] = std::move(line);
        }
    }
    if (lines != words.size()) {
        refuse(path, fmt::format("it has {} lines, a word table has {}", lines, words.size()));
    }
    return words;
}

word_table find_words(const std::string &path)
{
    if (!path.empty()) {
        return read_words(path);
    }
    if (access(SECRETS_PATH, F_OK) == 0) {
        return read_words(SECRETS_PATH);
    }
#ifdef DIAG_TOOLS_SECRETS
    return BUILT_IN;
#else
    throw failure(STATUS_FAILURE,
                  fmt::format("no words to answer the daemon's challenge with\n"
                              "The deployment gives them out as a file: put it to {}, or name it with "
                              "--secrets.",
                              SECRETS_PATH));
#endif
}
