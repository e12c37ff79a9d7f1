// Bytes that many hold and nobody changes: a datagram on its way to all nodes, a message retained by brokers. The memory
// is exactly as large as they are, so that a sanitizer sees who reads past the end.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <span>
#include <string_view>
#include <utility>

namespace sim
{

class shared_bytes
{
public:
    shared_bytes() = default;
    shared_bytes(const void *bytes, size_t size)
    {
        if (size == 0) {
            return;
        }
        block_ = static_cast<block *>(malloc(sizeof(block) + size));
        if (block_ == nullptr) {
            throw std::bad_alloc();
        }
        *block_ = {1, static_cast<uint32_t>(size)};
        memcpy(block_ + 1, bytes, size);
    }
    explicit shared_bytes(std::string_view text) : shared_bytes(text.data(), text.size()) {}
    shared_bytes(const shared_bytes &other) : block_(other.block_)
    {
        if (block_ != nullptr) {
            block_->holders++;
        }
    }
    shared_bytes(shared_bytes &&other) noexcept : block_(std::exchange(other.block_, nullptr)) {}
    shared_bytes &operator=(shared_bytes other) noexcept
    {
        std::swap(block_, other.block_);
        return *this;
    }
    ~shared_bytes()
    {
        if (block_ != nullptr && --block_->holders == 0) {
            free(block_);
        }
    }

    size_t size() const { return block_ == nullptr ? 0 : block_->size; }
    bool empty() const { return block_ == nullptr; }
    const uint8_t *data() const
    {
        return block_ == nullptr ? nullptr : reinterpret_cast<uint8_t *>(block_ + 1);
    }
    std::span<const uint8_t> bytes() const { return {data(), size()}; }
    std::string_view text() const { return {reinterpret_cast<const char *>(data()), size()}; }
    bool operator==(const shared_bytes &other) const
    {
        return block_ == other.block_ || text() == other.text();
    }

private:
    struct block {
        uint32_t holders;
        uint32_t size;
    };
    block *block_ = nullptr;
};

} // namespace sim
