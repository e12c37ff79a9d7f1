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

enum class allocator : uint8_t { NEW, NEW_ARRAY, MALLOC };

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

    size_t count() const { return blocks_.size(); }
    // The size of a block that neither the variables nor a block in use points to, 0 when there is none.
    size_t find_leak(std::span<const uintptr_t> variables) const;

private:
    struct block;
    // Small blocks come from chunks, those of a size from a run of their own: what a process walks through lies in a row.
    // With hundreds of processes in one memory their lists would otherwise miss every cache. Sanitizers see single blocks.
    static constexpr size_t UNIT = 16;
    static constexpr size_t SMALL = 1536;
    static constexpr size_t FIRST_RUN = 4; // blocks; each run of a size is twice as long as the last
    struct run {
        void *free = nullptr; // begins with the address of the next one
        char *next = nullptr; // not used yet
        char *end = nullptr;
        size_t length = FIRST_RUN;
    };
    void *take(size_t size);
    void give_back(void *taken, size_t size);
    void begin_run(run &begun, size_t size);

    std::vector<block *> blocks_;
    std::vector<void *> chunks_;
    size_t chunk_left_ = 0; // of the last one
    std::array<run, SMALL / UNIT + 1> runs_{};
};

} // namespace sim
