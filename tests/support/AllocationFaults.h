#pragma once

#include <functional>

// Makes allocations fail: operator new in all its forms but those for over-aligned types, which
// nothing here has, and the calls of malloc and realloc
// that the libraries' own objects make. Only calls of the thread that runs a body count.

// Runs the body with its 1st, 2nd, ... allocation failing until a run meets no failure, first
// with that call alone, then with every call from it on. Only QOROutOfMemoryError and
// std::bad_alloc may come out of it, and it must leave as many live blocks as it found: what it
// builds it also destroys. Gives the number of allocations of the run without a failure.
int forEachFailingAllocation(std::function<void()> const& body);

// The number of allocations the body makes.
int allocationsOf(std::function<void()> const& body);

// The most bytes that the body's allocations hold at one time.
long peakHeapOf(std::function<void()> const& body);

// Suspends failing and counting inside a body: around an EXPECT, or around parts of a scenario
// that are not under test. What is allocated under a pause must be released under one.
class AllocationPause {
public:
    AllocationPause();
    ~AllocationPause();
    AllocationPause(AllocationPause const&) = delete;
    AllocationPause& operator=(AllocationPause const&) = delete;

private:
    bool m_armed;
};
