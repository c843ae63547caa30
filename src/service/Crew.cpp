#include "service/Crew.h"

#include <exception>
#include <utility>

#include "service/Loop.h"
#include "service/SignalsBlocked.h"

namespace postwire {

Crew::Crew(int loops, int least, int most, Answer answer)
    : m_least(static_cast<std::size_t>(least)),
      m_most(static_cast<std::size_t>(most)),
      m_answer(std::move(answer)) {
    m_loops.reserve(static_cast<std::size_t>(loops));
    m_threads.reserve(m_most);
}

Crew::~Crew() {
    end();
    for (std::thread& thread : m_threads) thread.join();
}

bool Crew::startOne() noexcept {
    std::lock_guard<std::mutex> const lock(m_mutex);
    return hire();
}

void Crew::drive(Loop& loop) noexcept {
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_loops.push_back(&loop);
    if (m_loops.size() > m_idle) hire();
    m_wanted.notify_one();
}

void Crew::answer(std::unique_ptr<Exchange> exchange) {
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_exchanges.push_back(std::move(exchange));
    if (m_exchanges.size() + m_loops.size() > m_idle && m_threads.size() < m_least) hire();
    m_wanted.notify_one();
}

bool Crew::isBehind() {
    std::lock_guard<std::mutex> const lock(m_mutex);
    return !m_exchanges.empty();
}

void Crew::grow() {
    std::lock_guard<std::mutex> const lock(m_mutex);
    if (m_taken == m_lastTaken)
        for (std::size_t i = m_exchanges.size(); i > 0 && m_threads.size() < m_most; --i) hire();
    m_lastTaken = m_taken;
}

void Crew::end() {
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_ended = true;
    m_wanted.notify_all();
}

// Where the system has no thread to give, what waits is done when one of ours is free.
bool Crew::hire() noexcept try {
    SignalsBlocked const blocked;
    m_threads.emplace_back(&Crew::work, this);
    ++m_idle;
    return true;
} catch (std::exception const&) {  // std::system_error or std::bad_alloc
    return false;
}

void Crew::work() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_wanted.wait(lock, [this] { return m_ended || !m_loops.empty() || !m_exchanges.empty(); });
        --m_idle;
        if (m_loops.empty() && m_exchanges.empty()) return;
        m_busy.fetch_add(1, std::memory_order_relaxed);
        if (!m_loops.empty()) {  // first: connections wait for it
            Loop& loop = *m_loops.front();
            m_loops.erase(m_loops.begin());
            lock.unlock();
            loop.drive();
        } else {
            std::unique_ptr<Exchange> exchange = std::move(m_exchanges.front());
            m_exchanges.pop_front();
            ++m_taken;
            lock.unlock();
            m_answer(std::move(exchange));
        }
        lock.lock();
        m_busy.fetch_sub(1, std::memory_order_relaxed);
        ++m_idle;
    }
}

}  // namespace postwire
