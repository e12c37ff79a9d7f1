#include "node_log.h"

#include "common/unique_fd.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>

namespace
{

constexpr char DEVICE[] = "/dev/log";
constexpr size_t MESSAGE_MAX = 65536;
// "Mar  1 12:00:00 ", put before each message by the sender's C library; the log has a finer time.
constexpr size_t SENDER_TIME_SIZE = 16;

constexpr const char *FACILITIES[] = {"kern",   "user",   "mail",   "daemon", "auth",     "syslog",
                                      "lpr",    "news",   "uucp",   "cron",   "authpriv", "ftp",
                                      "ntp",    "audit",  "alert",  "clock",  "local0",   "local1",
                                      "local2", "local3", "local4", "local5", "local6",   "local7"};
constexpr const char *SEVERITIES[] = {"emerg", "alert", "crit", "err", "warning", "notice", "info", "debug"};

int device_fd = -1;
int file_fd = -1;

// Cuts the leading "<187>" and gives its name, "local7.err".
std::string take_priority(std::string_view &message)
{
    unsigned priority = 0;
    if (!message.starts_with('<')) {
        return "-";
    }
    const char *end = message.data() + message.size();
    auto [after, error] = std::from_chars(message.data() + 1, end, priority);
    if (error != std::errc() || after == end || *after != '>' || priority / 8 >= std::size(FACILITIES)) {
        return "-";
    }
    message.remove_prefix(static_cast<size_t>(after + 1 - message.data()));
    return std::string(FACILITIES[priority / 8]) + '.' + SEVERITIES[priority % 8];
}

std::string time_text()
{
    timeval time = {};
    gettimeofday(&time, nullptr);
    tm local = {};
    localtime_r(&time.tv_sec, &local);
    char seconds[32] = "";
    strftime(seconds, sizeof seconds, "%F %T", &local);
    char text[64];
    snprintf(text, sizeof text, "%s.%06ld", seconds, static_cast<long>(time.tv_usec));
    return text;
}

} // namespace

int node_log_open(const char *path)
{
    unlink(DEVICE);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, DEVICE, sizeof DEVICE);
    unique_fd device(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    unique_fd file(open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
    if (!file.is_open() || !device.is_open() ||
        bind(device.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == -1) {
        return -1;
    }
    file_fd = file.release();
    device_fd = device.release();
    return device_fd;
}

void node_log_receive()
{
    static char buffer[MESSAGE_MAX];
    ssize_t received;
    while ((received = recv(device_fd, buffer, sizeof buffer, 0)) >= 0) {
        std::string_view message(buffer, static_cast<size_t>(received));
        while (message.ends_with('\n') || message.ends_with('\0')) {
            message.remove_suffix(1);
        }
        std::string priority = take_priority(message);
        if (message.size() >= SENDER_TIME_SIZE && message[SENDER_TIME_SIZE - 1] == ' ' &&
            message[SENDER_TIME_SIZE - 4] == ':') {
            message.remove_prefix(SENDER_TIME_SIZE);
        }
        std::string line = time_text() + ' ' + priority + ' ';
        line.append(message);
        line += '\n';
        if (write(file_fd, line.data(), line.size()) == -1) {
            perror("card: node log");
        }
    }
}
