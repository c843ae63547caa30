#include "tools/trace/Direction.h"

#include <algorithm>

std::uint64_t Direction::record() const {
    if (m_stream.buffered() > 0) return m_marks.front().index;
    if (hasByte()) return m_cursor.record().index;
    return m_atEnd ? kNoRecord : m_looked;
}

bool Direction::hasByte() const {
    return m_stream.buffered() > 0 ||
           (!m_atEnd && m_cursor.left() > 0 && m_cursor.record().read == m_received);
}

void Direction::step() {
    m_atEnd = !m_cursor.next();
    if (!m_atEnd) ++m_looked;
}

void Direction::begin() {
    m_begin = consumed();
    m_span = {};
    m_counted = kNoRecord;
}

Span Direction::end() {
    count(consumed());
    m_span.bytes = consumed() - m_begin;
    return m_span;
}

int Direction::read(char* bytes, int n) {
    // The read-ahead is empty when this is called: all that was taken belongs to the message.
    count(m_taken);
    std::string_view got;
    while (got.empty()) {
        while (!m_atEnd && !(m_cursor.left() > 0 && m_cursor.record().read == m_received)) step();
        if (m_atEnd) return -1;
        got = m_cursor.take(static_cast<std::size_t>(n));
        if (got.empty()) step();  // the last one is cut short
    }
    TraceRecord const& record = m_cursor.record();
    if (m_marks.empty() || m_marks.back().index != record.index)
        m_marks.push_back({m_taken, 0, record.index, record.time});
    if (m_lastTaken != record.index) ++m_calls;
    m_lastTaken = record.index;
    m_marks.back().size += got.size();
    m_taken += got.size();
    std::copy(got.begin(), got.end(), bytes);
    return static_cast<int>(got.size());
}

// Adds the records of the message up to this place; the one that goes beyond it is kept for the
// next message.
void Direction::count(std::uint64_t upTo) {
    while (!m_marks.empty() && m_marks.front().start < upTo) {
        Mark const& mark = m_marks.front();
        bool const isNew = mark.index != m_counted;  // a record may come in several pieces
        m_counted = mark.index;
        if (isNew) ++m_span.calls;
        if (isNew && mark.time != kNoTime) {
            if (m_span.begin == kNoTime) {
                m_span.begin = mark.time;
            } else {
                m_span.longestGap = std::max(m_span.longestGap, mark.time - m_span.end);
            }
            m_span.end = mark.time;
        }
        if (mark.start + mark.size > upTo) return;
        m_marks.pop_front();
    }
}
