#include "common/fileutils.h"

#include "common/lumlog.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace
{

constexpr const char *log_source = "common/fileutils.c";

constexpr int REGISTER_LENGTH = 4;

// Reads exactly the first length bytes of the file, no more: reading a device's file may have effects.
int read_start(const char *path, char *buffer, int length)
{
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd == -1) {
        return log_component_failure(LUMLOG_LUMLOG, "couldn't open file %s for reading", path);
    }
    int count = 0;
    while (count < length) {
        const ssize_t result = read(fd, buffer + count, static_cast<size_t>(length - count));
        if (result <= 0) {
            break;
        }
        count += static_cast<int>(result);
    }
    if (close(fd) == -1) {
        return log_component_failure(LUMLOG_LUMLOG, "error closing file %s", path);
    }
    if (count < length) {
        return log_component_failure(LUMLOG_LUMLOG, "error reading from file %s (read %d bytes, expected %d)",
                                     path, count, length);
    }
    return 0;
}

} // namespace

int fileutils_read_gpio(const char *path)
{
    if (path == nullptr) {
        return log_component_failure(LUMLOG_LUMLOG, "no path specified");
    }
    char value = 0;
    if (read_start(path, &value, 1) == -1) {
        return -1;
    }
    if (value != '0' && value != '1') {
        return log_component_failure(LUMLOG_LUMLOG, "value read (%c) is not 0 or 1", value);
    }
    return value - '0';
}

int fileutils_read_register_u8(const char *path, uint8_t *value_out)
{
    if (path == nullptr) {
        return log_component_failure(LUMLOG_LUMLOG, "no path specified");
    }
    if (value_out == nullptr) {
        return log_component_failure(LUMLOG_LUMLOG, "no value destination specified");
    }
    char text[REGISTER_LENGTH + 1] = {};
    if (read_start(path, text, REGISTER_LENGTH) == -1) {
        return -1;
    }
    char *end = nullptr;
    errno = 0;
    const unsigned long value = strtoul(text, &end, 0);
    if (errno != 0 || end != text + REGISTER_LENGTH) {
        return log_component_failure(
            LUMLOG_LUMLOG, "error converting string \"%s\" to unsigned long (errno %d)", text, errno);
    }
    *value_out = static_cast<uint8_t>(value);
    return 0;
}
