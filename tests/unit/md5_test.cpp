#include "common/md5.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

// Compiles only while the digest's own functions have C++ linkage: with C linkage they would be called by
// every library of the process that expects the crypto library's.
extern "C" {
int MD5_Init(int);
int MD5_Update(int);
int MD5_Final(int);
}

namespace
{

using digest = std::vector<uint8_t>;

digest md5(std::string_view text, size_t piece = SIZE_MAX)
{
    md5_context context;
    MD5_Init(&context);
    for (size_t start = 0; start < text.size(); start += std::min(piece, text.size() - start)) {
        const std::string_view part = text.substr(start, piece);
        MD5_Update(&context, part.data(), part.size());
    }
    digest result(MD5_DIGEST_SIZE);
    MD5_Final(result.data(), &context);
    return result;
}

std::string to_hex(const digest &bytes)
{
    std::string text;
    for (const uint8_t byte : bytes) {
        char hex[3];
        (void)snprintf(hex, sizeof hex, "%02x", byte);
        text += hex;
    }
    return text;
}

} // namespace

TEST(md5, pads_every_length_and_takes_any_pieces)
{
    // The digest of the digests of 0 to 199 times 'x', as md5sum gives it.
    std::string digests;
    for (size_t length = 0; length < 200; length++) {
        const std::string text(length, 'x');
        const digest whole = md5(text);
        for (const size_t piece : {1U, 7U, 63U, 64U, 65U}) {
            EXPECT_EQ(md5(text, piece), whole) << length << " bytes in pieces of " << piece;
        }
        digests.append(whole.begin(), whole.end());
    }
    EXPECT_EQ(to_hex(md5(digests)), "236291006a2f1dc7b00bd978802ff8c6");
}
