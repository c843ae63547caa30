#pragma once

#include "foundation/Export.h"
#include "foundation/QORByteBuffer.h"
#include "foundation/ZULOutputStream.h"

// Encodes chunked transfer coding, RFC 9112 section 7.1, without extensions and trailer fields.
//
// Ownership: the stream beneath is borrowed.
// Raises: ZULStreamException for a size below 1.
// Rule: each chunk, framing included, leaves in one write. flush and close end here: the stream
//   beneath is neither flushed nor closed. If the stream beneath raises, the body is given up, as
//   by reset(): close then writes nothing, so that the reader sees a body cut short and never a
//   whole one with a gap.
class POSTWIRE_EXPORT ZULChunkedOutputStream : public ZULOutputStream {
public:
    // Chunks of at most `size` bytes; the buffer grows as bytes come.
    ZULChunkedOutputStream(ZULOutputStream& out, int size);
    ~ZULChunkedOutputStream() override;

    // Begins a chunked body where none is open, with 0 bytes too, so that close then ends an empty
    // one.
    void write(char const* data, int length) override;

    // Writes the bytes held as one chunk; nothing where none are held.
    void flush() override;

    // Flushes, then writes the last chunk and the empty trailer. The next write begins a new body;
    // a second close before it writes nothing.
    void close() override;

    // The stream beneath.
    ZULOutputStream& getOutputStream() { return m_out; }

    // Drops what is held and starts anew, as after construction: nothing of a body that was given
    // up reaches the next one.
    void reset();

private:
    void writeHeld();
    int held() const { return static_cast<int>(m_chunk.pcount() - m_begin); }
    void beginAt(unsigned int place);
    void beginApart(char const* data);

    static constexpr int kSizeLine = 10;  // 8 digits and CRLF

    ZULOutputStream& m_out;
    int m_size;
    bool m_open;            // a body has begun and is not closed
    unsigned int m_begin;   // of the data in the buffer
    QORByteBuffer m_chunk;  // room for the longest size line at least, then the data held
};
