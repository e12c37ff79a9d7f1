#include "heap.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace sim
{

struct alignas(std::max_align_t) heap::block {
    block *previous;
    block *next;
    size_t size;
    heap *owner;
    allocator from;

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

} // namespace

void *heap::take(size_t size)
{
    if (!USES_CHUNKS || size > SMALL) {
        return malloc(size);
    }
    const size_t units = (size + UNIT - 1) / UNIT;
    if (void *const found = free_[units]; found != nullptr) {
        memcpy(&free_[units], found, sizeof found); // a free block begins with the address of the next one
        return found;
    }
    if (chunk_used_ + units * UNIT > CHUNK) {
        chunks_.push_back(malloc(CHUNK));
        chunk_used_ = 0;
    }
    chunk_used_ += units * UNIT;
    return static_cast<char *>(chunks_.back()) + chunk_used_ - units * UNIT;
}

void heap::give_back(void *taken, size_t size)
{
    if (!USES_CHUNKS || size > SMALL) {
        free(taken);
        return;
    }
    void *&first = free_[(size + UNIT - 1) / UNIT];
    memcpy(taken, &first, sizeof first);
    first = taken;
}

void *heap::allocate(size_t size, allocator from)
{
    auto *const added = static_cast<block *>(take(sizeof(block) + size));
    *added = {nullptr, first_, size, this, from};
    memset(added + 1, FRESH, size);
    if (first_ != nullptr) {
        first_->previous = added;
    }
    first_ = added;
    count_++;
    return added + 1;
}

bool heap::release(void *released, allocator by)
{
    block *const held = static_cast<block *>(released) - 1;
    if (held->owner != this || held->from != by) {
        return false;
    }
    (held->previous == nullptr ? first_ : held->previous->next) = held->next;
    if (held->next != nullptr) {
        held->next->previous = held->previous;
    }
    held->owner = nullptr;
    count_--;
    give_back(held, sizeof(block) + held->size);
    return true;
}

void heap::free_all()
{
    while (first_ != nullptr) {
        block *const next = first_->next;
        give_back(first_, sizeof(block) + first_->size);
        first_ = next;
    }
    std::ranges::for_each(chunks_, free);
    chunks_.clear();
    chunk_used_ = CHUNK;
    free_.fill(nullptr);
    count_ = 0;
}

size_t heap::find_leak(std::span<const uintptr_t> variables) const
{
    std::vector<const block *> blocks;
    for (const block *each = first_; each != nullptr; each = each->next) {
        blocks.push_back(each);
    }
    std::sort(blocks.begin(), blocks.end());
    if (blocks.empty()) {
        return 0;
    }
    const uintptr_t first = blocks.front()->start();
    const uintptr_t last = blocks.back()->start() + blocks.back()->size;
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
            if (word - found->start() < std::max(found->size, size_t{1}) && !is_held[index]) {
                is_held[index] = true;
                unread.emplace_back(reinterpret_cast<const uintptr_t *>(found + 1),
                                    found->size / sizeof(uintptr_t));
            }
        }
    }
    const auto leak = std::find(is_held.begin(), is_held.end(), false);
    return leak == is_held.end()
               ? 0
               : std::max(blocks[static_cast<size_t>(leak - is_held.begin())]->size, size_t{1});
}

} // namespace sim
