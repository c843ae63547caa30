#pragma once

#include "foundation/Export.h"
#include "foundation/QORByteBuffer.h"
#include "foundation/ZULOutputStream.h"

// Encodes chunked transfer coding, RFC 9112 section 7.1, without extensions and trailer fields.
//
// Ownership: the stream beneath is borrowed.
// Raises: ZULStreamException for a size below 1, and ZUL_ERR_BROKEN for a body that lost bytes.
// Rule: each chunk, framing included, leaves in one write. flush and close end here: the stream
//   beneath is neither flushed nor closed. Once the stream beneath has raised, the body is broken:
//   write, flush and close send nothing and raise until reset(), so that the reader sees a body cut
//   short and never a whole one with a gap. A write that failed for want of memory here took
//   nothing, and may be repeated.
class POSTWIRE_EXPORT ZULChunkedOutputStream : public ZULOutputStream {
public:
    // Chunks of at most `size` bytes; the buffer grows as bytes come.
    ZULChunkedOutputStream(ZULOutputStream& out, int size);
    ~ZULChunkedOutputStream() override;

    // Behind a close it begins the next body, with 0 bytes too.
    void write(char const* data, int length) override;

    // Writes the bytes held as one chunk; nothing where none are held.
    void flush() override;

    // Flushes, then writes the last chunk and the empty trailer, of a body without bytes too. A
    // second close before the next write writes nothing.
    void close() override;

    // The stream beneath.
    ZULOutputStream& getOutputStream() { return m_out; }

    // Drops what is held and starts anew, as after construction: nothing of a body that was given
    // up reaches the next one.
    void reset();

    // Breaks the body: for whoever writes past the encoder and lost bytes of it there.
    void giveUp();

    // Raises ZUL_ERR_BROKEN where the body is broken.
    void requireWhole() const {
        if (m_state == State::Broken) raiseBroken();
    }

private:
    enum class State { Open, Closed, Broken };

    [[noreturn]] static void raiseBroken();
    void writeHeld();
    void send(char const* bytes, int length) {
        m_state = State::Broken;  // stays so where the write raises
        m_out.write(bytes, length);
        m_state = State::Open;
    }
    int held() const { return static_cast<int>(m_chunk.pcount() - m_begin); }
    void beginAt(unsigned int place);
    void beginApart(char const* data);

    static constexpr int kSizeLine = 10;  // 8 digits and CRLF

    ZULOutputStream& m_out;
    int m_size;
    State m_state;          // of the body
    unsigned int m_begin;   // of the data in the buffer
    QORByteBuffer m_chunk;  // room for the longest size line at least, then the data held
};
