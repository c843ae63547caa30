#include "parser/FramedStream.h"

#include <algorithm>
#include <utility>

#include "foundation/ZULStreamException.h"

static char const kSourceFile[] = "FramedStream";

namespace postwire::internal {

namespace {

// The framing faults of the streams beneath; other errors are left to the caller.
void translate(ZULStreamException const& e) {
    using Beneath = ZULStreamException;
    using Policy = HTTPPolicyException;
    static constexpr std::pair<long, Policy::PolicyErrorCode> kFaults[] = {
        {Beneath::ZUL_ERR_END_OF_INPUT, Policy::HTTP_ERR_BODY_CUT},
        {Beneath::ZUL_ERR_CHUNK_SIZE, Policy::HTTP_ERR_CHUNK_SIZE},
        {Beneath::ZUL_ERR_CHUNK_TOO_LARGE, Policy::HTTP_ERR_CHUNK_TOO_LARGE},
        {Beneath::ZUL_ERR_CHUNK_END, Policy::HTTP_ERR_CHUNK_END},
        {Beneath::ZUL_ERR_CHUNK_EXTENSION, Policy::HTTP_ERR_CHUNK_EXTENSION},
        {Beneath::ZUL_ERR_TRAILER_TOO_LONG, Policy::HTTP_ERR_TRAILER},
        {Beneath::ZUL_ERR_TRAILER, Policy::HTTP_ERR_TRAILER},
        {Beneath::ZUL_ERR_FRAMING, Policy::HTTP_ERR_CHUNK_FRAMING}};
    for (auto const& [beneath, code] : kFaults)
        if (e.getCode() == beneath) refuse(code, {kSourceFile, __LINE__});
}

}  // namespace

FramedStream::FramedStream(ZULInputStream& in, Budget& bytes)
    : m_in(in), m_bytes(bytes), m_ended(false) {}

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
