#pragma once

#include "foundation/Export.h"
#include "foundation/QORThrowable.h"

// What a stream raises when its input is cut short or malformed, when a count makes no sense, or
// when what it should write has lost bytes already.
class POSTWIRE_EXPORT ZULStreamException : public QORException {
public:
    // One code a fault; each has a fixed text.
    enum Fault : int {
        ZUL_ERR_END_OF_INPUT = 2000,     // fewer bytes than asked for, also inside a chunked body
        ZUL_ERR_NEGATIVE_COUNT = 2001,   // a count or size below 0 (below 1 where 0 makes no sense)
        ZUL_ERR_CHUNK_SIZE = 2002,       // not 1 to 8 hexadecimal digits, RFC 9112 section 7.1
        ZUL_ERR_CHUNK_TOO_LARGE = 2003,  // a chunk size above 2^31 - 1
        ZUL_ERR_CHUNK_END = 2004,        // chunk data, a size or a trailer line without CRLF
        ZUL_ERR_CHUNK_EXTENSION = 2005,  // more than 4 KiB behind a chunk size
        ZUL_ERR_TRAILER_TOO_LONG = 2006,  // more than 64 KiB of trailer lines
        ZUL_ERR_LINE_TOO_LONG = 2007,     // a line above the limit set for the stream
        ZUL_ERR_TRAILER = 2008,           // a trailer line that is no field line
        ZUL_ERR_FRAMING = 2009,           // more chunk framing than the limit set for the stream
        ZUL_ERR_BROKEN = 2010,            // bytes written before were lost on their way
    };

    explicit ZULStreamException(Fault fault);
    ZULStreamException(ZULStreamException const&);
    ZULStreamException& operator=(ZULStreamException const&);
    ~ZULStreamException() override;

    ZULStreamException* clone() const override;
    [[noreturn]] void hurl(QORFileLocation const& where, char const* method,
                           char const* macro) override;
    char const* getThrowableName() const override;

    // Builds the error and hurls it from `where`.
    [[noreturn]] static void raise(Fault fault, QORFileLocation const& where);

    // The text of a fault: static, never null for the values above, null outside them.
    static char const* getMessageString(Fault fault);
};
