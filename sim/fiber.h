// A program on a stack of its own, which can be left in the middle of a call and entered again.
#pragma once

#include <csetjmp>
#include <cstddef>
#include <ucontext.h>

namespace sim
{

class fiber
{
public:
    fiber() = default;
    fiber(const fiber &) = delete;
    fiber &operator=(const fiber &) = delete;
    ~fiber();

    // Makes the fiber ready to run from the start; whatever it was doing before is forgotten, not unwound.
    void prepare(void (*program)(void *argument), void *argument);
    // Runs it until it leaves or its program returns; false when that has returned.
    bool enter();
    // Called on the fiber: goes back to whoever entered it.
    void leave();

private:
    static void begin();
    void switch_to_fiber();
    void switch_to_caller();

    void *stack_ = nullptr;
    void (*program_)(void *argument) = nullptr;
    void *argument_ = nullptr;
    bool is_fresh_ = false;
    bool is_over_ = true;
    ucontext_t own_context_{};
    ucontext_t caller_context_{};
    [[maybe_unused]] jmp_buf own_registers_{};
    [[maybe_unused]] jmp_buf caller_registers_{};
    void *own_fake_stack_ = nullptr; // of the address sanitizer, as are these
    const void *caller_stack_ = nullptr;
    size_t caller_stack_size_ = 0;
};

} // namespace sim
