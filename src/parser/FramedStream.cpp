#include "parser/FramedStream.h"

#include <algorithm>

#include "foundation/ZULStreamException.h"

static char const kSourceFile[] = "FramedStream";

namespace postwire::internal {

namespace {

// The framing faults of the streams beneath; other errors are left to the caller.
void translate(ZULStreamException const& e) {
    using Policy = HTTPPolicyException;
    switch (e.getCode()) {
        case ZULStreamException::ZUL_ERR_END_OF_INPUT:
            refuse(Policy::HTTP_ERR_BODY_CUT, {kSourceFile, __LINE__});
        case ZULStreamException::ZUL_ERR_CHUNK_SIZE:
            refuse(Policy::HTTP_ERR_CHUNK_SIZE, {kSourceFile, __LINE__});
        case ZULStreamException::ZUL_ERR_CHUNK_TOO_LARGE:
            refuse(Policy::HTTP_ERR_CHUNK_TOO_LARGE, {kSourceFile, __LINE__});
        case ZULStreamException::ZUL_ERR_CHUNK_END:
            refuse(Policy::HTTP_ERR_CHUNK_END, {kSourceFile, __LINE__});
        case ZULStreamException::ZUL_ERR_CHUNK_EXTENSION:
            refuse(Policy::HTTP_ERR_CHUNK_EXTENSION, {kSourceFile, __LINE__});
        case ZULStreamException::ZUL_ERR_TRAILER_TOO_LONG:
        case ZULStreamException::ZUL_ERR_TRAILER:
            refuse(Policy::HTTP_ERR_TRAILER, {kSourceFile, __LINE__});
        case ZULStreamException::ZUL_ERR_FRAMING:
            refuse(Policy::HTTP_ERR_CHUNK_FRAMING, {kSourceFile, __LINE__});
        default:
            return;
    }
}

}  // namespace

FramedStream::FramedStream(ZULInputStream& in, Budget& bytes)
    : m_in(in), m_bytes(bytes), m_ended(false) {}

FramedStream::~FramedStream() = default;

// Into the buffer's own storage where the stream beneath can do that; it grows for what is there
// only.
int FramedStream::read(QORByteBuffer& buf, int n) {
    return readBy([&](int wanted) { return m_in.read(buf, wanted); }, n);
}

int FramedStream::read(char* bytes, int n) {
    return readBy([&](int wanted) { return m_in.read(bytes, wanted); }, n);
}

// Where the budget is used up, one byte more tells whether the body ends here.
template <class Read>
int FramedStream::readBy(Read const& readBeneath, int n) try {
    if (n <= 0) return n == 0 ? 0 : m_in.read(nullptr, n);
    if (m_ended) return -1;
    n = bytesToAsk(static_cast<int>(std::min<long long>(n, std::max(1LL, m_bytes.left()))));
    if (n < 0) return countRead(-1);
    char beyond;
    int const got = m_bytes.left() > 0 ? readBeneath(n) : m_in.read(&beyond, 1);
    noteArrival(got);
    return countRead(got);
} catch (ZULStreamException const& e) {
    translate(e);
    throw;
}

int FramedStream::countRead(int n) {
    if (n > 0) {
        m_bytes.take(n);
        return n;
    }
    m_ended = true;
    return -1;
}

int FramedStream::bytesToAsk(int n) { return n; }

void FramedStream::noteArrival(int) {}

LengthStream::LengthStream(ZULInputStream& in, int length, Budget::Code cut, Budget& bytes)
    : FramedStream(in, bytes), m_left(length), m_cut(cut) {}

LengthStream::~LengthStream() = default;

int LengthStream::bytesToAsk(int n) { return m_left == 0 ? -1 : std::min(n, m_left); }

void LengthStream::noteArrival(int n) {
    if (n <= 0) refuse(m_cut, {kSourceFile, __LINE__});
    m_left -= n;
}

void drain(ZULInputStream& in, Budget& unread, Budget& bytes) {
    char dropped[4096];  // as a level's read-ahead: larger blocks would come in pieces
    for (int got; (got = in.read(dropped, sizeof dropped)) > 0;) {
        bytes.take(got);
        unread.take(got);
    }
}

}  // namespace postwire::internal
