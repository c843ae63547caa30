#pragma once

#include "foundation/Export.h"
#include "foundation/QORByteBuffer.h"
#include "foundation/ZULOutputStream.h"

// Joins small writes: a program puts it between a writer and a connection, and flushes it after a
// message, so that start line, header block and body leave together.
//
// Ownership: the stream beneath is borrowed.
// Raises: ZULStreamException for a size below 1.
// Rule: if the stream beneath raises, what was held is dropped: sending it again later would
//   repeat bytes that may already be on the wire.
class POSTWIRE_EXPORT ZULBufferedOutputStream : public ZULOutputStream {
public:
    // Holds at most `size` bytes.
    ZULBufferedOutputStream(ZULOutputStream& out, int size);
    ~ZULBufferedOutputStream() override;

    // A write that does not fit first sends what is held; then it goes on without a copy if it is
    // at least `size` long, else it is held.
    void write(char const* data, int length) override;

    // Sends what is held in one write, then flushes the stream beneath.
    void flush() override;

    // Flushes; the stream beneath stays open.
    void close() override;

private:
    void sendHeld();

    ZULOutputStream& m_out;
    int m_size;
    QORByteBuffer m_held;
};
