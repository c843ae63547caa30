#include "service/ConnectionPool.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace postwire {

// What is dropped is closed when the lock is free again.
std::unique_ptr<ClientConnection> ConnectionPool::take(std::string const& origin) {
    List dropped;
    std::lock_guard<std::mutex> const lock(m_mutex);
    dropOld(dropped);
    for (;;) {
        auto const last = std::find_if(m_waiting.rbegin(), m_waiting.rend(),
                                       [&](auto const& one) { return one->origin == origin; });
        if (last == m_waiting.rend()) return nullptr;
        auto const at = std::next(last).base();
        if (!(*at)->socket.isStale()) {
            std::unique_ptr<ClientConnection> connection = std::move(*at);
            m_waiting.erase(at);
            return connection;
        }
        dropped.splice(dropped.end(), m_waiting, at);
    }
}

void ConnectionPool::giveBack(std::unique_ptr<ClientConnection> connection) {
    List dropped;
    connection->since = std::chrono::steady_clock::now();
    std::lock_guard<std::mutex> const lock(m_mutex);
    std::string const& origin = connection->origin;
    auto const isOfOrigin = [&](auto const& one) { return one->origin == origin; };
    auto const ofOrigin = std::count_if(m_waiting.begin(), m_waiting.end(), isOfOrigin);
    if (ofOrigin >= m_options.keptOfOrigin && ofOrigin > 0)
        dropped.splice(dropped.end(), m_waiting,
                       std::find_if(m_waiting.begin(), m_waiting.end(), isOfOrigin));
    m_waiting.push_back(std::move(connection));
    if (m_options.keptOfOrigin <= 0)
        dropped.splice(dropped.end(), m_waiting, std::prev(m_waiting.end()));
    dropOld(dropped);
}

void ConnectionPool::dropOld(List& dropped) {
    auto const oldest = std::chrono::steady_clock::now() - m_options.keptFor;
    auto const most = static_cast<std::size_t>(std::max(m_options.kept, 0));
    while (!m_waiting.empty() && (m_waiting.size() > most || m_waiting.front()->since < oldest))
        dropped.splice(dropped.end(), m_waiting, m_waiting.begin());
}

}  // namespace postwire
