#include "parser/BoundaryStream.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "foundation/QORByteBuffer.h"

#include "foundation/AsciiText.h"

namespace postwire::internal {

namespace {

using Verdict = Delimiter::Verdict;

// White space that may follow a boundary on its line: RFC 2046 section 5.1.1 sets no limit, but a
// line that never ends must not be collected.
constexpr int kMaxPadding = 1024;

// The read-ahead of a level: a read of this much goes past it, straight to the buffer.
constexpr int kWorthReading = 4096;

// A leap over less than the first, as far as a boundary is long, or in less than the second costs
// more than it saves: the table of bytes has 256 entries to be set.
constexpr std::ptrdiff_t kWorthLeaping = 24, kWorthNoting = 512;

// The most that is asked for at once, as readFully takes it for a body of known length.
constexpr int kRoom = 64 * 1024;

// For what may follow so many bytes: a peer can send parts of few bytes by the thousand, and 64
// times what came is all that one may cost.
int roomBehind(int bytes) { return 64 * std::min(bytes, kRoom / 64); }

// For n bytes at least.
void makeRoom(QORByteBuffer& buf, int n) {
    auto const have = static_cast<int>(buf.capacity() - buf.pcount());
    int const room = std::max(roomBehind(static_cast<int>(buf.pcount())), n);
    if (have < n) buf.reserve(buf.pcount() + static_cast<unsigned int>(room));
}

// Its first character tells nearly always.
bool beginsWith(char const* text, char const* end, std::string_view start) {
    return static_cast<std::size_t>(end - text) >= start.size() && *text == start.front() &&
           std::memcmp(text, start.data(), start.size()) == 0;
}

}  // namespace

// Delimiter

Delimiter::Delimiter(std::string_view boundary)
    : m_isClosing(false), m_judgedSize(0), m_nextSize(0), m_bytesNoted(false) {
    m_text.reserve(boundary.size() + 6);
    m_text.append("\r\n--").append(boundary).append("--");
}

Verdict Delimiter::judge(char const* line, char const* end, bool isAll) {
    std::string_view const wanted = separator();
    auto const have = static_cast<std::size_t>(end - line);
    if (wanted.compare(0, have, line, std::min(have, wanted.size())) != 0) return Verdict::No;
    if (have < wanted.size()) return isAll ? Verdict::No : Verdict::Open;
    char const* const behind = line + wanted.size();
    m_isClosing = false;
    if (Verdict const v = judgeLineEnd(line, behind, end, isAll); v != Verdict::No) return v;
    m_isClosing = true;
    if (*behind != '-') return Verdict::No;
    if (behind + 1 == end) return isAll ? Verdict::No : Verdict::Open;
    return behind[1] == '-' ? judgeLineEnd(line, behind + 2, end, isAll) : Verdict::No;
}

// White space and CRLF. The end of the level ends the line as well.
Verdict Delimiter::judgeLineEnd(char const* line, char const* behind, char const* end, bool isAll) {
    char const* at = behind;
    while (at != end && isBlank(*at)) ++at;
    if (at - behind > kMaxPadding) return Verdict::No;
    bool const isOpen = end - at < 2 && (at == end || *at == '\r');
    if (isOpen && !isAll) return Verdict::Open;
    if (!isOpen && (at[0] != '\r' || at[1] != '\n')) return Verdict::No;
    m_judgedSize = static_cast<int>(isOpen ? end - line : at + 2 - line);
    return Verdict::Yes;
}

// A level has many parts, and nearly all of its delimiters stand whole in the read-ahead, without
// white space: those are compared at once.
bool Delimiter::isNext(ZULBufferedInputStream& is, bool atLineStart) {
    if (m_nextSize > 0) return true;
    int have = 0;
    char const* const bytes = is.peek(have);
    auto const left = static_cast<std::size_t>(have);
    std::size_t const lineEnd = left > 1 && bytes[0] == '\r' && bytes[1] == '\n' ? 2 : 0;
    std::size_t size = lineEnd + separator().size();
    if ((lineEnd == 0 && !atLineStart) || left < size + 4 ||
        std::memcmp(bytes + lineEnd, separator().data(), separator().size()) != 0)
        return false;
    m_isClosing = bytes[size] == '-' && bytes[size + 1] == '-';
    if (m_isClosing) size += 2;
    if (bytes[size] != '\r' || bytes[size + 1] != '\n') return false;
    m_nextSize = static_cast<int>(size) + 2;
    return true;
}

bool Delimiter::take(ZULBufferedInputStream& is) {
    is.skip(m_nextSize);
    m_nextSize = 0;
    return m_isClosing;
}

bool Delimiter::mayBeWithin(ZULBufferedInputStream& is, int n) const {
    int have = 0;
    char const* const bytes = is.peek(have);
    if (have < n) return true;
    char const* const end = bytes + n;
    // Its CRLF may be the end of them.
    if (n > 0 && (end[-1] == '\r' || end[-1] == '\n')) return true;
    if (beginsWith(bytes, end, separator())) return true;
    for (char const* at = bytes; at != end; ++at) {
        void const* const lf = std::memchr(at, '\n', static_cast<std::size_t>(end - at));
        if (!lf) return false;
        at = static_cast<char const*>(lf);
        if (beginsWith(at + 1, end, separator())) return true;
    }
    return false;
}

// One that begins within a leap covers the two bytes at its end, so that nothing between need be
// looked at where they occur in no delimiter. With data that are no text this is faster than to
// stop at every CR.
char const* Delimiter::leap(char const* at, char const* end) {
    auto const length = static_cast<std::ptrdiff_t>(separator().size()) + 1;
    if (length < kWorthLeaping || end - at < kWorthNoting) return at;
    if (!std::exchange(m_bytesNoted, true)) {
        m_occurs.fill(0);
        for (char const c : m_text) m_occurs[static_cast<unsigned char>(c)] = 1;
    }
    auto const occurs = [this](char c) { return m_occurs[static_cast<unsigned char>(c)]; };
    while (end - at > length && !(occurs(at[length - 1]) & occurs(at[length]))) at += length;
    return at;
}

// BoundaryStream

BoundaryStream::BoundaryStream(ZULBufferedInputStream& in, Delimiter& delimiter, bool atLineStart,
                               Budget& bytes)
    : FramedStream(in, bytes),
      m_buffered(in),
      m_delimiter(delimiter),
      m_atLineStart(atLineStart),
      m_inputEnded(false) {}

// What is asked for is a wish: no more is taken at once than is there, or than kRoom.
int BoundaryStream::read(QORByteBuffer& buf, int n) {
    n = std::min(n, kRoom);
    if (n < kWorthReading || !isWithin(n)) return FramedStream::read(buf, n);
    int const found = m_buffered.buffered() > 0 ? readAhead(buf, n) : readBeneath(buf, n);
    if (found == 0) return FramedStream::read(buf, n);
    noteArrival(found);
    return countRead(found);
}

// Of what is read ahead; what bodyBytes says of it. Where the body goes on behind it, room for that
// is made as well, so that these bytes are not moved again.
int BoundaryStream::readAhead(QORByteBuffer& buf, int n) {
    int have = 0;
    char const* const bytes = m_buffered.peek(have);
    int const found = bodyBytes(bytes, have, n);
    if (found <= 0) return found;
    if (found == have) makeRoom(buf, have + roomBehind(have));
    buf.appendChars(bytes, static_cast<unsigned int>(found));
    m_buffered.skip(found);
    return found;
}

// From the stream beneath into the buffer; what is not the body's is given back.
int BoundaryStream::readBeneath(QORByteBuffer& buf, int n) {
    makeRoom(buf, n);
    // The zero byte behind the content stands again also where the read raises.
    struct Arrival {
        ~Arrival() { buf.setLength(buf.pcount() + count); }
        QORByteBuffer& buf;
        unsigned int count;
    } arrival{buf, 0};
    char* const bytes = buf.str() + buf.pcount();
    int const got = std::max(0, m_buffered.read(bytes, n));
    int const found = got > 0 ? bodyBytes(bytes, got, got) : 0;
    int const kept = std::max(0, found);
    if (kept < got) m_buffered.unread(bytes + kept, got - kept);
    arrival.count = static_cast<unsigned int>(kept);
    return found;
}

int BoundaryStream::bytesToAsk(int n) {
    for (;;) {
        int have = 0;
        char const* const bytes = m_buffered.peek(have);
        if (have == 0) raise(HTTPException::HTTP_ERR_MISSING_BOUNDARY, kProcessEntities, __LINE__);
        if (int const found = bodyBytes(bytes, have, n)) return found;
        readOn(bytes, have);
    }
}

void BoundaryStream::noteArrival(int) { m_atLineStart = false; }

// The bytes, of at most `most`, before what is, or may be, a delimiter; -1 where it stands at once,
// 0 where more bytes must tell. Every CR is looked at once, so that the time is linear in the
// bytes.
int BoundaryStream::bodyBytes(char const* bytes, int have, int most) {
    char const* const end = bytes + have;
    char const* const last = bytes + std::min(have, most);
    char const* at = bytes;
    int lineEnd = 0;
    auto const judge = [&](char const* line) { return m_delimiter.judge(line, end, m_inputEnded); };
    Verdict verdict = m_atLineStart ? judge(bytes) : Verdict::No;
    while (verdict == Verdict::No) {
        at = m_delimiter.leap(at, last);
        void const* const cr = std::memchr(at, '\r', static_cast<std::size_t>(last - at));
        if (!cr) return static_cast<int>(last - bytes);
        at = static_cast<char const*>(cr);
        lineEnd = 2;
        if (at + 1 == end)
            verdict = m_inputEnded ? Verdict::No : Verdict::Open;
        else if (at[1] == '\n')
            verdict = judge(at + 2);
        if (verdict == Verdict::No) ++at;
    }
    if (at != bytes) return static_cast<int>(at - bytes);
    if (verdict != Verdict::Yes) return 0;
    m_delimiter.setNext(lineEnd);
    return -1;
}

// More bytes behind those held back, which stay in front. All of the read-ahead is held back, and
// is not touched before the read has returned: one that raises may be asked for again.
void BoundaryStream::readOn(char const* bytes, int n) {
    char more[kWorthReading];
    int const got = std::max(0, m_buffered.getInputStream()->read(more, sizeof more));
    m_inputEnded = got == 0;
    std::string const all =
        std::string(bytes, static_cast<std::size_t>(n)).append(more, static_cast<std::size_t>(got));
    m_buffered.skip(n);
    m_buffered.unread(all.data(), n + got);
}

}  // namespace postwire::internal
