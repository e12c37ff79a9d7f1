// How a command ends that can't do what was asked: main() prints the reason, once, and gives the status to
// the shell.
#pragma once

#include <stdexcept>
#include <string>

enum exit_status {
    STATUS_SUCCESS = 0,
    STATUS_FAILURE = 1,   // refused or failed
    STATUS_USAGE = 2,     // wrong usage
    STATUS_NO_BROKER = 3, // no broker, or no answer from it or from the daemon
};

// The reason is what stands behind "diagctl: "; a second line says what to do.
class failure : public std::runtime_error
{
public:
    failure(exit_status code, const std::string &reason) : std::runtime_error(reason), status(code) {}
    exit_status status;
};
