#pragma once

#include <chrono>

#include "foundation/ZULOutputStream.h"

// Passes on what is written, and shows on standard error how far it has come: a bar, the rate, and
// the time that is left at this rate.
class ProgressOutputStream : public ZULOutputStream {
public:
    // `total` is what will be written in all, as far as it is known. Nothing is shown unless
    // `visible`.
    ProgressOutputStream(ZULOutputStream& out, long long total, bool visible);
    ~ProgressOutputStream() override;

    void write(char const* data, int length) override;
    void flush() override;

    // Shows the end, and leaves the line.
    void close() override;

    long long bytesWritten() const { return m_written; }

private:
    using Clock = std::chrono::steady_clock;

    void show(Clock::time_point now);

    ZULOutputStream& m_out;
    long long m_total;
    bool m_visible;
    long long m_written = 0;
    Clock::time_point m_start = Clock::now();
    Clock::time_point m_shown = m_start;
};
