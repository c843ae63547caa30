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
    // A taker that has not asked yet, as its thread is only just being started, counts as one that
    // waits.
    ConnectionQueue(std::size_t capacity, std::size_t takers)
        : m_capacity(capacity), m_idleTakers(takers) {}
    ConnectionQueue(ConnectionQueue const&) = delete;
    ConnectionQueue& operator=(ConnectionQueue const&) = delete;
    ~ConnectionQueue();

    // False when there was no room within the time; the descriptor is then still the caller's.
    bool offer(int descriptor, std::chrono::milliseconds wait);

    // Waits for a connection; -1 after close, when none is left.
    int take();

    // To be called by its taker when it's through with a connection.
    void done();

    // No more will be offered.
    void close();

    // Whether a connection waits that no one is free for. Asked for every answer, so without the
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
    std::size_t m_idleTakers;
    std::atomic<bool> m_crowded{false};
    bool m_closed = false;
};
