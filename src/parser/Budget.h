#pragma once

#include <limits>

#include "parser/ParseError.h"

namespace postwire::internal {

// What is left of a limit, and the error that its end raises.
class Budget {
public:
    using Code = HTTPPolicyException::PolicyErrorCode;

    // 0: no limit.
    Budget(int limit, Code exceeded)
        : m_left(limit > 0 ? limit : std::numeric_limits<long long>::max()), m_exceeded(exceeded) {}

    long long left() const { return m_left; }

    // Before n more are taken: their memory, or the wait for them, is not spent in vain.
    void require(long long n) const {
        if (n > m_left) raiseExceeded();
    }
    void take(long long n) {
        require(n);
        m_left -= n;
    }

    // False, and nothing taken, where fewer than n are left.
    bool takeIfLeft(long long n) {
        if (n > m_left) return false;
        m_left -= n;
        return true;
    }

    [[noreturn]] void raiseExceeded() const {
        refuse(m_exceeded, QORFileLocation("Budget", __LINE__));
    }

private:
    long long m_left;
    Code m_exceeded;
};

}  // namespace postwire::internal
