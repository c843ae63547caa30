#pragma once

#include <cstdint>
#include <deque>

#include "foundation/ZULBufferedInputStream.h"
#include "foundation/ZULInputStream.h"

#include "tools/trace/TraceFile.h"

// Where and when a message stood in the trace.
struct Span {
    std::uint64_t bytes = 0;
    std::uint64_t calls = 0;                      // sends or receives that carried a byte of it
    Microseconds begin = kNoTime, end = kNoTime;  // of the first and the last of them
    Microseconds longestGap = kNoTime;            // between two of them that follow each other
};

// What one side of the traced connection sent, as a stream.
class Direction : public ZULInputStream {
public:
    Direction(TraceFile& file, bool received) : m_received(received), m_cursor(file) {}
    Direction(Direction const&) = delete;

    // To be read from; never from the direction itself.
    ZULBufferedInputStream& stream() { return m_stream; }
    TraceCursor const& cursor() const { return m_cursor; }

    static constexpr std::uint64_t kNoRecord = ~std::uint64_t{0};

    // Whether the next byte was found, and its record; else the record to look at next, kNoRecord
    // at the end.
    bool hasByte() const;
    std::uint64_t record() const;

    // Looks at that record.
    void step();

    // Around a message.
    void begin();
    Span end();

    // Handed out so far: bytes, and the records that held them.
    std::uint64_t bytes() const { return m_taken; }
    std::uint64_t calls() const { return m_calls; }

    using ZULInputStream::read;
    int read(char* bytes, int n) override;

private:
    // A record of which bytes were handed out.
    struct Mark {
        std::uint64_t start, size;  // in bytes of this direction
        std::uint64_t index;
        Microseconds time;
    };

    std::uint64_t consumed() const {
        return m_taken - static_cast<std::uint64_t>(m_stream.buffered());
    }
    void count(std::uint64_t upTo);

    static constexpr int kReadAhead = 16384;

    bool m_received;
    TraceCursor m_cursor;
    ZULBufferedInputStream m_stream{*this, kReadAhead};
    std::deque<Mark> m_marks;  // not counted yet, and the one in which the next byte stands
    std::uint64_t m_taken = 0;
    std::uint64_t m_calls = 0;
    std::uint64_t m_lastTaken = kNoRecord;
    std::uint64_t m_looked = 0;  // records
    bool m_atEnd = false;
    std::uint64_t m_begin = 0;
    std::uint64_t m_counted = kNoRecord;
    Span m_span;
};
