#pragma once

#include <array>
#include <string>
#include <string_view>

#include "foundation/ZULBufferedInputStream.h"
#include "foundation/ZULChunkedInputStream.h"
#include "foundation/ZULInputStream.h"

#include "parser/HTTPReadPolicy.h"

// The body of one level as a stream that ends where the body ends, told by a length, by chunks or
// by a delimiter. What breaks the framing raises HTTPPolicyException.
//
// Ownership: borrows the stream beneath and the allowance.
// Rule: it takes no byte behind the body, and remembers its end.
class FramedStream : public ZULInputStream {
public:
    using ZULInputStream::read;
    int read(QORByteBuffer& buf, int n) override;
    int read(char* bytes, int n) override;

    // Reads up to the end and drops the bytes; more than `most` of them are an error.
    static void drain(ZULInputStream& in, long long most);

protected:
    // `allowance`: what may still be read of all bodies of the message, counted down here.
    FramedStream(ZULInputStream& in, long long& allowance);

    // How many bytes of at most n may be asked for beneath; -1 at the end of the body.
    virtual int next(int n) = 0;

    // So many came; -1: the stream beneath has ended. Gives what the caller gets.
    virtual int took(int n) = 0;

    // What may be given without a look at what is behind it.
    bool mayGive(int n) const { return !m_ended && n <= m_allowance; }
    int give(int n);

private:
    template <class Read>
    int readBy(Read const& readBeneath, int n);
    int allowed(int n);

    ZULInputStream& m_in;
    long long& m_allowance;
    bool m_ended;
};

// A body of a declared length, or, without one, all that the stream beneath has.
class LengthStream : public FramedStream {
public:
    // `cut` is raised where the stream beneath ends first.
    LengthStream(ZULInputStream& in, int length, HTTPPolicyException::PolicyErrorCode cut,
                 long long& allowance);
    LengthStream(ZULInputStream& in, long long& allowance);
    ~LengthStream() override;

private:
    int next(int n) override;
    int took(int n) override;

    bool m_open;  // without a length
    int m_left;
    HTTPPolicyException::PolicyErrorCode m_cut;
};

// A body in chunked coding.
class ChunkStream : public FramedStream {
public:
    ChunkStream(ZULChunkedInputStream& decoder, HTTPReadPolicy const& policy, long long& allowance);
    ~ChunkStream() override;

private:
    int next(int n) override;
    int took(int n) override;
};

// A body that ends before the next delimiter of the level around it, the CRLF in front of that left
// out: RFC 2046 section 5.1.1. The delimiter itself is not taken.
//
// Rule: bytes are looked at in the read-ahead of the stream beneath and copied run by run. Only
//   what may be the beginning of a delimiter is waited for.
class BoundaryStream : public FramedStream {
public:
    // The boundary is borrowed. `atLineStart`: a delimiter may stand at once, without a CRLF.
    BoundaryStream(ZULBufferedInputStream& in, std::string const& boundary, bool atLineStart,
                   long long& allowance);
    ~BoundaryStream() override;

    using FramedStream::read;

    // Straight into the buffer, where n is worth it.
    int read(QORByteBuffer& buf, int n) override;

    // Whether the delimiter comes next.
    bool atDelimiter();

    // Takes the delimiter, which must come next; whether it is the closing one.
    bool takeDelimiter();

private:
    enum class Verdict { No, Open, Yes };

    int next(int n) override;
    int took(int n) override;
    int takeAhead(QORByteBuffer& buf, int n);
    int readStraight(QORByteBuffer& buf, int n);
    int bodyBytes(char const* bytes, int have, int most);
    char const* leap(char const* at, char const* end);
    void noteBytes();
    Verdict judge(char const* text, char const* end);
    Verdict judgeLineEnd(char const* text, char const* end) const;
    Verdict undecided() const { return m_inputEnded ? Verdict::No : Verdict::Open; }
    void readOn(char const* bytes, int n);

    ZULBufferedInputStream& m_buffered;
    std::string const& m_boundary;
    bool m_atLineStart;
    bool m_inputEnded;
    bool m_closing;  // of the delimiter last judged
    bool m_bytesNoted;
    std::array<unsigned char, 256> m_occurs;  // once noted, 1 for each byte of CRLF and delimiter
};
