#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>

// Accepted connections on their way to a worker. Its size is bounded: what does not fit waits in
// the system's own queue, where it costs the server nothing.
//
// Ownership: owns the descriptors it holds; the ones taken are the taker's.
class ConnectionQueue {
public:
    explicit ConnectionQueue(std::size_t capacity) : m_capacity(capacity) {}
    ConnectionQueue(ConnectionQueue const&) = delete;
    ConnectionQueue& operator=(ConnectionQueue const&) = delete;
    ~ConnectionQueue();

    // False when there was no room within the time; the descriptor is then still the caller's.
    bool offer(int descriptor, std::chrono::milliseconds wait);

    // Waits for a connection; -1 after close, when none is left.
    int take();

    // No more will be offered.
    void close();

    // Whether a connection waits that no one waits for. Asked for every answer, so without the
    // lock.
    bool crowded() const { return m_crowded.load(std::memory_order_relaxed); }

private:
    // With the lock held, after every change.
    void update();

    std::size_t const m_capacity;
    std::mutex m_mutex;
    std::condition_variable m_room;
    std::condition_variable m_offered;  // or closed
    std::deque<int> m_descriptors;
    std::size_t m_takers = 0;
    std::atomic<bool> m_crowded{false};
    bool m_closed = false;
};
