// A file with given content that goes away at the end of its scope.
#pragma once

#include <cstdlib>
#include <string>
#include <string_view>
#include <unistd.h>

class temp_file
{
public:
    explicit temp_file(std::string_view content)
    {
        const int fd = mkstemp(path_.data());
        if (fd == -1 || write(fd, content.data(), content.size()) != static_cast<ssize_t>(content.size()) ||
            close(fd) == -1) {
            abort();
        }
    }
    ~temp_file() { unlink(path_.c_str()); }
    temp_file(const temp_file &) = delete;
    temp_file &operator=(const temp_file &) = delete;

    const char *path() const { return path_.c_str(); }

private:
    std::string path_ = "/tmp/diag-test-XXXXXX";
};
