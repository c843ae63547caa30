#include "tools/serve/ConnectionQueue.h"

#include <unistd.h>

ConnectionQueue::~ConnectionQueue() {
    for (int const descriptor : m_descriptors) ::close(descriptor);
}

bool ConnectionQueue::offer(int descriptor, std::chrono::milliseconds wait) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_room.wait_for(lock, wait, [this] { return m_descriptors.size() < m_capacity; }))
        return false;
    m_descriptors.push_back(descriptor);
    update();
    m_offered.notify_one();
    return true;
}

int ConnectionQueue::take() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_offered.wait(lock, [this] { return m_closed || !m_descriptors.empty(); });
    if (m_descriptors.empty()) return -1;
    --m_idleTakers;
    int const descriptor = m_descriptors.front();
    m_descriptors.pop_front();
    update();
    m_room.notify_one();
    return descriptor;
}

void ConnectionQueue::done() {
    std::lock_guard<std::mutex> const lock(m_mutex);
    ++m_idleTakers;
    update();
}

void ConnectionQueue::close() {
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_closed = true;
    m_offered.notify_all();
}

void ConnectionQueue::update() {
    m_crowded.store(m_descriptors.size() > m_idleTakers, std::memory_order_relaxed);
}
