#pragma once

#include <array>
#include <string>
#include <string_view>

#include "foundation/ZULBufferedInputStream.h"

#include "parser/FramedStream.h"

namespace postwire::internal {

// The delimiter of one multipart level, RFC 2046 section 5.1.1: "--", the boundary, and "--" where
// it closes the level, on a line of its own between CRLFs, but for white space behind it. The last
// one may end with its level.
class Delimiter {
public:
    enum class Verdict { No, Open, Yes };  // Open: more bytes must tell

    explicit Delimiter(std::string_view boundary);

    // The two lines, without CRLF.
    std::string_view separator() const { return closing().substr(0, m_text.size() - 4); }
    std::string_view closing() const { return std::string_view(m_text).substr(2); }

    // Whether it begins at `line`, which begins a line. `isAll`: nothing follows behind `end`.
    // Exactly the boundary: longer ones, of a level within or around this one, are lines like any
    // other.
    Verdict judge(char const* line, char const* end, bool isAll);

    // Whether the usual delimiter, or one that was judged, comes next, whole in the read-ahead.
    bool isNext(ZULBufferedInputStream& is, bool atLineStart);

    // What judge said Yes of comes next, behind so many bytes of line end.
    void setNext(int lineEnd) { m_nextSize = lineEnd + m_judgedSize; }

    // Takes the delimiter, which comes next; whether it is the closing one.
    bool take(ZULBufferedInputStream& is);

    // False where no delimiter begins in the next n bytes, which begin a line, for sure.
    bool mayBeWithin(ZULBufferedInputStream& is, int n) const;

    // From `at` on, as far as none begins for sure.
    char const* leap(char const* at, char const* end);

private:
    Verdict judgeLineEnd(char const* line, char const* behind, char const* end, bool isAll);

    std::string m_text;  // CRLF and the closing line
    bool m_isClosing;    // of the one last judged
    int m_judgedSize;    // of that, with the end of its line
    int m_nextSize;      // of the one that comes next, or 0 where that is not known
    bool m_bytesNoted;
    std::array<unsigned char, 256> m_occurs;  // once noted, 1 for each byte of CRLF and delimiter
};

// A body that ends before the next delimiter of the level around it, the CRLF in front of that left
// out. The delimiter itself is not taken.
//
// Rule: bytes are looked at in the read-ahead of the stream beneath and copied run by run. Only
//   what may be the beginning of a delimiter is waited for.
class BoundaryStream : public FramedStream {
public:
    // The delimiter is borrowed. `atLineStart`: it may stand at once, without a CRLF.
    BoundaryStream(ZULBufferedInputStream& in, Delimiter& delimiter, bool atLineStart,
                   Budget& bytes);

    using FramedStream::read;

    // Straight into the buffer, where n is worth it.
    int read(QORByteBuffer& buf, int n) override;

    // Whether the delimiter comes next.
    bool atDelimiter() { return bytesToAsk(1) < 0; }

private:
    int bytesToAsk(int n) override;
    void noteArrival(int n) override;
    int readAhead(QORByteBuffer& buf, int n);
    int readBeneath(QORByteBuffer& buf, int n);
    int bodyBytes(char const* bytes, int have, int most);
    void readOn(char const* bytes, int n);

    ZULBufferedInputStream& m_buffered;
    Delimiter& m_delimiter;
    bool m_atLineStart;
    bool m_inputEnded;
};

}  // namespace postwire::internal
