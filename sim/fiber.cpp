// The C library's checked longjmp takes another stack for a destroyed one.
#undef _FORTIFY_SOURCE
#include "fiber.h"

#include <sys/mman.h>

#include <new>
#include <vector>

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#endif

namespace sim
{

namespace
{

#ifdef __SANITIZE_ADDRESS__
constexpr size_t STACK_SIZE = 256 * 1024;
#else
constexpr size_t STACK_SIZE = size_t{128} * 1024;
#endif
constexpr size_t GUARD_SIZE = 4096;

fiber *beginning; // makecontext hands over no pointers
std::vector<void *> unused_stacks;

void *take_stack()
{
    if (!unused_stacks.empty()) {
        void *const taken = unused_stacks.back();
        unused_stacks.pop_back();
        return taken;
    }
    void *const made = mmap(nullptr, STACK_SIZE + GUARD_SIZE, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (made == MAP_FAILED) {
        throw std::bad_alloc();
    }
    mprotect(made, GUARD_SIZE, PROT_NONE);
    return made;
}

} // namespace

fiber::~fiber()
{
    if (stack_ != nullptr) {
        unused_stacks.push_back(stack_);
    }
}

void fiber::prepare(void (*program)(void *argument), void *argument)
{
    if (stack_ == nullptr) {
        stack_ = take_stack();
    }
#ifdef __SANITIZE_ADDRESS__
    __asan_unpoison_memory_region(static_cast<char *>(stack_) + GUARD_SIZE, STACK_SIZE);
#endif
    program_ = program;
    argument_ = argument;
    is_fresh_ = true;
    is_over_ = false;
    getcontext(&own_context_);
    own_context_.uc_stack.ss_sp = static_cast<char *>(stack_) + GUARD_SIZE;
    own_context_.uc_stack.ss_size = STACK_SIZE;
    own_context_.uc_link = nullptr;
    makecontext(&own_context_, begin, 0);
}

void fiber::begin()
{
    fiber *const self = beginning;
#ifdef __SANITIZE_ADDRESS__
    __sanitizer_finish_switch_fiber(nullptr, &self->caller_stack_, &self->caller_stack_size_);
#endif
    self->program_(self->argument_);
    self->is_over_ = true;
    self->switch_to_caller();
}

bool fiber::enter()
{
    switch_to_fiber();
    return !is_over_;
}

void fiber::leave()
{
    switch_to_caller();
}

#ifdef __SANITIZE_ADDRESS__

void fiber::switch_to_fiber()
{
    beginning = this;
    void *fake_stack = nullptr;
    __sanitizer_start_switch_fiber(&fake_stack, static_cast<char *>(stack_) + GUARD_SIZE, STACK_SIZE);
    swapcontext(&caller_context_, &own_context_);
    __sanitizer_finish_switch_fiber(fake_stack, nullptr, nullptr);
}

void fiber::switch_to_caller()
{
    __sanitizer_start_switch_fiber(is_over_ ? nullptr : &own_fake_stack_, caller_stack_, caller_stack_size_);
    swapcontext(&own_context_, &caller_context_);
    __sanitizer_finish_switch_fiber(own_fake_stack_, &caller_stack_, &caller_stack_size_);
}

#else

// swapcontext saves the signal mask, two system calls for each switch: it only begins a fiber.
void fiber::switch_to_fiber()
{
    if (_setjmp(caller_registers_) != 0) {
        return;
    }
    if (is_fresh_) {
        is_fresh_ = false;
        beginning = this;
        setcontext(&own_context_);
    }
    _longjmp(own_registers_, 1);
}

void fiber::switch_to_caller()
{
    if (_setjmp(own_registers_) == 0) {
        _longjmp(caller_registers_, 1);
    }
}

#endif

} // namespace sim
