#include "common/md5.h"

#include "common/bytes.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <iterator>

namespace
{

// floor(2^32 * |sin(i + 1)|)
constexpr std::array<uint32_t, 64> SINES = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

constexpr std::array<std::array<int, 4>, 4> ROTATIONS = {
    {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}}};

constexpr uint8_t PADDING_START = 0x80;
constexpr size_t LENGTH_OFFSET = MD5_BLOCK_SIZE - sizeof(uint64_t);

void transform(uint32_t *state, const uint8_t *block)
{
    uint32_t a = state[0];
    uint32_t b = state[1];
    uint32_t c = state[2];
    uint32_t d = state[3];
    for (size_t i = 0; i < SINES.size(); i++) {
        const size_t round = i / 16;
        uint32_t mixed = 0;
        size_t word = 0;
        switch (round) {
        case 0:
            mixed = (b & c) | (~b & d);
            word = i;
            break;
        case 1:
            mixed = (b & d) | (c & ~d);
            word = 5 * i + 1;
            break;
        case 2:
            mixed = b ^ c ^ d;
            word = 3 * i + 5;
            break;
        default:
            mixed = c ^ (b | ~d);
            word = 7 * i;
            break;
        }
        mixed += a + SINES[i] + load_le<uint32_t>(block + sizeof(uint32_t) * (word % 16));
        a = d;
        d = c;
        c = b;
        b += std::rotl(mixed, ROTATIONS[round][i % 4]);
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
}

} // namespace

void MD5_Init(md5_context *context)
{
    *context = {.state = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476}, .length = 0, .block = {}};
}

void MD5_Update(md5_context *context, const void *data, size_t size)
{
    const uint8_t *bytes = static_cast<const uint8_t *>(data);
    while (size > 0) {
        const size_t used = context->length % MD5_BLOCK_SIZE;
        const size_t count = std::min(size, MD5_BLOCK_SIZE - used);
        memcpy(context->block + used, bytes, count);
        context->length += count;
        bytes += count;
        size -= count;
        if (used + count == MD5_BLOCK_SIZE) {
            transform(context->state, context->block);
        }
    }
}

void MD5_Final(uint8_t *digest_out, md5_context *context)
{
    const uint64_t bits = context->length * 8;
    const size_t used = context->length % MD5_BLOCK_SIZE;
    std::array<uint8_t, 2 *MD5_BLOCK_SIZE> padding = {PADDING_START};
    const size_t zeros_end = used < LENGTH_OFFSET ? LENGTH_OFFSET : LENGTH_OFFSET + MD5_BLOCK_SIZE;
    store_le(padding.data() + zeros_end - used, bits);
    MD5_Update(context, padding.data(), zeros_end - used + sizeof bits);
    for (size_t i = 0; i < std::size(context->state); i++) {
        store_le(digest_out + i * sizeof(uint32_t), context->state[i]);
    }
    explicit_bzero(context, sizeof *context);
}
