// What a test does to its own process; it needs one of its own.
#pragma once

#include <sys/resource.h>

// Moves the process into an empty network namespace of its own, in which it may do anything; false where the
// kernel forbids it.
bool enter_network_namespace();

// While it lives, no file or socket can be opened (errno 24).
class no_descriptors
{
public:
    no_descriptors();
    ~no_descriptors();
    no_descriptors(const no_descriptors &) = delete;
    no_descriptors &operator=(const no_descriptors &) = delete;

private:
    rlimit saved_;
};

// Interrupts blocking calls every 20 ms with a signal that has this handler.
void interrupt_calls(void (*handler)(int));
