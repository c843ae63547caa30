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
//   CRLF alone ends a size line, chunk data and a trailer line. Looser readings of these lines are
//   what lets two servers in a row see different messages in the same bytes.
class POSTWIRE_EXPORT ZULChunkedInputStream : public ZULFilterInputStream {
public:
    explicit ZULChunkedInputStream(ZULBufferedInputStream& in);
    ~ZULChunkedInputStream() override;

    using ZULFilterInputStream::read;

    // Takes no room in buf before there is data to come.
    int read(QORByteBuffer& buf, int n) override;

    // At most n bytes of chunk data; joins the data of chunks as far as they are buffered beneath.
    int read(char* bytes, int n) override;

    void detach() override;

    // From now on the grammar of RFC 9112 sections 7.1.1 and 7.1.2 is asked for, too: no white
    // space behind a size but before an extension, no control characters in extensions, and trailer
    // lines that are field lines.
    void setStrict();

    // At most so many bytes of framing, that is of all but chunk data, and `ratio` more for each
    // byte of data before them; no limit at first.
    void setMaxFraming(long long bytes, int ratio);

private:
    // What the next byte belongs to; a line's end is two states, for CR and LF.
    enum class State {
        Size,
        BehindSize,
        Extension,
        SizeLf,
        Data,
        DataCr,
        DataLf,
        Trailer,
        TrailerLine,
        TrailerLineLf,
        BodyLf,
        End,
        Failed
    };

    // Where the next byte of an extension that is read to the letter stands.
    enum class InExtension {
        BeforeName,
        Name,
        BehindName,
        BeforeValue,
        Value,
        Quoted,
        QuotedPair,
        BehindQuotes,
        BehindValue
    };

    bool inFraming() const;
    bool findData();
    int readData(char* bytes, int n);
    void readFraming();
    int takePlainSizeLine(char const* bytes, int available);
    void takeFramingByte(char byte);
    void countFraming(int bytes);
    void takeSizeByte(char byte);
    void takeByteBehindSize(char byte);
    void takeTrailerByte(char byte);
    bool fitsExtension(char byte);
    bool mayEndExtension() const;
    bool fitsTrailerLine(char byte);
    void expect(char wanted, char byte, State next);
    void enter(State state);
    void fail(ZULStreamException::Fault fault);
    [[noreturn]] void raiseFault() const;

    ZULBufferedInputStream* m_pBuffered;  // the stream beneath, by its own type
    State m_state;
    ZULStreamException::Fault m_fault;  // what Failed raises
    unsigned int m_left;                // bytes of the current chunk still to be read
    int m_count;                        // bytes of a length-limited piece of framing so far
    bool m_strict;
    bool m_inName;  // of a trailer line
    InExtension m_inExtension;
    long long m_framingLeft;  // until the limit
    int m_framingRatio;
};
