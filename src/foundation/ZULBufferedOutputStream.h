#pragma once

#include "foundation/Export.h"
#include "foundation/QORByteBuffer.h"
#include "foundation/ZULOutputStream.h"

// Joins small writes: a program puts it between a writer and a connection, and flushes it after a
// message, so that start line, header block and body leave together.
//
// Ownership: the stream beneath is borrowed.
// Raises: ZULStreamException for a size below 1, and ZUL_ERR_BROKEN as told below.
// Rule: once the stream beneath has raised, what was held is dropped, since sending it again would
//   repeat bytes that may already be on the wire; write, flush and close send nothing and raise
//   until reset(), so that nothing follows the gap.
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

    // Drops what is held and starts anew, as after construction.
    void reset();

private:
    void requireWhole() const;
    void sendHeld();
    void send(char const* bytes, int length);

    ZULOutputStream& m_out;
    int m_size;
    QORByteBuffer m_held;
    bool m_broken;
};
