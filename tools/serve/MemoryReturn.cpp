#include "tools/serve/MemoryReturn.h"

#include <chrono>

#include <malloc.h>

namespace {

constexpr long long kWorthIt = 4 << 20;
// For other messages to be done, too.
constexpr std::chrono::milliseconds kPatience{200};

}  // namespace

MemoryReturn::~MemoryReturn() {
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        m_ends = true;
    }
    m_changed.notify_one();
    m_thread.join();
}

void MemoryReturn::answered(long long bytes) {
    if (m_bytes.fetch_add(bytes, std::memory_order_relaxed) + bytes < kWorthIt) return;
    m_bytes.store(0, std::memory_order_relaxed);
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        m_isWanted = true;
    }
    m_changed.notify_one();
}

void MemoryReturn::run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_changed.wait(lock, [this] { return m_ends || m_isWanted; });
        if (m_changed.wait_for(lock, kPatience, [this] { return m_ends; })) return;
        m_isWanted = false;
        lock.unlock();
        ::malloc_trim(0);
        lock.lock();
    }
}
