// The memory of one simulated process: counted, searched for what nobody holds any more, and all freed when the process
// ends.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace sim
{

enum class allocator { NEW, NEW_ARRAY, MALLOC };

class heap
{
public:
    heap() = default;
    heap(const heap &) = delete;
    heap &operator=(const heap &) = delete;
    ~heap() { free_all(); }

    void *allocate(size_t size, allocator from);
    // False when the memory isn't this process's, or came from another operator.
    [[nodiscard]] bool release(void *released, allocator by);
    void free_all();

    size_t count() const { return count_; }
    // The size of a block that neither the variables nor a block in use points to, 0 when there is none.
    size_t find_leak(std::span<const uint64_t> variables) const;

private:
    struct block;
    block *first_ = nullptr;
    size_t count_ = 0;
};

} // namespace sim
