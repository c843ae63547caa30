#pragma once

#include <chrono>

#include "service/ClientOptions.h"

// Shows on standard error how far an upload has come: a bar, the rate, the time that is left at
// this rate, and behind all of it what is waited for. The line ends when this does.
class Progress {
public:
    // `total` is what will be sent, as far as it is known.
    explicit Progress(long long total);
    Progress(Progress const&) = delete;
    Progress& operator=(Progress const&) = delete;
    ~Progress();

    void operator()(postwire::ClientProgress const& now);

private:
    using Clock = std::chrono::steady_clock;

    void show(char const* state);

    double const m_total;
    double m_sent = 0;
    bool m_waits = false;
    Clock::time_point m_start = Clock::now();
    Clock::time_point m_shown = m_start;
};
