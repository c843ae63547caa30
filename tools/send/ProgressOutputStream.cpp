#include "tools/send/ProgressOutputStream.h"

#include <algorithm>
#include <cstdio>
#include <string>

namespace {

constexpr int kPiece = 65536;
constexpr int kBarWidth = 30;
constexpr std::chrono::milliseconds kInterval{100};
constexpr double kLongestShown = 999 * 60 + 59;  // seconds; before the first byte it is for ever

}  // namespace

ProgressOutputStream::ProgressOutputStream(ZULOutputStream& out, long long total, bool visible)
    : m_out(out), m_total(std::max(total, 1LL)), m_visible(visible) {}

ProgressOutputStream::~ProgressOutputStream() = default;

void ProgressOutputStream::write(char const* data, int length) {
    while (length > 0) {
        int const piece = std::min(length, kPiece);
        m_out.write(data, piece);
        m_written += piece;
        data += piece;
        length -= piece;
        Clock::time_point const now = Clock::now();
        if (m_visible && now - m_shown >= kInterval) show(now);
    }
}

void ProgressOutputStream::flush() { m_out.flush(); }

void ProgressOutputStream::close() {
    if (!m_visible) return;
    show(Clock::now());
    std::fputc('\n', stderr);
}

void ProgressOutputStream::show(Clock::time_point now) {
    m_shown = now;
    double const seconds = std::max(std::chrono::duration<double>(now - m_start).count(), 1e-3);
    double const rate = static_cast<double>(m_written) / seconds;
    double const done =
        std::min(1.0, static_cast<double>(m_written) / static_cast<double>(m_total));
    double const left =
        std::clamp(static_cast<double>(m_total - m_written) / rate, 0.0, kLongestShown);
    std::string bar(static_cast<std::size_t>(done * kBarWidth), '#');
    bar.resize(kBarWidth, '.');
    std::fprintf(stderr, "\r[%s] %3.0f %%  %7.1f MB/s  %d:%02d left ", bar.c_str(), done * 100,
                 rate / 1e6, static_cast<int>(left) / 60, static_cast<int>(left) % 60);
    std::fflush(stderr);
}
