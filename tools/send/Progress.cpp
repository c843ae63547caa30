#include "tools/send/Progress.h"

#include <algorithm>
#include <cstdio>
#include <string>

namespace {

constexpr int kBarWidth = 30;
constexpr std::chrono::milliseconds kInterval{100};
constexpr double kLongestShown = 999 * 60 + 59;  // seconds; before the first byte it is for ever

}  // namespace

Progress::Progress(long long total) : m_total(static_cast<double>(std::max(total, 1LL))) {
    show("");
}

Progress::~Progress() {
    if (!m_waits) show("");
    std::fputc('\n', stderr);
}

void Progress::operator()(postwire::ClientProgress const& now) {
    if (m_waits) return;
    m_sent = static_cast<double>(now.sent);
    m_waits = now.allSent;
    if (m_waits) return show("  waiting for the answer");
    if (Clock::now() - m_shown >= kInterval) show("");
}

void Progress::show(char const* state) {
    m_shown = Clock::now();
    double const seconds = std::max(std::chrono::duration<double>(m_shown - m_start).count(), 1e-3);
    double const rate = m_sent / seconds;
    double const done = std::min(1.0, m_sent / m_total);
    double const left = std::clamp((m_total - m_sent) / rate, 0.0, kLongestShown);
    std::string bar(static_cast<std::size_t>(done * kBarWidth), '#');
    bar.resize(kBarWidth, '.');
    std::fprintf(stderr, "\r[%s] %3.0f %%  %7.1f MB/s  %d:%02d left%s ", bar.c_str(), done * 100,
                 rate / 1e6, static_cast<int>(left) / 60, static_cast<int>(left) % 60, state);
    std::fflush(stderr);
}
