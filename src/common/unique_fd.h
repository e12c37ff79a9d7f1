// A file descriptor that closes itself at the end of its scope.
#pragma once

#include <unistd.h>

#include <utility>

class unique_fd
{
public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    ~unique_fd() { reset(); }
    unique_fd(unique_fd &&other) noexcept : fd_(other.release()) {}
    unique_fd &operator=(unique_fd &&other) noexcept
    {
        reset(other.release());
        return *this;
    }

    int get() const { return fd_; }
    bool is_open() const { return fd_ != -1; }
    // Hands the descriptor to the caller, who closes it from now on.
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1)
    {
        if (is_open()) {
            close(fd_);
        }
        fd_ = fd;
    }

private:
    int fd_ = -1;
};
