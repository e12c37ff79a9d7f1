#include "heap.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

namespace sim
{

struct alignas(std::max_align_t) heap::block {
    heap *owner;
    uint32_t index;              // among the owner's
    uint32_t size_and_allocator; // in the last two bits

    block(heap *owner_, size_t index_, size_t size, allocator from)
        : owner(owner_), index(static_cast<uint32_t>(index_)),
          size_and_allocator(static_cast<uint32_t>(size << 2) | static_cast<uint32_t>(from))
    {
    }
    size_t size() const { return size_and_allocator >> 2; }
    allocator from() const { return static_cast<allocator>(size_and_allocator & 3); }
    uintptr_t start() const { return reinterpret_cast<uintptr_t>(this + 1); }
};

namespace
{

#ifdef __SANITIZE_ADDRESS__
constexpr bool USES_CHUNKS = false;
#else
constexpr bool USES_CHUNKS = true;
#endif

constexpr int FRESH =
    0xA5; // what memory holds at first: no pointer that the search for leaks would take for one

constexpr size_t CHUNK = size_t{32} * 1024;
constexpr size_t REGION =
    size_t{2} * 1024 * 1024; // one entry of the processor's page tables, where the system can have it so

std::vector<void *> unused_chunks;

void *take_chunk()
{
    if (unused_chunks.empty()) {
        void *const region = aligned_alloc(REGION, REGION);
        if (region == nullptr) {
            throw std::bad_alloc();
        }
        madvise(region, REGION, MADV_HUGEPAGE);
        for (size_t end = REGION; end > 0; end -= CHUNK) {
            unused_chunks.push_back(static_cast<char *>(region) + end - CHUNK);
        }
    }
    void *const taken = unused_chunks.back();
    unused_chunks.pop_back();
    return taken;
}

} // namespace

void *heap::take(size_t size)
{
    if (!USES_CHUNKS || size > SMALL) {
        return malloc(size);
    }
    const size_t units = (size + UNIT - 1) / UNIT;
    run &from = runs_[units];
    if (void *const found = from.free; found != nullptr) {
        memcpy(&from.free, found, sizeof found);
        return found;
    }
    if (from.next == from.end) {
        begin_run(from, units * UNIT);
    }
    return std::exchange(from.next, from.next + units * UNIT);
}

void heap::begin_run(run &begun, size_t size)
{
    const size_t length = std::min(begun.length, CHUNK / 2 / size) * size;
    if (chunk_left_ < length) {
        chunks_.push_back(take_chunk());
        chunk_left_ = CHUNK;
    }
    begun.length *= 2;
    begun.next = static_cast<char *>(chunks_.back()) + CHUNK - chunk_left_;
    begun.end = begun.next + length;
    chunk_left_ -= length;
}

void heap::give_back(void *taken, size_t size)
{
    if (!USES_CHUNKS || size > SMALL) {
        free(taken);
        return;
    }
    void *&first = runs_[(size + UNIT - 1) / UNIT].free;
    memcpy(taken, &first, sizeof first);
    first = taken;
}

void *heap::allocate(size_t size, allocator from)
{
    void *const taken = take(sizeof(block) + size);
    auto *const added = new (taken) block(this, blocks_.size(), size, from);
    void *const given = added + 1;
    memset(given, FRESH, size);
    blocks_.push_back(added);
    return given;
}

bool heap::release(void *released, allocator by)
{
    block *const held = static_cast<block *>(released) - 1;
    if (held->owner != this || held->from() != by) {
        return false;
    }
    blocks_[held->index] = blocks_.back();
    blocks_[held->index]->index = held->index;
    blocks_.pop_back();
    held->owner = nullptr;
    give_back(held, sizeof(block) + held->size());
    return true;
}

void heap::free_all()
{
    for (block *const each : blocks_) {
        give_back(each, sizeof(block) + each->size());
    }
    blocks_.clear();
    unused_chunks.insert(unused_chunks.end(), chunks_.begin(), chunks_.end());
    chunks_.clear();
    chunk_left_ = 0;
    runs_.fill({});
}

size_t heap::find_leak(std::span<const uintptr_t> variables) const
{
    std::vector<const block *> blocks(blocks_.begin(), blocks_.end());
    std::sort(blocks.begin(), blocks.end());
    if (blocks.empty()) {
        return 0;
    }
    const uintptr_t first = blocks.front()->start();
    const uintptr_t last = blocks.back()->start() + blocks.back()->size();
    std::vector<bool> is_held(blocks.size());
    std::vector<std::span<const uintptr_t>> unread = {variables};
    while (!unread.empty()) {
        const std::span<const uintptr_t> words = unread.back();
        unread.pop_back();
        for (const uintptr_t word : words) {
            if (word < first || word > last) {
                continue;
            }
            // The last block that starts at or before the address.
            const auto after = std::upper_bound(
                blocks.begin(), blocks.end(), word,
                [](uintptr_t address, const block *each) { return address < each->start(); });
            const block *const found = *(after - 1);
            const auto index = static_cast<size_t>(after - 1 - blocks.begin());
            if (word - found->start() < std::max(found->size(), size_t{1}) && !is_held[index]) {
                is_held[index] = true;
                unread.emplace_back(reinterpret_cast<const uintptr_t *>(found + 1),
                                    found->size() / sizeof(uintptr_t));
            }
        }
    }
    const auto leak = std::find(is_held.begin(), is_held.end(), false);
    return leak == is_held.end()
               ? 0
               : std::max(blocks[static_cast<size_t>(leak - is_held.begin())]->size(), size_t{1});
}

} // namespace sim
