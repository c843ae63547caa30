#pragma once

#include <algorithm>
#include <climits>
#include <cstring>
#include <random>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "foundation/ZULInputStream.h"

#include "support/Raised.h"

constexpr int kAllAtOnce = INT_MAX;
constexpr int kRandomSizes = 0;  // 1 to 16 bytes a read
constexpr int kReadSizes[] = {1, 2, 3, 5, 8, 16, kAllAtOnce};

// Hands out its bytes in pieces of at most `step`, whatever is asked for.
class FragmentingStream : public ZULInputStream {
public:
    explicit FragmentingStream(std::string bytes, int step = kAllAtOnce)
        : m_bytes(std::move(bytes)), m_step(step) {}

    using ZULInputStream::read;
    int read(char* bytes, int n) override {
        if (++m_reads == m_failAt) {
            if (n > 0) bytes[0] = '!';
            failStream();
        }
        if (n == 0) return 0;
        m_largest = std::max(m_largest, n);
        if (m_next == m_bytes.size()) return -1;
        int const step = m_step == kRandomSizes ? static_cast<int>(m_random() % 16 + 1) : m_step;
        std::size_t const given = std::min(
            {static_cast<std::size_t>(n), static_cast<std::size_t>(step), m_bytes.size() - m_next});
        std::memcpy(bytes, m_bytes.data() + m_next, given);
        m_next += given;
        return static_cast<int>(given);
    }

    // The nth read from now raises kStreamFailure, after it has written.
    void failAtRead(int nth) { m_failAt = m_reads + nth; }
    // More bytes behind those given, also after an end.
    void append(std::string const& bytes) { m_bytes += bytes; }

    std::string rest() const { return m_bytes.substr(m_next); }
    int reads() const { return m_reads; }
    int largestRequest() const { return m_largest; }

private:
    std::string m_bytes;
    std::size_t m_next = 0;
    int m_step;
    std::minstd_rand m_random;  // the same sizes in each run
    int m_reads = 0;
    int m_failAt = 0;
    int m_largest = 0;
};

// Calls body(step) for each of kReadSizes and for random ones.
template <class Body>
void forEachReadSize(Body const& body) {
    auto const run = [&](int step) {
        SCOPED_TRACE("read size " + std::to_string(step));
        body(step);
    };
    for (int const step : kReadSizes) run(step);
    run(kRandomSizes);
}
