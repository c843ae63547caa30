#pragma once

#include "foundation/Export.h"
#include "foundation/QORByteBuffer.h"
#include "foundation/ZULInputStream.h"

// Reads ahead from another stream, so that lines and single bytes are cheap.
//
// Ownership: the stream beneath is borrowed. A copy reads from the same stream and starts with a
//   copy of the read-ahead bytes and of the position; from then on the two take turns at the bytes
//   beneath, so only one of them should be used.
// Raises: ZULStreamException for a negative count, for a size below 1, and for a line above the
//   limit that setMaxLine gave; what the stream beneath raises passes through.
// Rule: an end is not remembered: asked again, it asks beneath again.
class POSTWIRE_EXPORT ZULBufferedInputStream : public ZULFilterInputStream {
public:
    // Reads ahead `size` bytes at most; their storage is taken at the first read that needs it.
    ZULBufferedInputStream(ZULInputStream& in, int size);

    // Keeps the configured size and line limit.
    ZULBufferedInputStream(ZULBufferedInputStream const& other);
    ~ZULBufferedInputStream() override;

    // Gives what is buffered, else makes one read beneath; a request as large as the read-ahead
    // then goes straight to the caller's memory.
    int read(QORByteBuffer& buf, int n) override;
    int read(char* bytes, int n) override;
    int read() override;

    // True: unread puts the bytes in front of those read ahead, and copies them.
    bool canUnread() override;
    void unread(char const* bytes, int n) override;

    // Appends the next line to buf without its terminator, LF or CRLF, and returns the length of
    // the line; -1 only when no byte is left. A last line without a terminator is a line.
    virtual int readLine(QORByteBuffer& buf);

    // Lines longer than this, terminator left out, raise ZULStreamException before the memory is
    // taken; 0: no limit, as after construction.
    void setMaxLine(int bytes);

    // The bytes read ahead and not yet taken, with their number in n, after one read beneath when
    // there are none; n is 0 at the end. Good until the next operation on this stream.
    char const* peek(int& n) {
        if (buffered() == 0) fill();
        n = buffered();
        return m_readAhead.str() + m_position;
    }

    // Takes n of the bytes that peek showed; more than those fails an assertion.
    void skip(int n) {
        if (n < 0 || n > buffered()) requireBuffered(n);
        m_position += n;
    }

    // The number of bytes read ahead and not yet taken: what can be had without a read beneath.
    int buffered() const { return static_cast<int>(m_readAhead.pcount()) - m_position; }

private:
    // One read beneath into the empty read-ahead; the number of bytes, or -1.
    int fill();
    void requireBuffered(int n) const;
    void requireWithinLimit(unsigned int length, char const* end) const;

    QORByteBuffer m_readAhead;
    int m_position;  // of the next byte within m_readAhead
    int m_size;
    int m_maxLine;
};
