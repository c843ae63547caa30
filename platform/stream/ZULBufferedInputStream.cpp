#include "foundation/ZULBufferedInputStream.h"

#include <algorithm>
#include <cstring>

#include "foundation/QORThrowable.h"
#include "foundation/ZULStreamException.h"

static char const kSourceFile[] = "ZULBufferedInputStream";

namespace {

void requireAtLeast(int least, int n, int line) {
    if (n < least)
        ZULStreamException::raise(ZULStreamException::ZUL_ERR_NEGATIVE_COUNT,
                                  QORFileLocation(kSourceFile, line));
}

int roomIn(QORByteBuffer const& buf) { return static_cast<int>(buf.capacity() - buf.pcount()); }

char const* endOf(QORByteBuffer const& buf) { return buf.str() + buf.pcount(); }

}  // namespace

// The storage grows to the full size at once, at the first read that needs it: a growth step of 1
// leaves the rest to reserve.
ZULBufferedInputStream::ZULBufferedInputStream(ZULInputStream& in, int size)
    : ZULFilterInputStream(in), m_readAhead(0, 1), m_position(0), m_size(size), m_maxLine(0) {
    requireAtLeast(1, size, __LINE__);
}

ZULBufferedInputStream::ZULBufferedInputStream(ZULBufferedInputStream const&) = default;
ZULBufferedInputStream::~ZULBufferedInputStream() = default;

int ZULBufferedInputStream::read(QORByteBuffer& buf, int n) {
    requireAtLeast(0, n, __LINE__);
    if (n == 0) return 0;
    if (buffered() == 0) {
        // Straight into the buffer's free room. It grows only for bytes that are here: to learn
        // that the input has ended, a body that just fits would else be moved.
        int const room = roomIn(buf);
        if (std::min(n, room) >= m_size) return ZULFilterInputStream::read(buf, std::min(n, room));
        if (fill() < 0) return -1;
    }
    int const given = std::min(n, buffered());
    buf.appendChars(m_readAhead.str() + m_position, static_cast<unsigned int>(given));
    m_position += given;
    return given;
}

int ZULBufferedInputStream::read(char* bytes, int n) {
    requireAtLeast(0, n, __LINE__);
    if (n == 0) return 0;
    if (buffered() == 0) {
        if (n >= m_size) return beneath().read(bytes, n);
        if (fill() < 0) return -1;
    }
    int const given = std::min(n, buffered());
    std::memcpy(bytes, m_readAhead.str() + m_position, static_cast<unsigned int>(given));
    m_position += given;
    return given;
}

int ZULBufferedInputStream::read() {
    if (buffered() == 0 && fill() < 0) return -1;
    return static_cast<unsigned char>(m_readAhead.str()[m_position++]);
}

bool ZULBufferedInputStream::canUnread() { return true; }

void ZULBufferedInputStream::unread(char const* bytes, int n) {
    requireAtLeast(0, n, __LINE__);
    unsigned int const count = static_cast<unsigned int>(n);
    // Mostly they are what was just taken, and their place in front is still there.
    if (n <= m_position) {
        m_position -= n;
        if (n > 0) std::memmove(m_readAhead.str() + m_position, bytes, count);
        return;
    }
    // They may be the very bytes that peek showed: the buffer knows its own where it grows.
    int const have = buffered();
    m_readAhead.appendChars(bytes, count);
    char* const begin = m_readAhead.str() + m_position;
    std::rotate(begin, begin + have, begin + have + n);
}

// Looks for the LF in all that is buffered at once, and copies each byte once. A CR that came with
// an earlier piece is cut off in buf.
int ZULBufferedInputStream::readLine(QORByteBuffer& buf) {
    unsigned int const before = buf.pcount();
    while (buffered() > 0 || fill() > 0) {
        char const* const begin = m_readAhead.str() + m_position;
        unsigned int const have = static_cast<unsigned int>(buffered());
        void const* const lf = std::memchr(begin, '\n', have);
        unsigned int const piece =
            lf ? static_cast<unsigned int>(static_cast<char const*>(lf) - begin) : have;
        requireWithinLimit(buf.pcount() - before + piece, piece > 0 ? begin + piece : endOf(buf));
        bool const endsInCr = lf && piece > 0 && begin[piece - 1] == '\r';
        buf.appendChars(begin, endsInCr ? piece - 1 : piece);
        m_position += static_cast<int>(piece);
        if (!lf) continue;
        ++m_position;
        if (piece == 0 && buf.pcount() > before && endOf(buf)[-1] == '\r')
            buf.setLength(buf.pcount() - 1);
        return static_cast<int>(buf.pcount() - before);
    }
    return buf.pcount() > before ? static_cast<int>(buf.pcount() - before) : -1;
}

// A CR just before `end` may belong to the terminator, and then does not count.
void ZULBufferedInputStream::requireWithinLimit(unsigned int length, char const* end) const {
    if (m_maxLine == 0 || length <= static_cast<unsigned int>(m_maxLine)) return;
    if (length - 1 > static_cast<unsigned int>(m_maxLine) || end[-1] != '\r')
        ZULStreamException::raise(ZULStreamException::ZUL_ERR_LINE_TOO_LONG,
                                  QORFileLocation(kSourceFile, __LINE__));
}

void ZULBufferedInputStream::setMaxLine(int bytes) {
    requireAtLeast(0, bytes, __LINE__);
    m_maxLine = bytes;
}

void ZULBufferedInputStream::requireBuffered(int n) const { QOR_ASSERT(n >= 0 && n <= buffered()); }

// An empty buffer before the read: if that raises, nothing stale is left to be taken.
int ZULBufferedInputStream::fill() {
    ZULInputStream& in = beneath();
    m_readAhead.reset();
    m_position = 0;
    m_readAhead.reserve(static_cast<unsigned int>(m_size));
    int const got = in.read(m_readAhead.str(), m_size);
    if (got <= 0) return -1;
    m_readAhead.setLength(static_cast<unsigned int>(got));
    return got;
}
