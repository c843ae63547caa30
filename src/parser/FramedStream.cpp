#include "parser/FramedStream.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "foundation/QORByteBuffer.h"
#include "foundation/ZULStreamException.h"

#include "foundation/AsciiText.h"
#include "parser/HTTPParseError.h"

static char const kSourceFile[] = "HTTPParser";

namespace {

using Policy = HTTPPolicyException;

[[noreturn]] void raise(Policy::PolicyErrorCode code, int line) {
    parseError::raise(code, QORFileLocation(kSourceFile, line));
}

// White space that may follow a boundary on its line: RFC 2046 section 5.1.1 sets no limit, but a
// line that never ends must not be collected.
constexpr int kMaxPadding = 1024;

// A read of this much goes past the read-ahead of a level.
constexpr int kWorthReading = 4096;
// Shorter leaps than this, and in less, cost more than they save.
constexpr std::ptrdiff_t kWorthLeaping = 24, kWorthNoting = 512;
constexpr int kRoom = 64 * 1024;  // as readFully takes it for a body of known length

// For what may follow so many bytes: a peer can send parts of few bytes by the thousand.
int roomBehind(int bytes) { return 64 * std::min(bytes, kRoom / 64); }

// For n bytes at least.
void makeRoom(QORByteBuffer& buf, int n) {
    auto const have = static_cast<int>(buf.capacity() - buf.pcount());
    int const room = std::max(roomBehind(static_cast<int>(buf.pcount())), n);
    if (have < n) buf.reserve(buf.pcount() + static_cast<unsigned int>(room));
}

// The framing faults of the streams beneath; other errors are left to the caller.
void translate(ZULStreamException const& e) {
    switch (e.getCode()) {
        case ZULStreamException::ZUL_ERR_END_OF_INPUT:
            raise(Policy::HTTP_ERR_BODY_CUT, __LINE__);
        case ZULStreamException::ZUL_ERR_CHUNK_SIZE:
            raise(Policy::HTTP_ERR_CHUNK_SIZE, __LINE__);
        case ZULStreamException::ZUL_ERR_CHUNK_TOO_LARGE:
            raise(Policy::HTTP_ERR_CHUNK_TOO_LARGE, __LINE__);
        case ZULStreamException::ZUL_ERR_CHUNK_END:
            raise(Policy::HTTP_ERR_CHUNK_END, __LINE__);
        case ZULStreamException::ZUL_ERR_CHUNK_EXTENSION:
            raise(Policy::HTTP_ERR_CHUNK_EXTENSION, __LINE__);
        case ZULStreamException::ZUL_ERR_TRAILER_TOO_LONG:
        case ZULStreamException::ZUL_ERR_TRAILER:
            raise(Policy::HTTP_ERR_TRAILER, __LINE__);
        case ZULStreamException::ZUL_ERR_FRAMING:
            raise(Policy::HTTP_ERR_CHUNK_FRAMING, __LINE__);
        default:
            return;
    }
}

}  // namespace

FramedStream::FramedStream(ZULInputStream& in, long long& allowance)
    : m_in(in), m_allowance(allowance), m_ended(false) {}

// Into the buffer's own storage where the stream beneath can do that; it grows for what is there
// only.
int FramedStream::read(QORByteBuffer& buf, int n) {
    return readBy([&](int wanted) { return m_in.read(buf, wanted); }, n);
}

int FramedStream::read(char* bytes, int n) {
    return readBy([&](int wanted) { return m_in.read(bytes, wanted); }, n);
}

template <class Read>
int FramedStream::readBy(Read const& readBeneath, int n) try {
    if (n > 0)
        n = m_ended ? -1 : allowed(n);
    else if (n < 0)
        return m_in.read(nullptr, n);
    if (n <= 0) return n;
    return give(took(readBeneath(n)));
} catch (ZULStreamException const& e) {
    translate(e);
    throw;
}

int FramedStream::give(int n) {
    if (n > 0)
        m_allowance -= n;
    else
        m_ended = true;
    return n;
}

// What next allows. Where the allowance is used up, one byte more tells whether the body ends here.
int FramedStream::allowed(int n) {
    n = next(static_cast<int>(std::min<long long>(n, std::max(1LL, m_allowance))));
    if (n > 0 && m_allowance <= 0) {
        char beyond;
        if (took(m_in.read(&beyond, 1)) > 0) raise(Policy::HTTP_ERR_BODY_TOO_LARGE, __LINE__);
        n = -1;
    }
    if (n < 0) m_ended = true;
    return n;
}

void FramedStream::drain(ZULInputStream& in, long long most) {
    char dropped[4096];
    for (int got; (got = in.read(dropped, sizeof dropped)) > 0;)
        if ((most -= got) < 0) raise(Policy::HTTP_ERR_BODY_LEFT, __LINE__);
}

// LengthStream

LengthStream::LengthStream(ZULInputStream& in, int length, Policy::PolicyErrorCode cut,
                           long long& allowance)
    : FramedStream(in, allowance), m_open(false), m_left(length), m_cut(cut) {}

LengthStream::LengthStream(ZULInputStream& in, long long& allowance)
    : FramedStream(in, allowance),
      m_open(true),
      m_left(INT_MAX),
      m_cut(Policy::HTTP_ERR_BODY_CUT) {}

LengthStream::~LengthStream() = default;

int LengthStream::next(int n) { return m_left == 0 ? -1 : std::min(n, m_left); }

int LengthStream::took(int n) {
    if (m_open) return n > 0 ? n : -1;
    if (n <= 0) raise(m_cut, __LINE__);
    m_left -= n;
    return n;
}

// ChunkStream

ChunkStream::ChunkStream(ZULChunkedInputStream& decoder, HTTPReadPolicy const& policy,
                         long long& allowance)
    : FramedStream(decoder, allowance) {
    if (policy.strictFraming) decoder.setStrict();
    if (policy.maxChunkFraming > 0 || policy.maxChunkFramingRatio > 0)
        decoder.setMaxFraming(policy.maxChunkFraming, policy.maxChunkFramingRatio);
}

ChunkStream::~ChunkStream() = default;

int ChunkStream::next(int n) { return n; }

int ChunkStream::took(int n) { return n > 0 ? n : -1; }

// BoundaryStream

BoundaryStream::BoundaryStream(ZULBufferedInputStream& in, std::string const& boundary,
                               bool atLineStart, long long& allowance)
    : FramedStream(in, allowance),
      m_buffered(in),
      m_boundary(boundary),
      m_atLineStart(atLineStart),
      m_inputEnded(false),
      m_closing(false),
      m_bytesNoted(false) {}

BoundaryStream::~BoundaryStream() = default;

int BoundaryStream::read(QORByteBuffer& buf, int n) {
    n = std::min(n, kRoom);  // a wish: no more is taken at once than is there, or than this
    if (n < kWorthReading || !mayGive(n)) return FramedStream::read(buf, n);
    int const found = m_buffered.buffered() > 0 ? takeAhead(buf, n) : readStraight(buf, n);
    return found == 0 ? FramedStream::read(buf, n) : give(took(found));
}

// Of what is read ahead; what bodyBytes says of it. Where the body goes on behind it, room for that
// is made as well, so that these bytes are not moved again.
int BoundaryStream::takeAhead(QORByteBuffer& buf, int n) {
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
int BoundaryStream::readStraight(QORByteBuffer& buf, int n) {
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

int BoundaryStream::next(int n) {
    for (;;) {
        int have = 0;
        char const* const bytes = m_buffered.peek(have);
        if (have == 0)
            parseError::raise(HTTPException::HTTP_ERR_MISSING_BOUNDARY,
                              parseError::kProcessEntities, __LINE__);
        if (int const found = bodyBytes(bytes, have, n)) return found;
        readOn(bytes, have);
    }
}

int BoundaryStream::took(int n) {
    m_atLineStart = false;
    return n;
}

// The bytes, of at most `most`, before what is, or may be, a delimiter; -1 where it stands at once,
// 0 where more bytes must tell. Every CR is looked at once, so that the time is linear in the
// bytes.
int BoundaryStream::bodyBytes(char const* bytes, int have, int most) {
    char const* const end = bytes + have;
    char const* const last = bytes + std::min(have, most);
    Verdict verdict = m_atLineStart ? judge(bytes, end) : Verdict::No;
    char const* at = bytes;
    while (verdict == Verdict::No) {
        at = leap(at, last);
        void const* const cr = std::memchr(at, '\r', static_cast<std::size_t>(last - at));
        if (!cr) return static_cast<int>(last - bytes);
        at = static_cast<char const*>(cr);
        if (at + 1 == end)
            verdict = undecided();
        else if (at[1] == '\n')
            verdict = judge(at + 2, end);
        if (verdict == Verdict::No) ++at;
    }
    if (at != bytes) return static_cast<int>(at - bytes);
    return verdict == Verdict::Yes ? -1 : 0;
}

// From `at` on, as far as no delimiter begins for sure. One that begins within a leap covers the
// two bytes at its end, so that nothing between need be looked at where they occur in no delimiter.
// With data that are no text this is faster than to stop at every CR.
char const* BoundaryStream::leap(char const* at, char const* end) {
    auto const length = static_cast<std::ptrdiff_t>(m_boundary.size()) + 3;
    if (length < kWorthLeaping || end - at < kWorthNoting) return at;
    if (!m_bytesNoted) noteBytes();
    auto const occurs = [this](char c) { return m_occurs[static_cast<unsigned char>(c)]; };
    while (end - at > length && !(occurs(at[length - 1]) & occurs(at[length]))) at += length;
    return at;
}

void BoundaryStream::noteBytes() {
    m_occurs.fill(0);
    for (std::string_view const part : {std::string_view("\r\n--"), std::string_view(m_boundary)})
        for (char const c : part) m_occurs[static_cast<unsigned char>(c)] = 1;
    m_bytesNoted = true;
}

// Whether a delimiter begins here: exactly the boundary on a line of its own. The longer ones, of a
// level within or around this one, are lines like any other.
BoundaryStream::Verdict BoundaryStream::judge(char const* text, char const* end) {
    auto const begins = [&text, end](std::string_view start) {
        auto const have = std::min(start.size(), static_cast<std::size_t>(end - text));
        if (start.compare(0, have, text, have) != 0) return Verdict::No;
        text += have;
        return have == start.size() ? Verdict::Yes : Verdict::Open;
    };
    auto const settled = [this](Verdict v) { return v == Verdict::Open ? undecided() : v; };
    for (std::string_view const start : {std::string_view("--"), std::string_view(m_boundary)})
        if (Verdict const v = begins(start); v != Verdict::Yes) return settled(v);
    m_closing = false;
    if (Verdict const v = judgeLineEnd(text, end); v != Verdict::No) return v;
    m_closing = true;
    if (Verdict const v = begins("--"); v != Verdict::Yes) return settled(v);
    return judgeLineEnd(text, end);
}

// White space and CRLF. The end of the level ends the line as well.
BoundaryStream::Verdict BoundaryStream::judgeLineEnd(char const* text, char const* end) const {
    char const* const padding = text;
    while (text != end && isBlank(*text)) ++text;
    if (text - padding > kMaxPadding) return Verdict::No;
    if (end - text < 2 && (text == end || *text == '\r'))
        return m_inputEnded ? Verdict::Yes : Verdict::Open;
    return text[0] == '\r' && text[1] == '\n' ? Verdict::Yes : Verdict::No;
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

bool BoundaryStream::atDelimiter() { return next(1) < 0; }

bool BoundaryStream::takeDelimiter() {
    atDelimiter();
    int have = 0;
    char const* const bytes = m_buffered.peek(have);
    char const* const end = bytes + have;
    char const* text = bytes;
    if (*text == '\r') text += 2;
    text += 2 + m_boundary.size() + (m_closing ? 2 : 0);
    while (text != end && *text != '\n') ++text;
    m_buffered.skip(static_cast<int>(text - bytes) + (text != end ? 1 : 0));
    return m_closing;
}
