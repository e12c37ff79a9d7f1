#include "auth.h"

#include "broker.h"
#include "common/lumlog.h"
#include "common/md5.h"
#include "common/text.h"
#include "topics.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace
{

constexpr const char *log_source = "auth";

constexpr size_t CHALLENGE_SIZE = 42;
constexpr int MIN_WORDS = 2;
constexpr int MAX_WORDS = 10;
constexpr int MAX_FAILURES = 3; // from this many in a row on each renews the challenge

// Deployment data, made from the file that the build option DIAG_SECRETS_FILE names.
constexpr const char *secrets[] = {
#include "secrets.inc"
};
static_assert(std::size(secrets) == 127);

uint8_t secret_md5sum[MD5_DIGEST_SIZE]; // the response to the challenge in force
unsigned num_failures;                  // since the last right response

// Draws and publishes a challenge. The old one stays in force when its text can't be built, the new one is in
// force also when it can't be published.
int update_secret()
{
    const int count = rand() % (MAX_WORDS - MIN_WORDS + 1) + MIN_WORDS;
    md5_context md5;
    MD5_Init(&md5);
    char text[CHALLENGE_SIZE] = "1;";
    size_t length = strlen(text);
    for (int i = 0; i < count; i++) {
        const int index = rand() % static_cast<int>(std::size(secrets));
        MD5_Update(&md5, secrets[index], strlen(secrets[index]));
        length += static_cast<size_t>(snprintf(text + length, sizeof text - length, "%d ", index));
        // The last blank, which is taken away below, may be cut off.
        if (length > sizeof text) {
            return log_failure("list of indices is too long");
        }
    }
    MD5_Final(secret_md5sum, &md5);
    text[length - 1] = '\0';
    if (broker_publish(CHALLENGE_TOPIC, text, strlen(text)) == -1) {
        return log_failure("couldn't publish %s to %s", text, CHALLENGE_TOPIC);
    }
    return 0;
}

bool parse_digest(const char *text, uint8_t (&digest)[MD5_DIGEST_SIZE])
{
    for (uint8_t &byte : digest) {
        if (parse_hex_byte(text, byte) != 2) {
            return false;
        }
        text += 2;
    }
    return true;
}

bool is_right(const char *response)
{
    uint8_t digest[MD5_DIGEST_SIZE];
    if (!parse_digest(response, digest)) {
        log_error("string %s is not a valid MD5 sum", response);
        return false;
    }
    return memcmp(digest, secret_md5sum, sizeof digest) == 0;
}

} // namespace

int auth_init()
{
    if (update_secret() == -1) {
        return log_failure("couldn't set initial secret indices");
    }
    return 0;
}

int auth_check(const char *response, bool *ok)
{
    if (check_arguments(response != nullptr && ok != nullptr, log_source) == -1) {
        return -1;
    }
    *ok = is_right(response);
    num_failures = *ok ? 0 : num_failures + 1;
    if (!*ok && num_failures < MAX_FAILURES) {
        return 0;
    }
    if (update_secret() == -1) {
        return log_failure("couldn't change secret indices");
    }
    return 0;
}
