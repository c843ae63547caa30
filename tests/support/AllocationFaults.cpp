#include "support/AllocationFaults.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <utility>

#include <gtest/gtest.h>
#include <malloc.h>

#include "foundation/QORThrowable.h"

// The linker sends the calls in our own objects to __wrap_..., and gives the libc's as __real_...
extern "C" {
void* __real_malloc(std::size_t size);
void* __real_realloc(void* block, std::size_t size);
void __real_free(void* block);
void* __wrap_malloc(std::size_t size);
void* __wrap_realloc(void* block, std::size_t size);
void __wrap_free(void* block);
}

namespace {

struct Faults {
    bool armed = false;
    int failAt = 0;  // 0: none fails
    bool onwards = false;
    int calls = 0;
    long bytes = 0;
    long peak = 0;
};
thread_local Faults t_faults;

bool failsNow() {
    Faults& f = t_faults;
    if (!f.armed) return false;
    ++f.calls;
    return f.failAt > 0 && (f.onwards ? f.calls >= f.failAt : f.calls == f.failAt);
}

// The room of a block counts, which is a little more than what was asked for.
void count(void* block, int sign) {
    Faults& f = t_faults;
    if (!block || !f.armed) return;
    f.bytes += sign * static_cast<long>(malloc_usable_size(block));
    f.peak = std::max(f.peak, f.bytes);
}

void release(void* block) {
    count(block, -1);
    __real_free(block);
}

void* allocate(std::size_t size) {
    if (failsNow()) return nullptr;
    void* const block = __real_malloc(size > 0 ? size : 1);
    count(block, 1);
    return block;
}

// What the body's allocations were, those that failed included.
template <class Body>
Faults watched(Body const& body, int failAt = 0, bool onwards = false) {
    struct Disarming {
        ~Disarming() { t_faults.armed = false; }
    } const disarming;
    t_faults = {true, failAt, onwards, 0, 0, 0};
    body();
    return t_faults;
}

// One run; the calls it made.
int callsWithFailure(std::function<void()> const& body, int failAt, bool onwards) {
    SCOPED_TRACE("allocation " + std::to_string(failAt) + (onwards ? " and all later" : ""));
    bool outOfMemory = false;
    auto const run = [&] {
        try {
            body();
        } catch (QOROutOfMemoryError const& e) {
            EXPECT_EQ(0, e.getCode());
            outOfMemory = true;
        } catch (std::bad_alloc const&) {
            outOfMemory = true;
        }
    };
    Faults const seen = watched(run, failAt, onwards);
    EXPECT_EQ(0, seen.bytes) << "left behind";
    EXPECT_TRUE(!outOfMemory || seen.calls >= failAt) << "raised, though no allocation failed";
    return seen.calls;
}

}  // namespace

int forEachFailingAllocation(std::function<void()> const& body) {
    int allocations = 0;
    for (bool const onwards : {false, true})
        for (int failAt = 1; !::testing::Test::HasFailure(); ++failAt) {
            allocations = callsWithFailure(body, failAt, onwards);
            if (allocations < failAt) break;
        }
    return allocations;
}

int allocationsOf(std::function<void()> const& body) { return watched(body).calls; }
long peakHeapOf(std::function<void()> const& body) { return watched(body).peak; }

AllocationPause::AllocationPause() : m_armed(std::exchange(t_faults.armed, false)) {}
AllocationPause::~AllocationPause() { t_faults.armed = m_armed; }

void* __wrap_malloc(std::size_t size) { return allocate(size); }

void* __wrap_realloc(void* block, std::size_t size) {
    if (failsNow()) return nullptr;
    count(block, -1);
    void* const moved = __real_realloc(block, size);
    count(moved ? moved : block, 1);
    return moved;
}

void __wrap_free(void* block) { release(block); }

void* operator new(std::size_t n) {
    if (void* const block = allocate(n)) return block;
    throw std::bad_alloc();
}
void* operator new[](std::size_t n) { return operator new(n); }
void* operator new(std::size_t n, std::nothrow_t const&) noexcept { return allocate(n); }
void* operator new[](std::size_t n, std::nothrow_t const&) noexcept { return allocate(n); }
void operator delete(void* p) noexcept { release(p); }
void operator delete[](void* p) noexcept { release(p); }
void operator delete(void* p, std::size_t) noexcept { release(p); }
void operator delete[](void* p, std::size_t) noexcept { release(p); }
void operator delete(void* p, std::nothrow_t const&) noexcept { release(p); }
void operator delete[](void* p, std::nothrow_t const&) noexcept { release(p); }
