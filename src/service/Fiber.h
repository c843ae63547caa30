#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

#include <ucontext.h>

namespace postwire {

// Memory for stacks, each behind a page that can't be touched, kept for the next to want one.
//
// Rule: used by one thread.
class StackPool {
public:
    StackPool() = default;
    StackPool(StackPool const&) = delete;
    StackPool& operator=(StackPool const&) = delete;
    ~StackPool();

    static std::size_t const kSize;

    // The lowest usable byte of a stack; raises std::bad_alloc.
    char* take();
    void giveBack(char* stack) noexcept;

private:
    std::vector<char*> m_free;
};

// A function on a stack of its own, which may stop in the middle to be resumed later.
//
// Ownership: borrows the pool. A fiber is only deleted when its function has returned.
// Rule: a fiber stays on the thread that made it. It is suspended neither within a catch nor while
//   a stack is unwound: the C++ runtime keeps what is being handled for each thread, not for each
//   stack. What the function raises must not leave it.
class Fiber {
public:
    Fiber(StackPool& pool, std::function<void(Fiber&)> function);
    Fiber(Fiber const&) = delete;
    Fiber& operator=(Fiber const&) = delete;
    ~Fiber();

    // Runs the function until it suspends or returns; true when it has returned.
    bool resume();

    // For the function: back to where it was resumed, until it is again.
    void suspend();

private:
    static void enter(unsigned int first, unsigned int second);
    void arrive();
    void leave(bool forEver);

    StackPool& m_pool;
    char* m_stack;
    std::function<void(Fiber&)> m_function;
    ucontext_t m_own;
    ucontext_t m_caller;
    bool m_returned = false;
    // What the sanitizers are told of the two stacks; null without them.
    [[maybe_unused]] void* m_ownShadow = nullptr;
    [[maybe_unused]] void* m_callerShadow = nullptr;
    [[maybe_unused]] void const* m_callerStack = nullptr;
    [[maybe_unused]] std::size_t m_callerSize = 0;
    [[maybe_unused]] void* m_threadFiber = nullptr;
    [[maybe_unused]] void* m_threadCaller = nullptr;
};

}  // namespace postwire
