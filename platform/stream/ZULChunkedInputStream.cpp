#include "foundation/ZULChunkedInputStream.h"

#include <algorithm>
#include <climits>

#include "foundation/QORByteBuffer.h"
#include "foundation/QORThrowable.h"

#include "foundation/AsciiText.h"

static char const kSourceFile[] = "ZULChunkedInputStream";

namespace {

constexpr int kMaxDigits = 8;
// RFC 9112 section 7.1.1: a recipient limits the length of extensions. Trailer fields are dropped
// here, so no more of them is read than of a header.
constexpr int kMaxExtension = 4 * 1024;
constexpr int kMaxTrailer = 64 * 1024;

}  // namespace

ZULChunkedInputStream::ZULChunkedInputStream(ZULBufferedInputStream& in)
    : ZULFilterInputStream(in),
      m_pBuffered(&in),
      m_state(State::Size),
      m_fault(ZULStreamException::ZUL_ERR_END_OF_INPUT),
      m_left(0),
      m_count(0),
      m_strict(false),
      m_inName(false),
      m_inExtension(InExtension::BeforeName),
      m_framingLeft(LLONG_MAX),
      m_framingRatio(0) {}

ZULChunkedInputStream::~ZULChunkedInputStream() = default;

void ZULChunkedInputStream::detach() {
    ZULFilterInputStream::detach();
    m_pBuffered = nullptr;
}

void ZULChunkedInputStream::setStrict() { m_strict = true; }

void ZULChunkedInputStream::setMaxFraming(long long bytes, int ratio) {
    m_framingLeft = bytes;
    m_framingRatio = ratio;
}

// The buffer grows only for data that this chunk has: to learn that it has ended, a body that just
// fits would else be moved.
int ZULChunkedInputStream::read(QORByteBuffer& buf, int n) {
    if (n > 0) {
        if (!findData()) return -1;
        unsigned int const room = buf.capacity() - buf.pcount();
        n = std::min(n, static_cast<int>(std::max(room, m_left)));
    }
    return ZULFilterInputStream::read(buf, n);
}

int ZULChunkedInputStream::read(char* bytes, int n) {
    if (n < 0)
        ZULStreamException::raise(ZULStreamException::ZUL_ERR_NEGATIVE_COUNT,
                                  QORFileLocation(kSourceFile, __LINE__));
    if (n == 0) return 0;
    if (!findData()) return -1;
    int got = readData(bytes, n);
    // What has been decoded is given before anything is waited for, and before an error is told.
    while (got < n && m_pBuffered->buffered() > 0) {
        if (m_state == State::Data)
            got += readData(bytes + got, n - got);
        else if (inFraming())
            readFraming();
        else
            break;
    }
    return got;
}

bool ZULChunkedInputStream::inFraming() const {
    return m_state != State::Data && m_state != State::End && m_state != State::Failed;
}

// Reads framing until chunk data follows; false at the end of the body.
bool ZULChunkedInputStream::findData() {
    while (inFraming()) {
        beneath();
        readFraming();
    }
    if (m_state == State::Failed) raiseFault();
    return m_state == State::Data;
}

// One read beneath; it gives buffered bytes where there are any, and then can't wait.
int ZULChunkedInputStream::readData(char* bytes, int n) {
    beneath();
    int const got = m_pBuffered->read(bytes, std::min(n, static_cast<int>(m_left)));
    if (got <= 0) {
        fail(ZULStreamException::ZUL_ERR_END_OF_INPUT);
        raiseFault();
    }
    m_left -= static_cast<unsigned int>(got);
    m_framingLeft += static_cast<long long>(got) * m_framingRatio;
    if (m_left == 0) enter(State::DataCr);
    return got;
}

// Takes what is buffered, up to the data or the end of the body and no byte further.
void ZULChunkedInputStream::readFraming() {
    int available = 0;
    char const* const bytes = m_pBuffered->peek(available);
    if (available == 0) return fail(ZULStreamException::ZUL_ERR_END_OF_INPUT);
    int taken = takePlainSizeLine(bytes, available);
    countFraming(taken);
    while (taken < available && inFraming()) {
        takeFramingByte(bytes[taken++]);
        countFraming(1);
    }
    m_pBuffered->skip(taken);
}

// Nearly every chunk begins with a size and nothing else, and the whole line is at hand: then it is
// taken in one look. Gives 0, and leaves all to the byte-wise reading, where anything differs.
int ZULChunkedInputStream::takePlainSizeLine(char const* bytes, int available) {
    char const* next = bytes;
    char const* const end = bytes + available;
    auto const takeCrLf = [&] {
        if (end - next < 2 || next[0] != '\r' || next[1] != '\n') return false;
        next += 2;
        return true;
    };
    if (m_state == State::DataCr ? !takeCrLf() : m_state != State::Size || m_count > 0) return 0;
    char const* const digits = next;
    unsigned int size = 0;
    while (next < end && next - digits < kMaxDigits && hexDigitValue(*next) >= 0)
        size = size * 16 + static_cast<unsigned int>(hexDigitValue(*next++));
    if (size == 0 || size > INT_MAX || !takeCrLf()) return 0;
    m_left = size;
    enter(State::Data);
    return static_cast<int>(next - bytes);
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

// RFC 9112 section 7.1: 1*HEXDIG, nothing before it. Eight digits fit m_left; more, leading zeros
// too, are refused, as some readers would count in fewer bits and see another size.
void ZULChunkedInputStream::takeSizeByte(char byte) {
    int const digit = hexDigitValue(byte);
    if (digit >= 0) {
        if (++m_count > kMaxDigits) return fail(ZULStreamException::ZUL_ERR_CHUNK_SIZE);
        m_left = m_left * 16 + static_cast<unsigned int>(digit);
        return;
    }
    if (m_count == 0) return fail(ZULStreamException::ZUL_ERR_CHUNK_SIZE);
    if (m_left > INT_MAX) return fail(ZULStreamException::ZUL_ERR_CHUNK_TOO_LARGE);
    enter(State::BehindSize);
    takeByteBehindSize(byte);
}

// White space, then perhaps ";" and an extension, which may hold anything but a line's end where it
// is not read to the letter.
void ZULChunkedInputStream::takeByteBehindSize(char byte) {
    if (byte == '\r') {
        if (m_strict && m_state == State::BehindSize && m_count > 0)
            return fail(ZULStreamException::ZUL_ERR_CHUNK_SIZE);
        if (m_strict && m_state == State::Extension && !mayEndExtension())
            return fail(ZULStreamException::ZUL_ERR_CHUNK_EXTENSION);
        return enter(State::SizeLf);
    }
    if (byte == '\n') return fail(ZULStreamException::ZUL_ERR_CHUNK_END);
    if (++m_count > kMaxExtension) return fail(ZULStreamException::ZUL_ERR_CHUNK_EXTENSION);
    if (m_state == State::Extension) {
        if (m_strict && !fitsExtension(byte)) fail(ZULStreamException::ZUL_ERR_CHUNK_EXTENSION);
        return;
    }
    if (isBlank(byte)) return;
    if (byte != ';') return fail(ZULStreamException::ZUL_ERR_CHUNK_SIZE);
    m_state = State::Extension;
    m_inExtension = InExtension::BeforeName;
}

// RFC 9112 section 7.1.1: after each ";" a name, and perhaps "=" and a token or a text in quotes;
// white space may stand in front of each of them.
bool ZULChunkedInputStream::fitsExtension(char byte) {
    using In = InExtension;
    In const in = m_inExtension;
    if (in == In::Quoted || in == In::QuotedPair) {
        if (in == In::Quoted && byte == '"')
            m_inExtension = In::BehindQuotes;
        else
            m_inExtension = in == In::Quoted && byte == '\\' ? In::QuotedPair : In::Quoted;
        return !isControlCharacter(byte);
    }
    bool const behindName = in == In::Name || in == In::BehindName;
    bool const behindValue = in == In::Value || in == In::BehindQuotes || in == In::BehindValue;
    if (isBlank(byte)) {
        if (behindName) m_inExtension = In::BehindName;
        if (behindValue) m_inExtension = In::BehindValue;
        return true;
    }
    if (byte == ';' && (behindName || behindValue)) {
        m_inExtension = In::BeforeName;
        return true;
    }
    if (byte == '=' && behindName) {
        m_inExtension = In::BeforeValue;
        return true;
    }
    if (byte == '"' && in == In::BeforeValue) {
        m_inExtension = In::Quoted;
        return true;
    }
    if (in == In::BeforeName) m_inExtension = In::Name;
    if (in == In::BeforeValue) m_inExtension = In::Value;
    return isTokenCharacter(byte) && (m_inExtension == In::Name || m_inExtension == In::Value);
}

bool ZULChunkedInputStream::mayEndExtension() const {
    using In = InExtension;
    return m_inExtension == In::Name || m_inExtension == In::Value ||
           m_inExtension == In::BehindQuotes;
}

// Byte by byte, so that it does not depend on the reads beneath which fault is met first.
void ZULChunkedInputStream::countFraming(int bytes) {
    m_framingLeft -= bytes;
    if (m_framingLeft < 0 && m_state != State::Failed) fail(ZULStreamException::ZUL_ERR_FRAMING);
}

// Lines of any content; the empty one ends the body.
void ZULChunkedInputStream::takeTrailerByte(char byte) {
    if (m_state == State::Trailer && byte == '\r') return enter(State::BodyLf);
    if (++m_count > kMaxTrailer) return fail(ZULStreamException::ZUL_ERR_TRAILER_TOO_LONG);
    if (m_strict && !fitsTrailerLine(byte)) return fail(ZULStreamException::ZUL_ERR_TRAILER);
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

// Whether the line can still be a field line: a token, a colon, a value without control characters.
bool ZULChunkedInputStream::fitsTrailerLine(char byte) {
    if (m_state == State::TrailerLineLf) return true;
    bool const first = m_state == State::Trailer;
    if (first) m_inName = true;
    if (!m_inName) return byte == '\r' || byte == '\n' || !isControlCharacter(byte);
    if (byte == ':') {
        m_inName = false;
        return !first;
    }
    return isTokenCharacter(byte);
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

// Does not raise yet: data in front of the fault is given first.
void ZULChunkedInputStream::fail(ZULStreamException::Fault fault) {
    m_state = State::Failed;
    m_fault = fault;
}

void ZULChunkedInputStream::raiseFault() const {
    ZULStreamException::raise(m_fault, QORFileLocation(kSourceFile, __LINE__));
}
