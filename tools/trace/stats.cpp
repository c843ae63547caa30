#include <algorithm>
#include <cstdio>

#include "tools/trace/Jobs.h"

namespace {

void printTotals(char const* name, std::uint64_t messages, Direction const& direction) {
    double const perMessage =
        messages == 0 ? 0 : static_cast<double>(direction.calls()) / static_cast<double>(messages);
    using Wide = unsigned long long;
    std::printf("%-10s %9llu %12llu %9llu %18.2f\n", name, Wide{messages}, Wide{direction.bytes()},
                Wide{direction.calls()}, perMessage);
}

// From the end of a request to the first byte of its answer, and the longest pause of all.
class Waits {
public:
    void add(TracedMessage const& message) {
        Span const& span = message.span;
        if (span.begin == kNoTime) return;
        if (m_begin == kNoTime) m_begin = m_end = span.begin;
        note(std::max(span.longestGap, span.begin - m_end), message.number);
        m_end = std::max(m_end, span.end);
        if (message.request) m_asked = span.end;
        bool const interim = message.head.compare(0, 10, "HTTP/1.1 1") == 0;
        if (message.request || interim || m_asked == kNoTime) return;
        Microseconds const wait = std::max<Microseconds>(0, span.begin - m_asked);
        m_asked = kNoTime;
        m_least = m_answers == 0 ? wait : std::min(m_least, wait);
        m_most = std::max(m_most, wait);
        m_sum += wait;
        ++m_answers;
    }

    void print() const {
        if (m_begin == kNoTime) return;
        std::printf("duration   %s, longest gap %s (message %llu)\n",
                    seconds(m_end - m_begin).c_str(), seconds(m_gap).c_str(),
                    static_cast<unsigned long long>(m_gapAt));
        if (m_answers > 0)
            std::printf("answered   in %s on average, %s at least, %s at most\n",
                        seconds(m_sum / m_answers).c_str(), seconds(m_least).c_str(),
                        seconds(m_most).c_str());
    }

private:
    void note(Microseconds gap, std::uint64_t number) {
        if (gap <= m_gap) return;
        m_gap = gap;
        m_gapAt = number;
    }

    Microseconds m_begin = kNoTime, m_end = kNoTime, m_asked = kNoTime;
    Microseconds m_gap = kNoTime, m_least = 0, m_most = 0, m_sum = 0;
    std::uint64_t m_gapAt = 0;
    std::int64_t m_answers = 0;
};

}  // namespace

std::string stats(Options const& options) {
    TraceFile file(options.trace, false);
    Conversation conversation(file, roleOf(options), {});
    std::uint64_t messages[2] = {0, 0};
    Waits waits;
    for (TracedMessage message; conversation.next(message); waits.add(message))
        ++messages[message.read];
    std::printf("%-10s %9s %12s %9s %18s\n", "", "messages", "bytes", "calls", "calls per message");
    printTotals("received", messages[true], conversation.received());
    printTotals("sent", messages[false], conversation.sent());
    waits.print();
    return complaintOf(conversation.received().cursor(), options.trace);
}
