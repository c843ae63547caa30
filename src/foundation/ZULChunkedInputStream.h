#pragma once

#include "foundation/Export.h"
#include "foundation/ZULBufferedInputStream.h"
#include "foundation/ZULInputStream.h"
#include "foundation/ZULStreamException.h"

// Decodes chunked transfer coding, RFC 9112 section 7.1.
//
// Ownership: the stream beneath is borrowed.
// Raises: ZULStreamException for a malformed chunk, for a trailer above 64 KiB, and when the input
//   ends before the empty line behind the trailer. The error is remembered: asked again, the
//   decoder raises it again and reads nothing.
// Rule: it takes no byte beyond the chunked body from the stream beneath, and says -1 only after
//   the trailer's end; -1 is remembered too. A size is 1 to 8 hexadecimal digits without sign or
//   prefix and at most 2^31 - 1; white space and an extension behind it are ignored up to 4 KiB;
//   CRLF alone ends a size line and chunk data. Looser readings of these lines are what lets two
//   servers in a row see different messages in the same bytes.
class POSTWIRE_EXPORT ZULChunkedInputStream : public ZULFilterInputStream {
public:
    explicit ZULChunkedInputStream(ZULBufferedInputStream& in);
    ~ZULChunkedInputStream() override;

    using ZULFilterInputStream::read;

    // At most n bytes of chunk data; may join the data of chunks that are already buffered.
    int read(char* bytes, int n) override;

    void detach() override;

private:
    enum class State { SizeLine, Data, DataEnd, Trailer, End, Failed };

    // Reads framing until data can follow or the body has ended.
    void advance();
    int readSizeLine();
    void readDataEnd();
    void readTrailer();
    int nextByte();
    [[noreturn]] void fail(ZULStreamException::Fault fault, int line);

    ZULBufferedInputStream* m_pBuffered;   // the stream beneath, by its own type
    State m_state;
    ZULStreamException::Fault m_fault;     // what Failed raises again
    int m_left;                            // bytes of the current chunk still to be read
};
