#pragma once

#include <atomic>
#include <cstddef>

namespace postwire {

// Memory that all connections share, counted in bytes.
class Budget {
public:
    explicit Budget(std::size_t bytes) : m_left(bytes) {}

    // Takes all or nothing.
    bool take(std::size_t bytes) {
        std::size_t left = m_left.load(std::memory_order_relaxed);
        while (left >= bytes)
            if (m_left.compare_exchange_weak(left, left - bytes, std::memory_order_relaxed))
                return true;
        return false;
    }

    [[nodiscard]] std::size_t left() const { return m_left.load(std::memory_order_relaxed); }

    void giveBack(std::size_t bytes) { m_left.fetch_add(bytes, std::memory_order_relaxed); }

private:
    std::atomic<std::size_t> m_left;
};

}  // namespace postwire
