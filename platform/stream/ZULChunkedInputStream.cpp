#include "foundation/ZULChunkedInputStream.h"

#include <algorithm>
#include <climits>

#include "foundation/QORThrowable.h"

static char const kSourceFile[] = "ZULChunkedInputStream";

namespace {

constexpr int kMaxDigits = 8;
constexpr int kMaxExtension = 4 * 1024;
constexpr int kMaxTrailer = 64 * 1024;

// The value of a hexadecimal digit, or 16.
unsigned int digitValue(char c) {
    if (c >= '0' && c <= '9') return static_cast<unsigned int>(c - '0');
    if (c >= 'a' && c <= 'f') return static_cast<unsigned int>(c - 'a') + 10;
    if (c >= 'A' && c <= 'F') return static_cast<unsigned int>(c - 'A') + 10;
    return 16;
}

}  // namespace

ZULChunkedInputStream::ZULChunkedInputStream(ZULBufferedInputStream& in)
    : ZULFilterInputStream(in),
      m_pBuffered(&in),
      m_state(State::Size),
      m_fault(ZULStreamException::ZUL_ERR_END_OF_INPUT),
      m_left(0),
      m_count(0) {}

ZULChunkedInputStream::~ZULChunkedInputStream() = default;

void ZULChunkedInputStream::detach() {
    ZULFilterInputStream::detach();
    m_pBuffered = nullptr;
}

int ZULChunkedInputStream::read(char* bytes, int n) {
    if (n < 0)
        ZULStreamException::raise(ZULStreamException::ZUL_ERR_NEGATIVE_COUNT,
                                  QORFileLocation(kSourceFile, __LINE__));
    int got = 0;
    while (got < n && m_state != State::End && m_state != State::Failed) {
        beneath();
        // What has been decoded is given before anything is waited for.
        if (got > 0 && m_pBuffered->buffered() == 0) break;
        if (m_state == State::Data)
            got += readData(bytes + got, n - got);
        else
            readFraming();
    }
    if (got > 0 || n == 0) return got;
    if (m_state == State::Failed)
        ZULStreamException::raise(m_fault, QORFileLocation(kSourceFile, __LINE__));
    return -1;
}

// One read beneath; it gives buffered bytes where there are any, and then can't wait.
int ZULChunkedInputStream::readData(char* bytes, int n) {
    int const wanted = std::min(n, static_cast<int>(m_left));
    int const got = m_pBuffered->read(bytes, wanted);
    if (got <= 0) {
        fail(ZULStreamException::ZUL_ERR_END_OF_INPUT);
        return 0;
    }
    m_left -= static_cast<unsigned int>(got);
    if (m_left == 0) enter(State::DataCr);
    return got;
}

bool ZULChunkedInputStream::inFraming() const {
    return m_state != State::Data && m_state != State::End && m_state != State::Failed;
}

void ZULChunkedInputStream::readFraming() {
    int available = 0;
    char const* const bytes = m_pBuffered->peek(available);
    if (available == 0) return fail(ZULStreamException::ZUL_ERR_END_OF_INPUT);
    int taken = 0;
    while (taken < available && inFraming()) takeFramingByte(bytes[taken++]);
    m_pBuffered->skip(taken);
}

void ZULChunkedInputStream::takeFramingByte(char byte) {
    switch (m_state) {
        case State::Size:
            return takeSizeByte(byte);
        case State::BehindSize:
        case State::Extension:
            return takeByteBehindSize(byte);
        case State::SizeLf:
            return expect('\n', byte, m_left > 0 ? State::Data : State::Trailer);
        case State::DataCr:
            return expect('\r', byte, State::DataLf);
        case State::DataLf:
            return expect('\n', byte, State::Size);
        case State::Trailer:
        case State::TrailerLine:
        case State::TrailerLineLf:
            return takeTrailerByte(byte);
        case State::BodyLf:
            return expect('\n', byte, State::End);
        case State::Data:
        case State::End:
        case State::Failed:
            return;
    }
}

void ZULChunkedInputStream::takeSizeByte(char byte) {
    unsigned int const digit = digitValue(byte);
    if (digit < 16) {
        if (++m_count > kMaxDigits) return fail(ZULStreamException::ZUL_ERR_CHUNK_SIZE);
        m_left = m_left * 16 + digit;
        return;
    }
    if (m_count == 0) return fail(ZULStreamException::ZUL_ERR_CHUNK_SIZE);
    if (m_left > INT_MAX) return fail(ZULStreamException::ZUL_ERR_CHUNK_TOO_LARGE);
    enter(State::BehindSize);
    takeByteBehindSize(byte);
}

void ZULChunkedInputStream::takeByteBehindSize(char byte) {
    if (byte == '\r') return enter(State::SizeLf);
    if (byte == '\n') return fail(ZULStreamException::ZUL_ERR_CHUNK_END);
    if (++m_count > kMaxExtension) return fail(ZULStreamException::ZUL_ERR_CHUNK_EXTENSION);
    if (m_state == State::Extension || byte == ' ' || byte == '\t') return;
    if (byte != ';') return fail(ZULStreamException::ZUL_ERR_CHUNK_SIZE);
    m_state = State::Extension;
}

void ZULChunkedInputStream::takeTrailerByte(char byte) {
    if (m_state == State::Trailer && byte == '\r') return enter(State::BodyLf);
    if (++m_count > kMaxTrailer) return fail(ZULStreamException::ZUL_ERR_TRAILER_TOO_LONG);
    // Not through enter: the count goes on over all lines.
    if (m_state == State::TrailerLineLf) {
        if (byte != '\n') return fail(ZULStreamException::ZUL_ERR_CHUNK_END);
        m_state = State::Trailer;
    } else if (byte == '\n') {
        fail(ZULStreamException::ZUL_ERR_CHUNK_END);
    } else {
        m_state = byte == '\r' ? State::TrailerLineLf : State::TrailerLine;
    }
}

void ZULChunkedInputStream::expect(char wanted, char byte, State next) {
    if (byte == wanted)
        enter(next);
    else
        fail(ZULStreamException::ZUL_ERR_CHUNK_END);
}

void ZULChunkedInputStream::enter(State state) {
    m_state = state;
    m_count = 0;
}

void ZULChunkedInputStream::fail(ZULStreamException::Fault fault) {
    m_state = State::Failed;
    m_fault = fault;
}
