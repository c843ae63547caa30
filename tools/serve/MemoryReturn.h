#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

// Gives memory that large messages have left in the allocator back to the system, on a thread of
// its own, soon after they were answered: many small pieces stay there otherwise.
class MemoryReturn {
public:
    MemoryReturn() : m_thread(&MemoryReturn::run, this) {}
    MemoryReturn(MemoryReturn const&) = delete;
    MemoryReturn& operator=(MemoryReturn const&) = delete;
    ~MemoryReturn();

    // So many bytes were read and answered. From any thread.
    void answered(long long bytes);

private:
    void run();

    std::atomic<long long> m_bytes{0};
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_isWanted = false;  // under the mutex, like m_ends
    bool m_ends = false;
    std::thread m_thread;
};
