#include "tools/ConnectionQueue.h"

#include <unistd.h>

ConnectionQueue::~ConnectionQueue() {
    for (int const descriptor : m_descriptors) ::close(descriptor);
}

bool ConnectionQueue::offer(int descriptor, std::chrono::milliseconds wait) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_changed.wait_for(lock, wait, [this] { return m_descriptors.size() < m_capacity; }))
        return false;
    m_descriptors.push_back(descriptor);
    m_size.store(m_descriptors.size(), std::memory_order_relaxed);
    m_changed.notify_all();
    return true;
}

int ConnectionQueue::take() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [this] { return m_closed || !m_descriptors.empty(); });
    if (m_descriptors.empty()) return -1;
    int const descriptor = m_descriptors.front();
    m_descriptors.pop_front();
    m_size.store(m_descriptors.size(), std::memory_order_relaxed);
    m_changed.notify_all();
    return descriptor;
}

void ConnectionQueue::close() {
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_closed = true;
    m_changed.notify_all();
}
