// MD5 digests (RFC 1321).
//
// The functions have C++ linkage: with C linkage they would take the place of the crypto library's functions
// of the same name in every library of the process.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t MD5_DIGEST_SIZE = 16;
constexpr size_t MD5_BLOCK_SIZE = 64;

struct md5_context {
    uint32_t state[4];
    uint64_t length; // bytes so far
    uint8_t block[MD5_BLOCK_SIZE];
};

// Starts a digest; then any number of updates; MD5_Final writes the 16 bytes and wipes the context.
void MD5_Init(md5_context *context);
void MD5_Update(md5_context *context, const void *data, size_t size);
void MD5_Final(uint8_t *digest_out, md5_context *context);
