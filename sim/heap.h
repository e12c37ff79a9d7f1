// The memory of one simulated process: counted, searched for what nobody holds any more, and all freed when the process
// ends.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

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
    size_t find_leak(std::span<const uintptr_t> variables) const;

private:
    struct block;
    // Small blocks come from chunks, so that what one process walks through lies close together: with hundreds of
    // processes in one memory their lists would otherwise miss every cache. Sanitizers see single blocks.
    static constexpr size_t UNIT = 16;
    static constexpr size_t SMALL = 1536;
    static constexpr size_t CHUNK = 32 * 1024;
    void *take(size_t size);
    void give_back(void *taken, size_t size);

    block *first_ = nullptr;
    size_t count_ = 0;
    std::vector<void *> chunks_;
    size_t chunk_used_ = CHUNK; // of the last one
    std::array<void *, SMALL / UNIT + 1> free_{};
};

} // namespace sim
