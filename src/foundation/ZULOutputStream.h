#pragma once

#include "foundation/Export.h"

// A sink of bytes.
//
// Ownership: the bytes are the caller's and are not kept beyond the call.
// Units: lengths are bytes.
// Raises: ZULStreamException for a negative length, and then writes nothing; what the sink raises
//   passes through.
// Rule: destructors write nothing. Bytes that a stream holds leave it by flush or close, which
//   can report a failure.
class POSTWIRE_EXPORT ZULOutputStream {
public:
    ZULOutputStream() = default;
    ZULOutputStream(ZULOutputStream const&) = delete;
    ZULOutputStream& operator=(ZULOutputStream const&) = delete;
    virtual ~ZULOutputStream() {}

    // Takes all the bytes or raises.
    virtual void write(char const* data, int length) = 0;

    // Passes on what the stream holds.
    virtual void flush() {}

    // Ends what the stream writes.
    virtual void close() {}
};
